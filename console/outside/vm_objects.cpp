#include "vm_objects.h"

#include "packed.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

namespace qorctl::outside {

namespace {

constexpr size_t MOST_FLAGS = 5000, LONGEST_FLAG = 80;
constexpr unsigned LONGEST_SYMBOL = 2000, MOST_FIELDS = 2000;
constexpr int LONGEST_STRING = 1024, MOST_LINES = 20000;
constexpr uint16_t HAS_LINES = 1, IS_NATIVE = 0x100;
constexpr int COMPACT_KLASS_SHIFT = 42;

// The narrow way of a character, as UTF-8.
void AppendUtf8(unsigned c, std::string *text) {
    if (c < 0x80) {
        *text += static_cast<char>(c);
    } else if (c < 0x800) {
        *text += static_cast<char>(0xc0 | c >> 6);
        *text += static_cast<char>(0x80 | (c & 63));
    } else if (c < 0x10000) {
        *text += static_cast<char>(0xe0 | c >> 12);
        *text += static_cast<char>(0x80 | (c >> 6 & 63));
        *text += static_cast<char>(0x80 | (c & 63));
    } else {
        *text += static_cast<char>(0xf0 | c >> 18);
        *text += static_cast<char>(0x80 | (c >> 12 & 63));
        *text += static_cast<char>(0x80 | (c >> 6 & 63));
        *text += static_cast<char>(0x80 | (c & 63));
    }
}

std::string FromLatin1(const std::vector<uint8_t> &bytes) {
    std::string text;
    for (const uint8_t byte : bytes)
        AppendUtf8(byte, &text);
    return text;
}

std::string FromUtf16(const std::vector<uint8_t> &bytes) {
    std::string text;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
        unsigned c = bytes[i] | unsigned(bytes[i + 1]) << 8;
        if (c >> 10 == 0x36 && i + 3 < bytes.size() && bytes[i + 3] >> 2 == 0x37) {
            c = 0x10000 + ((c & 0x3ff) << 10) + ((bytes[i + 2] | unsigned(bytes[i + 3]) << 8) & 0x3ff);
            i += 2;
        }
        AppendUtf8(c, &text);
    }
    return text;
}

} // namespace

std::string FrameText(const Frame &frame) {
    const std::string code =
        frame.code.empty() ? "" : fmt::format(" [{}{}]", frame.code, frame.inlined ? " inlined" : "");
    if (frame.native)
        return frame.method + "(Native Method)" + code;
    const std::string file = frame.file.empty() ? "Unknown Source" : frame.file;
    return frame.line >= 0 ? fmt::format("{}({}:{}){}", frame.method, file, frame.line, code)
                           : fmt::format("{}({}){}", frame.method, file, code);
}

VmObjects::VmObjects(Memory &memory, const VmTable &table, const VmSymbols &symbols)
    : memory_(memory), table_(table) {
    // The number of JDK 8 is that of its HotSpot, 25.
    jdk_ = table.Static(Vm::CODE_HEAP) != 0 ? 8 : memory.At<int>(table.Static(Vm::MAJOR_VERSION));
    oop_base_ = memory.Word(table.Static(Vm::OOP_BASE));
    oop_shift_ = memory.At<int>(table.Static(Vm::OOP_SHIFT)) & 7;
    klass_base_ = memory.Word(table.Static(Vm::KLASS_BASE));
    klass_shift_ = memory.At<int>(table.Static(Vm::KLASS_SHIFT)) & 31;
    string_klass_ = memory.Word(table.Static(Vm::STRING_KLASS));
    ReadFlags();
    // The JVM's own variables where they can be found, else the classes' tables of fields.
    const auto offset = [&](const char *symbol, Vm klass, const char *name) {
        const Address at = symbols.Find(symbol);
        return at != 0 ? memory.At<int>(at) : FieldOffset(memory.Word(table.Static(klass)), name);
    };
    name_offset_ = offset("_ZN16java_lang_Thread12_name_offsetE", Vm::THREAD_KLASS, "name");
    value_offset_ = offset("_ZN16java_lang_String13_value_offsetE", Vm::STRING_KLASS, "value");
    coder_offset_ =
        jdk_ >= 9 ? offset("_ZN16java_lang_String13_coder_offsetE", Vm::STRING_KLASS, "coder") : -1;
}

