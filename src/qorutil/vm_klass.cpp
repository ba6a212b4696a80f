#include "vm_klass.h"

#include "vm_heap.h"
#include "vm_offsets.h"
#include "vm_reader.h"
#include "vm_threads.h"

#include "platforms/findsymLinSolHPIA64.h"
#include "qorlog.h"

#include <algorithm>

uint64_t oop_vtable[OOP_TABLES];
VfuncCheck trueVfuncArray[CHECK_TYPES];
int32_t NUM_CHECK_TYPES;
int32_t NUM_BASIC_TYPES;
uint64_t method;
uint64_t gbCallerJavaThread;
int32_t gbCallerKernelId;

namespace {

constexpr int32_t BASIC_TYPES = 13;
constexpr int32_t TABLES_COMPARED_ABOVE = 6; // kinds that valid_oop knows beyond the basic ones

// Kinds whose table has a symbol.
struct SymbolTable {
    VmType type;
    DirectSlot slot;
};
constexpr SymbolTable SYMBOL_TABLES[] = {
    {TYPE_ARRAY, SYM_VT_ARRAY_KLASS},
    {TYPE_POOL_CACHE, SYM_VT_POOL_CACHE_KLASS},
    {TYPE_COMPILED_IC_HOLDER, SYM_VT_COMPILED_IC_HOLDER_KLASS},
    {TYPE_KLASS_KLASS, SYM_VT_KLASS_KLASS},
    {TYPE_INSTANCE_KLASS_KLASS, SYM_VT_INSTANCE_KLASS_KLASS},
    {TYPE_ARRAY_KLASS_KLASS, SYM_VT_ARRAY_KLASS_KLASS},
    {TYPE_OBJ_ARRAY_KLASS_KLASS, SYM_VT_OBJ_ARRAY_KLASS_KLASS},
    {TYPE_TYPE_ARRAY_KLASS_KLASS, SYM_VT_TYPE_ARRAY_KLASS_KLASS},
    {TYPE_METHOD_DATA, SYM_VT_METHOD_DATA_KLASS},
};

// Rows of trueVfuncArray: the kind, and the entry of its table that identifies it.
struct CheckRow {
    VmType type;
    VmOffset entry;
};
constexpr CheckRow CHECK_ROWS[CHECK_TYPES] = {
    {TYPE_KLASS, IS_KLASS_ENTRY},
    {TYPE_SYMBOL, IS_SYMBOL_ENTRY},
    {TYPE_METHOD, IS_METHOD_ENTRY},
    {TYPE_POOL, IS_POOL_ENTRY},
    {TYPE_POOL_CACHE, IS_POOL_CACHE_ENTRY},
    {TYPE_COMPILED_IC_HOLDER, IS_COMPILED_IC_HOLDER_ENTRY},
    {TYPE_KLASS_KLASS, IS_KLASS_ENTRY},
    {TYPE_INSTANCE_KLASS_KLASS, IS_INSTANCE_KLASS_ENTRY},
    {TYPE_ARRAY_KLASS_KLASS, IS_ARRAY_KLASS_ENTRY},
    {TYPE_TYPE_ARRAY_KLASS_KLASS, IS_TYPE_ARRAY_KLASS_ENTRY},
    {TYPE_OBJ_ARRAY_KLASS_KLASS, IS_OBJ_ARRAY_KLASS_ENTRY},
    {TYPE_METHOD_DATA, IS_METHOD_DATA_ENTRY},
    {TYPE_CONST_METHOD, IS_CONST_METHOD_ENTRY},
};

uint64_t listedThreads[MAX_VM_THREADS];

// The klass of an object, 0 when that isn't where klasses are.
uint64_t KlassIn(uint64_t object) {
    const uint64_t klass = object ? QorWordAt(object + OBJECT_KLASS) : 0;
    return QorIsInPerm(klass) ? klass : 0;
}

// The virtual table of an object's klass, 0 when it has no klass.
uint64_t TableOfKlassOf(uint64_t object) {
    const uint64_t klass = KlassIn(object);
    return klass ? QorWordAt(klass + KLASS_PART) : 0;
}

// The same for an object of the perm space.
uint64_t TableInPerm(uint64_t object) {
    return QorIsInPerm(object) ? TableOfKlassOf(object) : 0;
}

bool IsKnownTable(uint64_t table) {
    return std::find(oop_vtable, oop_vtable + OOP_TABLES, table) != oop_vtable + OOP_TABLES;
}

void TakeSymbolTables() {
    oop_vtable[TYPE_KLASS] = nsymbols[SYM_VT_KLASS];
    for (const SymbolTable &row : SYMBOL_TABLES)
        if (nsymbols[row.slot])
            oop_vtable[row.type] = nsymbols[row.slot] + VIRTUAL_TABLE_HEAD;
}

// Takes a kind's table from a handle. False when the object, its klass or the table isn't there.
bool TakeFromHandle(VmType type, uint64_t handle) {
    oop_vtable[type] = TableOfKlassOf(QorWordAt(handle));
    return oop_vtable[type] != 0;
}

bool TakeSymbolKlass(uint64_t instance) {
    const uint64_t klass = KlassIn(QorWordAt(instance));
    oop_vtable[TYPE_SYMBOL] = klass ? TableInPerm(QorWordAt(klass + KLASS_PART + offsets[KLASS_NAME])) : 0;
    return oop_vtable[TYPE_SYMBOL] != 0;
}

// Takes three tables from what may be a method. A compiled frame has any word in its place, so all that a
// method leads to must lie where it has to, and be of kinds that differ from those known by now.
bool TakeFromMethod(uint64_t candidate) {
    if (!QorIsInPerm(candidate))
        return false;
    const uint64_t pool = QorWordAt(candidate + METHOD_POOL);
    const uint64_t tables[] = {TableInPerm(candidate), TableInPerm(QorWordAt(candidate + METHOD_CONST)),
                               TableInPerm(pool)};
    for (const uint64_t table : tables)
        if (table == 0 || IsKnownTable(table))
            return false;
    if (tables[0] == tables[1] || tables[0] == tables[2] || tables[1] == tables[2])
        return false;
    const uint64_t holder = QorWordAt(pool + POOL_HOLDER);
    const uint64_t holderTable = QorIsInPerm(holder) ? QorWordAt(holder + KLASS_PART) : 0;
    if (holderTable == 0 ||
        (holderTable != oop_vtable[TYPE_INSTANCE] && holderTable != oop_vtable[TYPE_INSTANCE_REF]))
        return false;
    oop_vtable[TYPE_METHOD] = tables[0];
    oop_vtable[TYPE_CONST_METHOD] = tables[1];
    oop_vtable[TYPE_POOL] = tables[2];
    return true;
}

// The caller's frame first; compiled callers have none, so any other thread's serves.
bool TakeFromAnyMethod() {
    if (TakeFromMethod(obtain_method(gbCallerJavaThread)))
        return true;
    const int32_t count = QorListThreads(listedThreads);
    for (int32_t i = 0; i < count; i++)
        if (TakeFromMethod(obtain_method(listedThreads[i])))
            return true;
    method = 0;
    return false;
}

// The expected entries, out of the tables themselves. False when one can't be read.
bool FillChecks() {
    for (int32_t i = 0; i < CHECK_TYPES; i++) {
        const CheckRow &row = CHECK_ROWS[i];
        const auto slot = static_cast<uint32_t>(offsets[row.entry] * VM_WORD_SIZE);
        uint64_t expected = 0;
        if (!QorPeekValue(oop_vtable[row.type] + slot, &expected))
            return false;
        trueVfuncArray[i] = {row.type, oop_vtable[row.type], expected, slot};
    }
    return true;
}

int32_t Fail(const char *reason) {
    QORLOG(LOG_ERROR, "Not the JVM that its version says: %s", reason);
    return 1;
}

} // namespace

