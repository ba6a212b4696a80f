// Where a frame's receiver, arguments and locals are, by the interpreter's rules and by the compiler's.
#include "code.h"

namespace simvm {

namespace {

constexpr int CACHE_ENTRIES = 32, ENTRY_STRIDE = 16, MASK_BITS = 32;

std::map<Class *, std::set<int>> caches; // entries of classes' caches that are filled

// What one slot holds. Which of a long's two slots has the value isn't known: both do.
struct Slot {
    char type; // 'L' also for arrays
    Value value;
    Kept kept;
};

std::vector<Slot> SlotsOf(const Scope &scope) {
    std::vector<Slot> slots;
    if (!(scope.method->flags & METHOD_STATIC))
        slots.push_back({'L', scope.receiver, scope.receiver ? Kept::STACK : Kept::NOWHERE});
    for (const Variable &variable : scope.variables) {
        char type = variable.signature[0] == '[' ? 'L' : variable.signature[0];
        slots.push_back({type, variable.value, variable.kept});
        if (type == 'J' || type == 'D')
            slots.push_back(slots.back());
    }
    return slots;
}

Word BitsOf(const Slot &slot) {
    Word bits = 0;
    WriteValue(Word(&bits), slot.type == 'F' || slot.type == 'D' ? std::string(1, slot.type) : "J",
               slot.value);
    return bits;
}

void LoadSlot(Assembler *a, const Slot &slot) {
    if (slot.type == 'L' && slot.value.object)
        a->Emit(LOAD_FROM, &slot.value.object->address);
    else
        a->Emit(LOAD, BitsOf(slot));
}

int32_t Location(char type, int slot) { // counted in half words
    const int32_t kind = type == 'L'   ? LOCATION_OOP
                         : type == 'J' ? LOCATION_LONG
                         : type == 'D' ? LOCATION_DOUBLE
                                       : LOCATION_NORMAL;
    return kind << 12 | 2 * slot;
}

void PutAll(BlobParts *parts, std::initializer_list<int32_t> values) {
    for (int32_t value : values)
        PutCompressed(&parts->scopes, value);
}

void WriteSlot(BlobParts *parts, const Slot &slot, int place) {
    constexpr int ANY_REGISTER = 5;
    const auto low = int32_t(BitsOf(slot)), high = int32_t(BitsOf(slot) >> 32);
    if (slot.kept == Kept::CONSTANT && slot.type == 'L') {
        parts->oops.push_back(slot.value.object->address);
        PutAll(parts, {SCOPE_OOP, int32_t(parts->oops.size())});
    } else if (slot.kept == Kept::CONSTANT && (slot.type == 'J' || slot.type == 'D'))
        PutAll(parts, {slot.type == 'J' ? SCOPE_LONG : SCOPE_DOUBLE, low, high});
    else if (slot.kept == Kept::CONSTANT)
        PutAll(parts, {SCOPE_INT, low});
    else {
        const int32_t nowhere = LOCATION_INVALID << 12;
        const int32_t elsewhere =
            slot.kept == Kept::REGISTER ? LOCATION_IN_REGISTER | Location(slot.type, ANY_REGISTER) : nowhere;
        PutAll(parts, {SCOPE_LOCATION, slot.kept == Kept::STACK ? Location(slot.type, place) : elsewhere});
    }
}

uint32_t HashOf(const MethodInfo &method, int32_t bci) {
    uint32_t parameters = At(method.oop, &Method::parameterSize);
    return uint32_t(method.locals) * 4 ^ uint32_t(bci) ^ uint32_t(method.codeSize) << 4 ^ parameters << 6;
}

uint32_t MaskOf(const Scope &scope) {
    uint32_t mask = 0;
    const std::vector<Slot> slots = SlotsOf(scope);
    for (size_t i = 0; i < slots.size() && i < MASK_BITS; i++)
        if (slots[i].type == 'L' && slots[i].value.object)
            mask |= 1u << i;
    return mask;
}

// As far as there is room for it: the neighbours' masks and methods lie on it.
void FillCache(const Scope &scope) {
    Class *holder = scope.method->holder;
    int entry = int(HashOf(*scope.method, scope.bci) % CACHE_ENTRIES);
    std::set<int> &used = caches[holder];
    if (used.count(entry) || used.count(entry - 1) || used.count(entry + 1))
        return;
    Word &cache = At(holder->klass, &Klass::oopMapCache);
    if (!cache) {
        cache = Allocate(sizeof(OopMapCache));
        As<OopMapCache>(cache).entries = Allocate(CACHE_ENTRIES * ENTRY_STRIDE + sizeof(OopMapEntry));
    }
    auto &made = As<OopMapEntry>(As<OopMapCache>(cache).entries + entry * ENTRY_STRIDE);
    made.method = scope.method->oop;
    made.mask = MaskOf(scope);
    used.insert(entry);
}

} // namespace

std::vector<std::string> ArgumentsOf(const MethodInfo &method) {
    std::vector<std::string> arguments;
    const std::string &text = method.signature;
    for (size_t at = 1; text[at] != ')';) {
        size_t end = text.find_first_not_of('[', at);
        end = text[end] == 'L' ? text.find(';', end) + 1 : end + 1;
        arguments.push_back(text.substr(at, end - at));
        at = end;
    }
    return arguments;
}

int InterpreterLocals(const Scope &scope) {
    return int(SlotsOf(scope).size());
}

void FillLocals(Assembler *a, const Scope &scope) {
    int32_t place = 0;
    for (const Slot &slot : SlotsOf(scope)) {
        LoadSlot(a, slot);
        a->Emit("498985 d", place -= 8); // mov [r13 + n], rax
    }
}

int CompiledSlots(const Scope &scope) {
    int words = int(scope.monitors.size());
    for (const Slot &slot : SlotsOf(scope))
        words += slot.kept == Kept::STACK;
    return words;
}

void FillSlots(Assembler *a, const Scope &scope, int *place) {
    for (const Slot &slot : SlotsOf(scope))
        if (slot.kept == Kept::STACK)
            LoadSlot(a, slot), a->Emit(STORE_RAX, 8 * (*place)++);
    for (Object *object : scope.monitors)
        a->Emit(LOAD_FROM, &object->address), a->Emit(STORE_RAX, 8 * (*place)++);
}

void WriteScopes(BlobParts *parts, const std::vector<Scope> &scopes) {
    int place = 0, sender = NO_OFFSET;
    PutAll(parts, {77});
    for (const Scope &scope : scopes) {
        const std::vector<Slot> slots = SlotsOf(scope);
        parts->oops.push_back(scope.method->oop);
        const int method = int(parts->oops.size());
        const auto here = [&] { return int(parts->scopes.size()); };
        const int locals = !slots.empty() || randomWords() % 2 ? here() : NO_OFFSET;
        if (locals != NO_OFFSET)
            PutAll(parts, {int32_t(slots.size())});
        for (const Slot &slot : slots)
            WriteSlot(parts, slot, slot.kept == Kept::STACK ? place++ : 0);
        const int monitors = scope.monitors.empty() ? NO_OFFSET : here();
        if (monitors != NO_OFFSET)
            PutAll(parts, {int32_t(scope.monitors.size())});
        for (size_t i = 0; i < scope.monitors.size(); i++)
            PutAll(parts, {Location('I', 0), SCOPE_LOCATION, Location('L', place++)});
        parts->scope = here();
        PutAll(parts, {sender, method, scope.bci, locals, NO_OFFSET, monitors});
        sender = parts->scope;
    }
}

void NoteLocals(const Scope &scope, FrameKind kind) {
    MethodInfo *method = scope.method;
    const std::vector<std::string> arguments = ArgumentsOf(*method);
    int32_t slots = InterpreterLocals(scope), parameters = method->flags & METHOD_STATIC ? 0 : 1;
    for (const std::string &argument : arguments)
        parameters += argument == "J" || argument == "D" ? 2 : 1;
    method->locals = slots;
    At(method->oop, &Method::maxLocals) = slots;
    At(method->oop, &Method::parameterSize) = parameters;
    if ((kind == FrameKind::INTERPRETED || kind == FrameKind::NATIVE) && MaskOf(scope))
        FillCache(scope);
}

} // namespace simvm