void VmObjects::ReadFlags() {
    struct Wanted {
        const char *name;
        bool *value;
    };
    bool zgc = false, generational = jdk_ >= 24;
    const Wanted wanted[] = {{"UseCompressedOops", &compressed_oops_},
                             {"UseCompressedClassPointers", &compressed_klass_},
                             {"UseCompactObjectHeaders", &compact_headers_},
                             {"UseZGC", &zgc},
                             {"ZGenerational", &generational}};
    if (!table_.Has({Vm::FLAGS, Vm::FLAG_COUNT, Vm::FLAG_SIZE, Vm::FLAG_NAME, Vm::FLAG_ADDRESS}))
        return;
    const Address start = memory_.Word(table_.Static(Vm::FLAGS));
    const size_t count = std::min<size_t>(memory_.Word(table_.Static(Vm::FLAG_COUNT)), MOST_FLAGS);
    const Address size = table_.Static(Vm::FLAG_SIZE) & 0xff;
    for (size_t i = 0; i < count; ++i) {
        const Address flag = start + i * size;
        const Address name_at = memory_.Word(table_.In(flag, Vm::FLAG_NAME));
        const std::string name = memory_.Text(name_at, LONGEST_FLAG);
        for (const Wanted &one : wanted)
            if (name == one.name)
                *one.value = memory_.At<uint8_t>(memory_.Word(table_.In(flag, Vm::FLAG_ADDRESS))) != 0;
    }
    coloured_ = zgc && generational;
}

int VmObjects::FieldOffset(Address klass, const char *name) {
    if (klass == 0 || !table_.Has({Vm::KLASS_POOL, Vm::POOL_SIZE}))
        return -1;
    return table_.Has({Vm::KLASS_FIELDS}) ? FieldOffsetInShorts(klass, name)
                                          : FieldOffsetInStream(klass, name);
}

// Six shorts a field: flags, name, signature, initial value, and the offset with two bits of kind below it.
int VmObjects::FieldOffsetInShorts(Address klass, const char *name) {
    if (!table_.Has({Vm::KLASS_FIELD_COUNT, Vm::SHORTS_DATA}))
        return -1;
    const Address pool = memory_.Word(table_.In(klass, Vm::KLASS_POOL));
    const Address fields = memory_.Word(table_.In(klass, Vm::KLASS_FIELDS));
    const unsigned count = memory_.At<uint16_t>(table_.In(klass, Vm::KLASS_FIELD_COUNT));
    for (unsigned i = 0; i < std::min(count, MOST_FIELDS); ++i) {
        uint16_t field[6] = {};
        const Address at = table_.In(fields, Vm::SHORTS_DATA) + i * sizeof field;
        if (memory_.Read(at, field, sizeof field) && PoolText(pool, field[1]) == name)
            return static_cast<int>((uint32_t(field[5]) << 16 | field[4]) >> 2);
    }
    return -1;
}

// Packed: the counts of fields and of those that the JVM adds, then for each name, signature, offset, access
// and flags, with a number more for some of the flags.
int VmObjects::FieldOffsetInStream(Address klass, const char *name) {
    if (!table_.Has({Vm::KLASS_FIELD_STREAM, Vm::BYTES_DATA}))
        return -1;
    constexpr unsigned WITH_NUMBER[] = {1u << 0, 1u << 2,
                                        1u << 4}; // initial value, generic signature, contended
    const Address pool = memory_.Word(table_.In(klass, Vm::KLASS_POOL));
    const Address stream = memory_.Word(table_.In(klass, Vm::KLASS_FIELD_STREAM));
    PackedReader in(memory_, table_.In(stream, Vm::BYTES_DATA), jdk_);
    const unsigned count = in.Next();
    in.Next();
    for (unsigned i = 0; i < std::min(count, MOST_FIELDS); ++i) {
        const unsigned name_index = in.Next();
        in.Next();
        const unsigned offset = in.Next();
        in.Next();
        const unsigned flags = in.Next();
        for (const unsigned flag : WITH_NUMBER)
            if (flags & flag)
                in.Next();
        if (PoolText(pool, name_index) == name)
            return static_cast<int>(offset);
    }
    return -1;
}

std::string VmObjects::SymbolText(Address symbol) {
    if (!table_.Has({Vm::SYMBOL_LENGTH, Vm::SYMBOL_BODY}))
        return "";
    const unsigned length = memory_.At<uint16_t>(table_.In(symbol, Vm::SYMBOL_LENGTH));
    std::string text(length <= LONGEST_SYMBOL ? length : 0, 0);
    const Address body = table_.In(symbol, Vm::SYMBOL_BODY);
    return memory_.Read(body, text.data(), text.size()) ? text : "";
}