int32_t QorCheckRow(uint64_t env, int32_t callerId) {
    gbCallerJavaThread = env - offsets[THREAD_ENV_WORDS] * VM_WORD_SIZE;
    gbCallerKernelId = callerId;
    if (QorIsListed(gbCallerJavaThread, callerId))
        return 0;
    gbCallerJavaThread = 0;
    Fail("the calling thread isn't where its list of threads should have it");
    return -1;
}

int32_t heap_initialize(uint64_t instance, uint64_t instanceRef, uint64_t objectArray, uint64_t intArray) {
    std::fill(oop_vtable, oop_vtable + OOP_TABLES, uint64_t{0});
    NUM_CHECK_TYPES = CHECK_TYPES;
    NUM_BASIC_TYPES = BASIC_TYPES;
    TakeSymbolTables();
    if (!TakeFromHandle(TYPE_INSTANCE, instance) || !TakeFromHandle(TYPE_INSTANCE_REF, instanceRef) ||
        !TakeFromHandle(TYPE_OBJ_ARRAY, objectArray) || !TakeFromHandle(TYPE_TYPE_ARRAY, intArray))
        return Fail("a sample object has no klass");
    if (!TakeSymbolKlass(instance))
        return Fail("a class has no name");
    if (!TakeFromAnyMethod())
        return Fail("no running method was found");
    return FillChecks() ? 0 : Fail("a virtual table can't be read");
}

uint64_t obtain_method(uint64_t thread) {
    constexpr uint64_t METHOD_BELOW_FP = 16;
    const uint64_t fp = QorWordAt(thread + offsets[THREAD_LAST_FP]);
    method = fp ? QorWordAt(fp - METHOD_BELOW_FP) : 0;
    return method;
}

VmType QorTypeOfTable(uint64_t table) {
    if (table == 0)
        return TYPE_NONE;
    const int32_t compared = std::min<int32_t>(NUM_BASIC_TYPES + TABLES_COMPARED_ABOVE, OOP_TABLES);
    for (int32_t type = 0; type < compared; type++)
        if (oop_vtable[type] == table)
            return static_cast<VmType>(type);
    return TYPE_NONE;
}

VmType QorTypeOf(uint64_t object) {
    return QorTypeOfTable(TableOfKlassOf(object));
}

int32_t QorIsOfType(uint64_t object, VmType type) {
    return valid_oop(object) && QorTypeOf(object) == type;
}
