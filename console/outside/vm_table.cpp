#include "vm_table.h"

#include <algorithm>
#include <cstring>

namespace qorctl::outside {

namespace {

enum class Kind { FIELD, STATIC, SIZE, CONSTANT };

struct Row {
    Vm slot;
    Kind kind;
    const char *type;
    const char *field = "";
};

// Of several names for a slot the first that the JVM has holds.
constexpr Row ROWS[] = {
    {Vm::LIST_HEAD, Kind::STATIC, "Threads", "_thread_list"},
    {Vm::THREAD_NEXT, Kind::FIELD, "JavaThread", "_next"},
    {Vm::THREADS_LIST, Kind::STATIC, "ThreadsSMRSupport", "_java_thread_list"},
    {Vm::LIST_LENGTH, Kind::FIELD, "ThreadsList", "_length"},
    {Vm::LIST_THREADS, Kind::FIELD, "ThreadsList", "_threads"},
    {Vm::THREAD_SIZE, Kind::SIZE, "JavaThread"},
    {Vm::THREAD_OS, Kind::FIELD, "JavaThread", "_osthread"},
    {Vm::THREAD_OS, Kind::FIELD, "Thread", "_osthread"},
    {Vm::OS_ID, Kind::FIELD, "OSThread", "_thread_id"},
    {Vm::THREAD_STATE, Kind::FIELD, "JavaThread", "_thread_state"},
    {Vm::THREAD_ANCHOR, Kind::FIELD, "JavaThread", "_anchor"},
    {Vm::ANCHOR_SP, Kind::FIELD, "JavaFrameAnchor", "_last_Java_sp"},
    {Vm::ANCHOR_PC, Kind::FIELD, "JavaFrameAnchor", "_last_Java_pc"},
    {Vm::ANCHOR_FP, Kind::FIELD, "JavaFrameAnchor", "_last_Java_fp"},
    {Vm::STACK_BASE, Kind::FIELD, "JavaThread", "_stack_base"},
    {Vm::STACK_BASE, Kind::FIELD, "Thread", "_stack_base"},
    {Vm::STACK_SIZE, Kind::FIELD, "JavaThread", "_stack_size"},
    {Vm::STACK_SIZE, Kind::FIELD, "Thread", "_stack_size"},
    {Vm::THREAD_OBJECT, Kind::FIELD, "JavaThread", "_threadObj"},
    {Vm::PENDING_MONITOR, Kind::FIELD, "JavaThread", "_current_pending_monitor"},
    {Vm::PENDING_MONITOR, Kind::FIELD, "Thread", "_current_pending_monitor"},
    {Vm::WAITING_MONITOR, Kind::FIELD, "JavaThread", "_current_waiting_monitor"},
    {Vm::WAITING_MONITOR, Kind::FIELD, "Thread", "_current_waiting_monitor"},
    {Vm::MONITOR_OBJECT, Kind::FIELD, "ObjectMonitor", "_object"},
    {Vm::HANDLE_OBJECT, Kind::FIELD, "OopHandle", "_obj"},
    {Vm::OOP_BASE, Kind::STATIC, "CompressedOops", "_base"},
    {Vm::OOP_BASE, Kind::STATIC, "CompressedOops", "_narrow_oop._base"},
    {Vm::OOP_BASE, Kind::STATIC, "Universe", "_narrow_oop._base"},
    {Vm::OOP_SHIFT, Kind::STATIC, "CompressedOops", "_shift"},
    {Vm::OOP_SHIFT, Kind::STATIC, "CompressedOops", "_narrow_oop._shift"},
    {Vm::OOP_SHIFT, Kind::STATIC, "Universe", "_narrow_oop._shift"},
    {Vm::KLASS_BASE, Kind::STATIC, "CompressedKlassPointers", "_base"},
    {Vm::KLASS_BASE, Kind::STATIC, "CompressedKlassPointers", "_narrow_klass._base"},
    {Vm::KLASS_BASE, Kind::STATIC, "Universe", "_narrow_klass._base"},
    {Vm::KLASS_SHIFT, Kind::STATIC, "CompressedKlassPointers", "_shift"},
    {Vm::KLASS_SHIFT, Kind::STATIC, "CompressedKlassPointers", "_narrow_klass._shift"},
    {Vm::KLASS_SHIFT, Kind::STATIC, "Universe", "_narrow_klass._shift"},
    {Vm::STRING_KLASS, Kind::STATIC, "vmClasses", "_klasses[static_cast<int>(vmClassID::String_klass_knum)]"},
    {Vm::STRING_KLASS, Kind::STATIC, "SystemDictionary",
     "_well_known_klasses[SystemDictionary::String_klass_knum]"},
    {Vm::THREAD_KLASS, Kind::STATIC, "vmClasses", "_klasses[static_cast<int>(vmClassID::Thread_klass_knum)]"},
    {Vm::THREAD_KLASS, Kind::STATIC, "SystemDictionary",
     "_well_known_klasses[SystemDictionary::Thread_klass_knum]"},
    {Vm::KLASS_NAME, Kind::FIELD, "Klass", "_name"},
    {Vm::KLASS_POOL, Kind::FIELD, "InstanceKlass", "_constants"},
    {Vm::KLASS_FIELDS, Kind::FIELD, "InstanceKlass", "_fields"},
    {Vm::KLASS_FIELD_COUNT, Kind::FIELD, "InstanceKlass", "_java_fields_count"},
    {Vm::KLASS_FIELD_STREAM, Kind::FIELD, "InstanceKlass", "_fieldinfo_stream"},
    {Vm::SHORTS_DATA, Kind::FIELD, "Array<u2>", "_data"},
    {Vm::BYTES_DATA, Kind::FIELD, "Array<u1>", "_data"},
    {Vm::POOL_SIZE, Kind::SIZE, "ConstantPool"},
    {Vm::POOL_HOLDER, Kind::FIELD, "ConstantPool", "_pool_holder"},
    {Vm::POOL_SOURCE, Kind::FIELD, "ConstantPool", "_source_file_name_index"},
    {Vm::KLASS_SOURCE, Kind::FIELD, "InstanceKlass", "_source_file_name_index"},
    {Vm::SYMBOL_LENGTH, Kind::FIELD, "Symbol", "_length"},
    {Vm::SYMBOL_BODY, Kind::FIELD, "Symbol", "_body"},
    {Vm::SYMBOL_BODY, Kind::FIELD, "Symbol", "_body[0]"},
    {Vm::FLAGS, Kind::STATIC, "JVMFlag", "flags"},
    {Vm::FLAGS, Kind::STATIC, "Flag", "flags"},
    {Vm::FLAG_COUNT, Kind::STATIC, "JVMFlag", "numFlags"},
    {Vm::FLAG_COUNT, Kind::STATIC, "Flag", "numFlags"},
    {Vm::FLAG_SIZE, Kind::SIZE, "JVMFlag"},
    {Vm::FLAG_SIZE, Kind::SIZE, "Flag"},
    {Vm::FLAG_NAME, Kind::FIELD, "JVMFlag", "_name"},
    {Vm::FLAG_NAME, Kind::FIELD, "Flag", "_name"},
    {Vm::FLAG_ADDRESS, Kind::FIELD, "JVMFlag", "_addr"},
    {Vm::FLAG_ADDRESS, Kind::FIELD, "Flag", "_addr"},
    {Vm::METHOD_CONST, Kind::FIELD, "Method", "_constMethod"},
    {Vm::METHOD_ACCESS, Kind::FIELD, "Method", "_access_flags"},
    {Vm::CONST_SIZE, Kind::SIZE, "ConstMethod"},
    {Vm::CONST_POOL, Kind::FIELD, "ConstMethod", "_constants"},
    {Vm::CONST_NAME, Kind::FIELD, "ConstMethod", "_name_index"},
    {Vm::CONST_CODE_SIZE, Kind::FIELD, "ConstMethod", "_code_size"},
    {Vm::CONST_FLAGS, Kind::FIELD, "ConstMethod", "_flags"},
    {Vm::CONST_FLAGS, Kind::FIELD, "ConstMethod", "_flags._flags"},
    {Vm::CODE_HEAP, Kind::STATIC, "CodeCache", "_heap"},
    {Vm::CODE_HEAPS, Kind::STATIC, "CodeCache", "_heaps"},
    {Vm::ARRAY_LENGTH, Kind::FIELD, "GrowableArrayBase", "_len"},
    {Vm::ARRAY_LENGTH, Kind::FIELD, "GenericGrowableArray", "_len"},
    {Vm::ARRAY_DATA, Kind::FIELD, "GrowableArray<int>", "_data"},
    {Vm::HEAP_MEMORY, Kind::FIELD, "CodeHeap", "_memory"},
    {Vm::HEAP_SEGMENTS, Kind::FIELD, "CodeHeap", "_segmap"},
    {Vm::HEAP_SEGMENT_LOG, Kind::FIELD, "CodeHeap", "_log2_segment_size"},
    {Vm::SPACE_LOW, Kind::FIELD, "VirtualSpace", "_low"},
    {Vm::SPACE_HIGH, Kind::FIELD, "VirtualSpace", "_high"},
    {Vm::BLOCK_SIZE, Kind::SIZE, "HeapBlock"},
    {Vm::BLOCK_USED, Kind::FIELD, "HeapBlock::Header", "_used"},
    {Vm::BLOB_SIZE, Kind::SIZE, "CodeBlob"},
    {Vm::BLOB_NAME, Kind::FIELD, "CodeBlob", "_name"},
    {Vm::BLOB_BEGIN, Kind::FIELD, "CodeBlob", "_code_begin"},
    {Vm::BLOB_END, Kind::FIELD, "CodeBlob", "_code_end"},
    {Vm::BLOB_CODE_OFFSET, Kind::FIELD, "CodeBlob", "_code_offset"},
    {Vm::BLOB_DATA_OFFSET, Kind::FIELD, "CodeBlob", "_data_offset"},
    {Vm::BLOB_FRAME_SIZE, Kind::FIELD, "CodeBlob", "_frame_size"},
    {Vm::BLOB_FRAME_COMPLETE, Kind::FIELD, "CodeBlob", "_frame_complete_offset"},
    {Vm::BLOB_MUTABLE, Kind::FIELD, "CodeBlob", "_mutable_data"},
    {Vm::BLOB_RELOCATION_SIZE, Kind::FIELD, "CodeBlob", "_relocation_size"},
    {Vm::COMPILED_METHOD, Kind::FIELD, "nmethod", "_method"},
    {Vm::COMPILED_METHOD, Kind::FIELD, "CompiledMethod", "_method"},
    {Vm::COMPILED_LEVEL, Kind::FIELD, "nmethod", "_comp_level"},
    {Vm::COMPILED_ENTRY_BCI, Kind::FIELD, "nmethod", "_entry_bci"},
    {Vm::COMPILED_IMMUTABLE, Kind::FIELD, "nmethod", "_immutable_data"},
    {Vm::SCOPES_PCS, Kind::FIELD, "nmethod", "_scopes_pcs_offset"},
    {Vm::SCOPES_DATA, Kind::FIELD, "nmethod", "_scopes_data_offset"},
    {Vm::SCOPES_DATA_BEGIN, Kind::FIELD, "CompiledMethod", "_scopes_data_begin"},
    {Vm::DEPENDENCIES, Kind::FIELD, "nmethod", "_dependencies_offset"},
    {Vm::METADATA, Kind::FIELD, "nmethod", "_metadata_offset"},
    {Vm::INTERPRETER, Kind::STATIC, "AbstractInterpreter", "_code"},
    {Vm::STUBS_BUFFER, Kind::FIELD, "StubQueue", "_stub_buffer"},
    {Vm::STUBS_LIMIT, Kind::FIELD, "StubQueue", "_buffer_limit"},
    {Vm::CALL_RETURN, Kind::STATIC, "StubRoutines", "_call_stub_return_address"},
    {Vm::CALL_WRAPPER, Kind::CONSTANT, "frame::entry_frame_call_wrapper_offset"},
    {Vm::WRAPPER_ANCHOR, Kind::FIELD, "JavaCallWrapper", "_anchor"},
    {Vm::RELEASE, Kind::STATIC, "Abstract_VM_Version", "_s_vm_release"},
    {Vm::MAJOR_VERSION, Kind::STATIC, "Abstract_VM_Version", "_vm_major_version"},
    {Vm::HEAP, Kind::STATIC, "Universe", "_collectedHeap"},
    {Vm::HEAP_COLLECTS, Kind::FIELD, "CollectedHeap", "_is_stw_gc_active"},
    {Vm::HEAP_COLLECTS, Kind::FIELD, "CollectedHeap", "_is_gc_active"},
};

// A table describes itself: variables beside it hold the length of a row and where its columns are.
struct Layout {
    const char *table, *stride;
    const char *columns[5];
};
constexpr Layout STRUCTS = {"gHotSpotVMStructs",
                            "gHotSpotVMStructEntryArrayStride",
                            {"gHotSpotVMStructEntryTypeNameOffset", "gHotSpotVMStructEntryFieldNameOffset",
                             "gHotSpotVMStructEntryIsStaticOffset", "gHotSpotVMStructEntryOffsetOffset",
                             "gHotSpotVMStructEntryAddressOffset"}};
constexpr Layout TYPES = {"gHotSpotVMTypes",
                          "gHotSpotVMTypeEntryArrayStride",
                          {"gHotSpotVMTypeEntryTypeNameOffset", "gHotSpotVMTypeEntrySizeOffset"}};
constexpr Layout CONSTANTS = {
    "gHotSpotVMIntConstants",
    "gHotSpotVMIntConstantEntryArrayStride",
    {"gHotSpotVMIntConstantEntryNameOffset", "gHotSpotVMIntConstantEntryValueOffset"}};

constexpr size_t MOST_ROWS = 20000, LONGEST_ROW = 1024, LONGEST_NAME = 128, ROWS_AT_ONCE = 64;

// One row of a table, read as a whole.
struct Entry {
    const char *bytes;
    const Address *columns;
    template <class T>
    T Column(int n) const {
        T value;
        memcpy(&value, bytes + columns[n], sizeof value);
        return value;
    }
};

// Calls `use` for each row until it returns false, which it does for the row of zeros at the end.
template <class Use>
void EachRow(Memory &memory, const VmSymbols &symbols, const Layout &layout, Use use) {
    const auto number = [&](const char *name, Address *value) {
        return memory.Read(symbols.Find(name), value, sizeof *value);
    };
    Address start = 0, stride = 0;
    if (!number(layout.table, &start) || !number(layout.stride, &stride) || start == 0 ||
        stride > LONGEST_ROW)
        return;
    Address columns[5] = {};
    for (size_t i = 0; i < std::size(columns) && layout.columns[i]; ++i) {
        if (!number(layout.columns[i], &columns[i]) || columns[i] > LONGEST_ROW ||
            columns[i] + sizeof(Address) > stride)
            return;
    }
    std::vector<char> bytes(ROWS_AT_ONCE * stride);
    for (size_t n = 0; n < MOST_ROWS; ++n) {
        const size_t i = n % ROWS_AT_ONCE;
        // The last rows may be the last of a page, with nothing after them.
        if (i == 0 && !memory.ReadFresh(start + n * stride, bytes.data(), bytes.size()))
            for (size_t k = 0; k < ROWS_AT_ONCE; ++k)
                if (!memory.ReadFresh(start + (n + k) * stride, &bytes[k * stride], stride))
                    std::fill(bytes.begin() + static_cast<long>(k * stride), bytes.end(), 0);
        if (!use(Entry{&bytes[i * stride], columns}))
            return;
    }
}

using RowsByName = std::unordered_map<std::string, std::vector<size_t>>;

RowsByName WantedRows() {
    RowsByName rows;
    for (size_t i = 0; i < std::size(ROWS); ++i)
        rows[std::string(ROWS[i].type) + " " + ROWS[i].field].push_back(i);
    return rows;
}

} // namespace

VmTable::VmTable() {
    std::fill(std::begin(values_), std::end(values_), UNKNOWN);
}

void VmTable::Take(size_t row, int64_t value) {
    const auto slot = static_cast<size_t>(ROWS[row].slot);
    if (values_[slot] != UNKNOWN && taken_[slot] <= row)
        return;
    values_[slot] = value;
    taken_[slot] = row;
}

bool VmTable::Load(Memory &memory, const VmSymbols &symbols) {
    *this = VmTable();
    const RowsByName wanted = WantedRows();
    std::unordered_map<Address, std::string> names; // of types, which repeat
    const auto name = [&](Address at) -> const std::string & {
        auto [known, is_new] = names.try_emplace(at);
        if (is_new)
            known->second = memory.Text(at, LONGEST_NAME);
        return known->second;
    };
    const auto take = [&](const std::string &key, auto kind_is, int64_t value) {
        if (const auto found = wanted.find(key); found != wanted.end())
            for (const size_t row : found->second)
                if (kind_is(ROWS[row].kind))
                    Take(row, value);
    };
    EachRow(memory, symbols, STRUCTS, [&](const Entry &entry) {
        const auto type = entry.Column<Address>(0);
        if (type == 0)
            return false;
        const Kind kind = entry.Column<int32_t>(2) != 0 ? Kind::STATIC : Kind::FIELD;
        take(
            name(type) + " " + memory.Text(entry.Column<Address>(1), LONGEST_NAME),
            [&](Kind other) { return other == kind; }, entry.Column<int64_t>(kind == Kind::STATIC ? 4 : 3));
        return true;
    });
    EachRow(memory, symbols, TYPES, [&](const Entry &entry) {
        const auto type = entry.Column<Address>(0);
        take(
            name(type) + " ", [](Kind kind) { return kind == Kind::SIZE; }, entry.Column<int64_t>(1));
        return type != 0;
    });
    EachRow(memory, symbols, CONSTANTS, [&](const Entry &entry) {
        const auto at = entry.Column<Address>(0);
        take(
            memory.Text(at, LONGEST_NAME) + " ", [](Kind kind) { return kind == Kind::CONSTANT; },
            entry.Column<int32_t>(1));
        return at != 0;
    });
    return Has({Vm::THREAD_STATE, Vm::THREAD_SIZE, Vm::OS_ID, Vm::THREAD_OS});
}

bool VmTable::Has(std::initializer_list<Vm> slots) const {
    return std::all_of(slots.begin(), slots.end(), [this](Vm slot) { return Get(slot) != UNKNOWN; });
}

Address VmTable::Static(Vm slot) const {
    return Get(slot) == UNKNOWN ? 0 : static_cast<Address>(Get(slot));
}

} // namespace qorctl::outside