// A name in a constant pool; the lowest bit of an entry is a mark.
std::string VmObjects::PoolText(Address pool, unsigned index) {
    const Address entry = table_.In(pool, Vm::POOL_SIZE) + 8 * Address(index);
    return SymbolText(memory_.Word(entry) & ~Address(1));
}

std::string VmObjects::SourceFile(Address pool, Address holder) {
    const Address at = table_.Has({Vm::POOL_SOURCE})    ? table_.In(pool, Vm::POOL_SOURCE)
                       : table_.Has({Vm::KLASS_SOURCE}) ? table_.In(holder, Vm::KLASS_SOURCE)
                                                        : 0;
    const unsigned index = at != 0 ? memory_.At<uint16_t>(at) : 0;
    return index != 0 ? PoolText(pool, index) : "";
}

const VmObjects::MethodText *VmObjects::FindMethod(Address method, Address const_method) {
    if (const auto known = methods_.find(method); known != methods_.end())
        return &known->second;
    const Address pool = memory_.Word(table_.In(const_method, Vm::CONST_POOL));
    const Address holder = memory_.Word(table_.In(pool, Vm::POOL_HOLDER));
    // The way back must lead to where it came from: that of a stale or torn pointer hardly ever does.
    if (holder == 0 || memory_.Word(table_.In(holder, Vm::KLASS_POOL)) != pool)
        return nullptr;
    std::string owner = SymbolText(memory_.Word(table_.In(holder, Vm::KLASS_NAME)));
    std::replace(owner.begin(), owner.end(), '/', '.');
    if (const size_t mark = owner.rfind("+0x"); mark != owner.npos)
        owner[mark] = '/'; // a hidden class, as the JVM itself writes its name
    const unsigned index = memory_.At<uint16_t>(table_.In(const_method, Vm::CONST_NAME));
    const std::string name = PoolText(pool, index);
    if (owner.empty() || name.empty())
        return nullptr;
    const bool native = table_.Has({Vm::METHOD_ACCESS}) &&
                        memory_.At<uint16_t>(table_.In(method, Vm::METHOD_ACCESS)) & IS_NATIVE;
    return &methods_.emplace(method, MethodText{owner + "." + name, SourceFile(pool, holder), native})
                .first->second;
}

bool VmObjects::Describe(Address method, int bci, Frame *frame) {
    if (!table_.Has({Vm::METHOD_CONST, Vm::CONST_SIZE, Vm::CONST_POOL, Vm::CONST_NAME, Vm::CONST_CODE_SIZE,
                     Vm::POOL_HOLDER, Vm::POOL_SIZE, Vm::KLASS_POOL, Vm::KLASS_NAME}))
        return false;
    const Address const_method = memory_.Word(table_.In(method, Vm::METHOD_CONST));
    const MethodText *text = const_method != 0 ? FindMethod(method, const_method) : nullptr;
    if (!text)
        return false;
    frame->method = text->name;
    frame->file = text->file;
    frame->native = text->native;
    frame->line = Line(const_method, bci);
    return true;
}

int VmObjects::BytecodeIndex(Address method, Address pointer) {
    if (!table_.Has({Vm::METHOD_CONST, Vm::CONST_SIZE, Vm::CONST_CODE_SIZE}))
        return -1;
    const Address const_method = memory_.Word(table_.In(method, Vm::METHOD_CONST));
    const Address code = table_.In(const_method, Vm::CONST_SIZE);
    const auto size = memory_.At<uint16_t>(table_.In(const_method, Vm::CONST_CODE_SIZE));
    return pointer >= code && pointer - code < size ? static_cast<int>(pointer - code) : -1;
}

// The table of lines follows the bytecode: steps of both in a byte, or after 255 as two packed numbers.
int VmObjects::Line(Address const_method, int bci) {
    if (bci < 0 || !table_.Has({Vm::CONST_FLAGS}) ||
        !(memory_.At<uint16_t>(table_.In(const_method, Vm::CONST_FLAGS)) & HAS_LINES))
        return -1;
    const Address code = table_.In(const_method, Vm::CONST_SIZE);
    const auto size = memory_.At<uint16_t>(table_.In(const_method, Vm::CONST_CODE_SIZE));
    PackedReader in(memory_, code + size, jdk_);
    int64_t at = 0, line = 0, best = -1;
    for (int n = 0; n < MOST_LINES; ++n) {
        const uint8_t step = in.Byte();
        if (step == 0)
            break;
        at += step == 255 ? in.NextSigned() : step >> 3;
        line += step == 255 ? in.NextSigned() : step & 7;
        if (at > bci)
            break;
        best = line;
    }
    return best >= 0 && best < 65536 ? static_cast<int>(best) : -1;
}

