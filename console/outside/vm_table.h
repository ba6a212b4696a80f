// What a JVM's own tables say of its layout. libjvm.so exports them for debuggers: the types, fields and
// constants of its C++ classes by name. They differ from release to release, so each thing that is wanted has
// a slot here and a list of the names that it goes by; what isn't there is unknown, and what needs it is left
// out.
#pragma once

#include "jvm_image.h"

#include <initializer_list>
#include <optional>

namespace qorctl::outside {

enum class Vm {
    // Threads
    LIST_HEAD, // of JDK 8 and 11
    THREAD_NEXT,
    THREADS_LIST, // of later ones
    LIST_LENGTH,
    LIST_THREADS,
    THREAD_SIZE,
    THREAD_OS,
    OS_ID,
    THREAD_STATE,
    THREAD_ANCHOR,
    ANCHOR_SP,
    ANCHOR_PC,
    ANCHOR_FP,
    STACK_BASE,
    STACK_SIZE,
    THREAD_OBJECT,
    PENDING_MONITOR,
    WAITING_MONITOR,
    MONITOR_OBJECT,
    // Objects and classes
    HANDLE_OBJECT, // where a thread's object is a handle
    OOP_BASE,
    OOP_SHIFT,
    KLASS_BASE,
    KLASS_SHIFT,
    STRING_KLASS,
    THREAD_KLASS,
    KLASS_NAME,
    KLASS_POOL,
    KLASS_FIELDS, // six shorts each
    KLASS_FIELD_COUNT,
    KLASS_FIELD_STREAM, // packed
    SHORTS_DATA,
    BYTES_DATA,
    POOL_SIZE,
    POOL_HOLDER,
    POOL_SOURCE, // of JDK 17 on
    KLASS_SOURCE,
    SYMBOL_LENGTH,
    SYMBOL_BODY,
    FLAGS,
    FLAG_COUNT,
    FLAG_SIZE,
    FLAG_NAME,
    FLAG_ADDRESS,
    // Methods
    METHOD_CONST,
    METHOD_ACCESS,
    CONST_SIZE,
    CONST_POOL,
    CONST_NAME,
    CONST_CODE_SIZE,
    CONST_FLAGS,
    // Code
    CODE_HEAP, // of JDK 8
    CODE_HEAPS,
    ARRAY_LENGTH,
    ARRAY_DATA,
    HEAP_MEMORY,
    HEAP_SEGMENTS,
    HEAP_SEGMENT_LOG,
    SPACE_LOW,
    SPACE_HIGH,
    BLOCK_SIZE,
    BLOCK_USED,
    BLOB_SIZE,
    BLOB_NAME,
    BLOB_BEGIN,
    BLOB_END,
    BLOB_CODE_OFFSET,
    BLOB_DATA_OFFSET,
    BLOB_FRAME_SIZE,
    BLOB_FRAME_COMPLETE,
    BLOB_MUTABLE,
    BLOB_RELOCATION_SIZE,
    COMPILED_METHOD,
    COMPILED_LEVEL,
    COMPILED_ENTRY_BCI,
    COMPILED_IMMUTABLE,
    SCOPES_PCS,
    SCOPES_DATA,
    SCOPES_DATA_BEGIN,
    DEPENDENCIES,
    METADATA,
    INTERPRETER,
    STUBS_BUFFER,
    STUBS_LIMIT,
    CALL_RETURN,
    CALL_WRAPPER,
    WRAPPER_ANCHOR,
    // The JVM as a whole
    RELEASE,
    MAJOR_VERSION,
    HEAP,
    HEAP_COLLECTS,
    COUNT,
};

class VmTable {
public:
    VmTable(); // knows nothing

    static constexpr int64_t UNKNOWN = INT64_MIN;

    // Reads the tables that the symbols point to. False when there are none.
    bool Load(Memory &memory, const VmSymbols &symbols);

    // An offset, size or constant, or for a static field its address; UNKNOWN when the JVM has no such name.
    int64_t Get(Vm slot) const { return values_[static_cast<size_t>(slot)]; }
    bool Has(std::initializer_list<Vm> slots) const;
    // Where a field of the object at `base` is; an address that can't be read when the field is unknown.
    Address In(Address base, Vm slot) const { return base + static_cast<Address>(Get(slot)); }
    // A static field's address, 0 when unknown.
    Address Static(Vm slot) const;
    void Set(Vm slot, int64_t value) { values_[static_cast<size_t>(slot)] = value; }

private:
    void Take(size_t row, int64_t value);

    int64_t values_[static_cast<size_t>(Vm::COUNT)] = {};
    size_t taken_[static_cast<size_t>(Vm::COUNT)] = {}; // which of the slot's names it is from
};

} // namespace qorctl::outside