// The generational ZGC keeps an address's colour in its low 16 bits; which of the bits 12 to 15 is set says
// how far the address is shifted.
Address VmObjects::Plain(Address value) const {
    const Address colour = value >> 12 & 15;
    return !coloured_ || colour == 0 ? value : value >> (13 + __builtin_ctzll(colour));
}

Address VmObjects::Reference(Address at) {
    if (!compressed_oops_)
        return Plain(memory_.FreshWord(at));
    const auto value = memory_.FreshAt<uint32_t>(at);
    return value == 0 ? 0 : oop_base_ + (Address(value) << oop_shift_);
}

// A field that holds an object, or since JDK 17 a handle of one.
Address VmObjects::FromHandle(Address at) {
    const Address value = memory_.FreshWord(at);
    return table_.Has({Vm::HANDLE_OBJECT}) ? Plain(memory_.FreshWord(value)) : value;
}

Address VmObjects::KlassOf(Address object) {
    if (compact_headers_)
        return klass_base_ + (memory_.FreshWord(object) >> COMPACT_KLASS_SHIFT << klass_shift_);
    if (compressed_klass_)
        return klass_base_ + (Address(memory_.FreshAt<uint32_t>(object + 8)) << klass_shift_);
    return memory_.FreshWord(object + 8);
}

std::string VmObjects::Characters(Address value, bool latin1) {
    const Address length_at = compact_headers_ ? 8 : compressed_klass_ ? 12 : 16;
    const Address data_at = compact_headers_ ? 12 : compressed_klass_ ? 16 : jdk_ >= 23 ? 20 : 24;
    // Bytes since JDK 9, characters of two bytes before.
    int length = memory_.FreshAt<int>(value + length_at);
    if (length <= 0 || length > LONGEST_STRING)
        return "";
    if (coder_offset_ < 0)
        length *= 2;
    std::vector<uint8_t> bytes(static_cast<size_t>(length));
    if (!memory_.ReadFresh(value + data_at, bytes.data(), bytes.size()))
        return "";
    return latin1 ? FromLatin1(bytes) : FromUtf16(bytes);
}

std::string VmObjects::StringText(Address object) {
    if (string_klass_ == 0 || KlassOf(object) != string_klass_)
        return "";
    const bool latin1 =
        coder_offset_ >= 0 && memory_.FreshAt<uint8_t>(object + static_cast<Address>(coder_offset_)) == 0;
    const Address value = Reference(object + static_cast<Address>(value_offset_));
    const std::string text = value != 0 ? Characters(value, latin1) : "";
    const bool same =
        KlassOf(object) == string_klass_ && Reference(object + static_cast<Address>(value_offset_)) == value;
    return same ? text : "";
}

std::string VmObjects::ThreadName(Address thread) {
    if (name_offset_ <= 0 || value_offset_ <= 0 || (jdk_ >= 9 && coder_offset_ <= 0) ||
        !table_.Has({Vm::THREAD_OBJECT}))
        return "";
    const Address field = table_.In(thread, Vm::THREAD_OBJECT);
    const auto find = [&] {
        const Address object = FromHandle(field);
        return object == 0 ? 0 : Reference(object + static_cast<Address>(name_offset_));
    };
    const Address name = find();
    const std::string text = name != 0 ? StringText(name) : "";
    return find() == name ? text : "";
}

std::string VmObjects::ClassName(Address object) {
    const Address klass = object != 0 && table_.Has({Vm::KLASS_NAME}) ? KlassOf(object) : 0;
    std::string name = klass != 0 ? SymbolText(memory_.Word(table_.In(klass, Vm::KLASS_NAME))) : "";
    std::replace(name.begin(), name.end(), '/', '.');
    return name;
}

std::string VmObjects::MonitorClass(Address monitor) {
    if (!table_.Has({Vm::MONITOR_OBJECT}))
        return "";
    const Address field = table_.In(monitor, Vm::MONITOR_OBJECT);
    const Address object = FromHandle(field);
    const std::string name = ClassName(object);
    return FromHandle(field) == object ? name : "";
}

} // namespace qorctl::outside
