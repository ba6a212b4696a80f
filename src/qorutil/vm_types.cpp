#include "vm_types.h"

#include "vm_klass.h"
#include "vm_offsets.h"
#include "vm_reader.h"

#include "platforms/findsymLinSolHPIA64.h"

#include <array>

namespace {

constexpr VmPlace Member(int32_t offset) {
    return {PLACE_MEMBER, offset};
}

constexpr VmPlace Bytes(int32_t bytes) {
    return {PLACE_BYTES, bytes};
}

constexpr VmPlace At(DirectSlot slot) {
    return {PLACE_SYMBOL, slot};
}

constexpr VmPlace TableOf(DirectSlot slot) {
    return {PLACE_TABLE, slot};
}

constexpr uint64_t TABLE_BUCKETS = 8; // bytes from a hash table to its buckets' pointer

constexpr TypeMember JAVATHREAD_MEMBERS[] = {
    {TYPE_JAVATHREAD, "_next", Member(78)},
    {TYPE_JNIHANDLEBLOCK, "_active_handles", Member(79)},
    {ANY_OBJECT, "_pending_exception", Member(80)},
    {TYPE_HANDLEAREA, "_handle_area", Member(81)},
    {TYPE_PRIVILEGEDELEMENT, "_privileged_stack_top", Member(82)},
    {TYPE_MONITORCHUNK, "_monitor_chunks", Member(83)},
    {ANY_OBJECT, "_threadObj", Member(84)},
    {ANY_OBJECT, "_vm_result", Member(85)},
    {ANY_OBJECT, "_vm_result_2", Member(86)},
    {ANY_OBJECT, "_exception_oop", Member(87)},
    {ANY_OBJECT, "_pending_async_exception", Member(88)},
};

constexpr TypeMember VMTHREAD_MEMBERS[] = {
    {ANY_OBJECT, "_"},
    {TYPE_JNIHANDLEBLOCK, "_active_handles", Member(79)},
    {ANY_OBJECT, "_pending_exception", Member(80)},
    {TYPE_HANDLEAREA, "_handle_area", Member(81)},
    {TYPE_VMQUEUE, "#_vm_queue", At(SYM_VM_QUEUE)},
};

constexpr TypeMember JNIHANDLEBLOCK_MEMBERS[] = {
    {TYPE_JNIHANDLEBLOCK, "_next", Member(92)},
    {TYPE_JNIHANDLE_ARRAY, "_handles", Member(93), Member(120)},
};

constexpr TypeMember JNIHANDLE_ARRAY_MEMBERS[] = {{ANY_OBJECT, "*OOP"}};

constexpr TypeMember HANDLEAREA_MEMBERS[] = {
    {ANY_OBJECT, "_"},
    {TYPE_HANDLEAREA_CHUNK, "_first", Member(94), Member(96), Member(95)},
};

constexpr TypeMember HANDLEAREA_CHUNK_MEMBERS[] = {
    {ANY_OBJECT, "_next", Member(97)},
    {ANY_OBJECT, "_len", Member(98)},
};

constexpr TypeMember VMQUEUE_MEMBERS[] = {
    {ANY_OBJECT, "_"},
    {TYPE_VMOPERATION_ARRAY, "_queue", Member(90), Bytes(2)},
};

constexpr TypeMember VMOPERATION_ARRAY_MEMBERS[] = {{TYPE_VMOPERATION, "VMOPERATION"}};

constexpr TypeMember VMOPERATION_MEMBERS[] = {{TYPE_VMOPERATION, "+_next", Member(91)}};

constexpr TypeMember PRIVILEGEDELEMENT_MEMBERS[] = {
    {TYPE_PRIVILEGEDELEMENT, "_next", Member(99)},
    {TYPE_KLASS, "_klass", Member(100)},
};

constexpr TypeMember MONITORCHUNK_MEMBERS[] = {
    {TYPE_MONITORCHUNK, "_next", Member(102)},
    {TYPE_BASICOBJECTLOCK_ARRAY, "_monitors", Member(103), Bytes(8)},
};

constexpr TypeMember BASICOBJECTLOCK_ARRAY_MEMBERS[] = {{ANY_OBJECT, "OOP"}};

constexpr TypeMember THREADPROFILER_MEMBERS[] = {
    {ANY_OBJECT, "_"},
    {TYPE_PROFILERNODE_ARRAY, "table", Member(106)},
};

constexpr TypeMember PROFILERNODE_ARRAY_MEMBERS[] = {{TYPE_PROFILERNODE, "*PROFILERNODE"}};

constexpr TypeMember PROFILERNODE_MEMBERS[] = {{TYPE_PROFILERNODE, "_next", Member(107)}};

constexpr TypeMember OBJECTSYNC_BLOCK_MEMBERS[] = {
    {TYPE_OBJECTSYNC_BLOCK, "_queue", Member(104)},
    {TYPE_OBJECTMONITOR_ARRAY, "OBJECTMONITOR_ARRAY", Bytes(0), Bytes(64)},
};

constexpr TypeMember OBJECTMONITOR_ARRAY_MEMBERS[] = {{TYPE_OBJECTMONITOR, "OBJECTMONITOR"}};

constexpr TypeMember OBJECTMONITOR_MEMBERS[] = {
    {ANY_OBJECT, "_"},
    {ANY_OBJECT, "_object", Member(105)},
};

constexpr TypeMember VMSYMBOL_ARRAY_MEMBERS[] = {{TYPE_SYMBOL, "*SYMBOL"}};

constexpr TypeMember SYMBOLTABLEBUCKET_ARRAY_MEMBERS[] = {{TYPE_SYMBOLTABLEBUCKET, "SYMBOLTABLEBUCKET"}};

constexpr TypeMember SYMBOLTABLEBUCKET_MEMBERS[] = {
    {ANY_OBJECT, "_"},
    {TYPE_SYMBOL, "entry", Member(108)},
};

constexpr TypeMember STRINGTABLEBUCKET_ARRAY_MEMBERS[] = {{TYPE_STRINGTABLEBUCKET, "STRINGTABLEBUCKET"}};

constexpr TypeMember STRINGTABLEBUCKET_MEMBERS[] = {
    {ANY_OBJECT, "_"},
    {TYPE_STRINGTABLEENTRY, "_entry", Member(109)},
};

constexpr TypeMember STRINGTABLEENTRY_MEMBERS[] = {
    {TYPE_STRINGTABLEENTRY, "_next", Member(110)},
    {ANY_OBJECT, "_literal_string", Member(111)},
};

constexpr TypeMember UNIVERSE_MEMBERS[] = {
    {ANY_OBJECT, "_"},
    {TYPE_KLASS, "_bool_arr_klass", Bytes(0)},
    {TYPE_KLASS, "_byte_arr_klass", Bytes(8)},
    {TYPE_KLASS, "_char_arr_klass", Bytes(16)},
    {TYPE_KLASS, "_int_arr_klass", Bytes(24)},
    {TYPE_KLASS, "_short_arr_klass", Bytes(32)},
    {TYPE_KLASS, "_long_arr_klass", Bytes(40)},
    {TYPE_KLASS, "_single_arr_klass", Bytes(48)},
    {TYPE_KLASS, "_double_arr_klass", Bytes(56)},
    {TYPE_KLASS, "_symbol_klass", Bytes(64)},
    {TYPE_KLASS, "_method_klass", Bytes(72)},
    {TYPE_KLASS, "_klass_klass", Bytes(80)},
    {TYPE_KLASS, "_arr_klass_klass", Bytes(88)},
    {TYPE_KLASS, "_obj_arr_klass_klass", Bytes(96)},
    {TYPE_KLASS, "_type_arr_klass_klass", Bytes(104)},
    {TYPE_KLASS, "_instance_klass_klass", Bytes(112)},
    {TYPE_KLASS, "_constant_pool_klass", Bytes(120)},
    {TYPE_KLASS, "_constant_pool_cache_klass", Bytes(128)},
    {TYPE_KLASS, "_compiledicholder_klass", Bytes(136)},
    {TYPE_KLASS, "_system_obj_array_klass", Bytes(144)},
    {TYPE_THREADGROUP, "_main_thread_group", Bytes(152)},
    {TYPE_THREADGROUP, "_system_thread_group", Bytes(160)},
    {TYPE_ARRAY, "_the_empty_short_array", Bytes(168)},
    {TYPE_ARRAY, "_the_empty_int_array", Bytes(176)},
    {TYPE_ARRAY, "_the_empty_system_obj_array", Bytes(184)},
    {TYPE_ARRAY, "_the_empty_class_klass_array", Bytes(192)},
    {TYPE_METHOD, "_finalizer_register_method", Bytes(200)},
    {TYPE_METHOD, "_reflect_invoke_method", Bytes(256)},
    {TYPE_METHOD, "_loader_addclass_method", Bytes(216)},
    {TYPE_INSTANCE, "_out_of_memory_error_instance", Bytes(224)},
    {TYPE_INSTANCE, "_null_ptr_exception_instance", Bytes(232)},
    {TYPE_INSTANCE, "_arithmetic_exception_instance", Bytes(240)},
    {ANY_OBJECT, "_vm_exception", Bytes(248)},
};

constexpr TypeMember SYSTEMDICTIONARY_MEMBERS[] = {
    {ANY_OBJECT, "_"},
    {TYPE_SYSTEMDICTIONARY_KLASSES, "#SYSTEMDICTIONARY_KLASSES", At(SYM_SYSTEM_KLASSES)},
    {TYPE_SYSTEMDICTIONARY_MIRRORS, "#SYSTEMDICTIONARY_MIRRORS", At(SYM_MIRRORS)},
    {TYPE_DICTIONARY, "#SYSTEMDICTIONARY_DICTIONARY", TableOf(SYM_DICTIONARY), Bytes(1009)},
    {TYPE_PLACEHOLDERTABLE, "#SYSTEMDICTIONARY_PLACEHOLDERSTABLE", TableOf(SYM_PLACEHOLDERS), Bytes(1009)},
    {TYPE_LOADERCONSTRAINTTABLE, "#SYSTEMDICTIONARY_LOADERCONSTRAINTTABLE", TableOf(SYM_LOADER_CONSTRAINTS),
     Bytes(107)},
    {TYPE_INSTANCE, "#_java_system_loader", At(SYM_SYSTEM_LOADER)},
};

constexpr TypeMember SYSTEMDICTIONARY_KLASSES_MEMBERS[] = {
    {ANY_OBJECT, "_"},
    {TYPE_KLASS, "_object_klass", Bytes(0)},
    {TYPE_KLASS, "_string_klass", Bytes(8)},
    {TYPE_KLASS, "_class_klass", Bytes(16)},
    {TYPE_KLASS, "_cloneable_klass", Bytes(24)},
    {TYPE_KLASS, "_classloader_klass", Bytes(32)},
    {TYPE_KLASS, "_serializable_klass", Bytes(40)},
    {TYPE_KLASS, "_throwable_klass", Bytes(48)},
    {TYPE_KLASS, "_error_klass", Bytes(56)},
    {TYPE_KLASS, "_threaddeath_klass", Bytes(64)},
    {TYPE_KLASS, "_exception_klass", Bytes(72)},
    {TYPE_KLASS, "_runtime_exception_klass", Bytes(80)},
    {TYPE_KLASS, "_classnotfoundexception_klass", Bytes(88)},
    {TYPE_KLASS, "_noclassdeffounderror_klass", Bytes(96)},
    {TYPE_KLASS, "_classcastexception_klass", Bytes(104)},
    {TYPE_KLASS, "_arraystoreexception_klass", Bytes(112)},
    {TYPE_KLASS, "_outofmemoryerror_klass", Bytes(120)},
    {TYPE_KLASS, "_stackoverflowerror_klass", Bytes(128)},
    {TYPE_KLASS, "_protectiondomain_klass", Bytes(136)},
    {TYPE_KLASS, "_accesscontrolcontext_klass", Bytes(144)},
    {TYPE_KLASS, "_reference_klass", Bytes(152)},
    {TYPE_KLASS, "_soft_reference_klass", Bytes(160)},
    {TYPE_KLASS, "_weak_reference_klass", Bytes(168)},
    {TYPE_KLASS, "_final_reference_klass", Bytes(176)},
    {TYPE_KLASS, "_phantom_reference_klass", Bytes(184)},
    {TYPE_KLASS, "_finalizer_klass", Bytes(192)},
    {TYPE_KLASS, "_thread_klass", Bytes(200)},
    {TYPE_KLASS, "_threadgroup_klass", Bytes(208)},
    {TYPE_KLASS, "_properties_klass", Bytes(216)},
    {TYPE_KLASS, "_reflect_method_klass", Bytes(224)},
    {TYPE_KLASS, "_reflect_constructor_klass", Bytes(232)},
    {TYPE_KLASS, "_stringbuffer_klass", Bytes(240)},
    {TYPE_KLASS, "_vector_klass", Bytes(248)},
    {TYPE_KLASS, "_hashtable_klass", Bytes(256)},
    {TYPE_KLASS, "_boolean_klass", Bytes(264)},
    {TYPE_KLASS, "_char_klass", Bytes(272)},
    {TYPE_KLASS, "_float_klass", Bytes(280)},
    {TYPE_KLASS, "_double_klass", Bytes(288)},
    {TYPE_KLASS, "_byte_klass", Bytes(296)},
    {TYPE_KLASS, "_short_klass", Bytes(304)},
    {TYPE_KLASS, "_int_klass", Bytes(312)},
    {TYPE_KLASS, "_long_klass", Bytes(320)},
};

constexpr TypeMember SYSTEMDICTIONARY_MIRRORS_MEMBERS[] = {
    {ANY_OBJECT, "_"},
    {ANY_OBJECT, "_int_mirror", Bytes(0)},
    {ANY_OBJECT, "_float_mirror", Bytes(8)},
    {ANY_OBJECT, "_double_mirror", Bytes(16)},
    {ANY_OBJECT, "_byte_mirror", Bytes(24)},
    {ANY_OBJECT, "_bool_mirror", Bytes(32)},
    {ANY_OBJECT, "_char_mirror", Bytes(40)},
    {ANY_OBJECT, "_long_mirror", Bytes(48)},
    {ANY_OBJECT, "_short_mirror", Bytes(56)},
    {ANY_OBJECT, "_void_mirror", Bytes(64)},
};

constexpr TypeMember SYSTEMDICTIONARY_DICTIONARY_MEMBERS[] = {{TYPE_DICTIONARYENTRY, "*DICTIONARYENTRY"}};

constexpr TypeMember SYSTEMDICTIONARY_PLACEHOLDERTABLE_MEMBERS[] = {
    {TYPE_PLACEHOLDERENTRY, "*PLACEHOLDERENTRY"}};

constexpr TypeMember SYSTEMDICTIONARY_LOADERCONSTRAINTTABLE_MEMBERS[] = {
    {TYPE_LOADERCONSTRAINTENTRY, "*LOADERCONSTRAINTENTRY"}};

constexpr TypeMember DICTIONARYENTRY_MEMBERS[] = {
    {TYPE_DICTIONARYENTRY, "_next", Member(155)},
    {ANY_OBJECT, "_loader", Member(156)},
    {ANY_OBJECT, "_klass$dictionaryentry", Member(157)},
    {TYPE_PROTECTIONDOMAINENTRY, "_pd_set", Member(158)},
};

constexpr TypeMember PLACEHOLDERENTRY_MEMBERS[] = {
    {TYPE_PLACEHOLDERENTRY, "_next", Member(164)},
    {ANY_OBJECT, "_loader", Member(165)},
    {ANY_OBJECT, "_klass$placeholderentry", Member(166)},
};

constexpr TypeMember LOADERCONSTRAINTENTRY_MEMBERS[] = {
    {TYPE_LOADERCONSTRAINTENTRY, "_next", Member(159)},
    {ANY_OBJECT, "_loaders", Member(161), Member(162)},
    {ANY_OBJECT, "_klass$loaderconstraintentry", Member(163)},
};

constexpr TypeMember LOADERCONSTRAINTENTRY_LOADERS_MEMBERS[] = {
    {TYPE_LOADERCONSTRAINTENTRY_LOADERS, "*LOADERCONSTRAINTENTRY_LOADERS"}};

constexpr TypeMember PROTECTIONDOMAINENTRY_MEMBERS[] = {
    {TYPE_PROTECTIONDOMAINENTRY, "_next", Member(116)},
    {ANY_OBJECT, "_protection_domain", Member(117)},
};

struct Row {
    int32_t type;
    TypeInfo info;
};

#define ROW(type, name, kind, stride)                                                                        \
    {                                                                                                        \
        type, {                                                                                              \
#name, kind, name##_MEMBERS, sizeof name##_MEMBERS / sizeof(TypeMember), stride                  \
        }                                                                                                    \
    }
constexpr Row ROWS[] = {
    ROW(TYPE_JAVATHREAD, JAVATHREAD, KIND_CHAIN, 0),
    ROW(TYPE_VMTHREAD, VMTHREAD, KIND_CHAIN, 0),
    ROW(TYPE_JNIHANDLEBLOCK, JNIHANDLEBLOCK, KIND_CHAIN, 0),
    ROW(TYPE_JNIHANDLE_ARRAY, JNIHANDLE_ARRAY, KIND_COUNTED_ARRAY, 8),
    ROW(TYPE_HANDLEAREA, HANDLEAREA, KIND_CHAIN, 0),
    ROW(TYPE_HANDLEAREA_CHUNK, HANDLEAREA_CHUNK, KIND_CHUNKS, 0),
    ROW(TYPE_VMQUEUE, VMQUEUE, KIND_CHAIN, 0),
    ROW(TYPE_VMOPERATION_ARRAY, VMOPERATION_ARRAY, KIND_ARRAY, 8),
    ROW(TYPE_VMOPERATION, VMOPERATION, KIND_CHAIN, 0),
    ROW(TYPE_PRIVILEGEDELEMENT, PRIVILEGEDELEMENT, KIND_CHAIN, 0),
    ROW(TYPE_MONITORCHUNK, MONITORCHUNK, KIND_CHAIN, 0),
    ROW(TYPE_BASICOBJECTLOCK_ARRAY, BASICOBJECTLOCK_ARRAY, KIND_COUNTED_ARRAY, 8),
    ROW(TYPE_THREADPROFILER, THREADPROFILER, KIND_CHAIN, 0),
    ROW(TYPE_PROFILERNODE_ARRAY, PROFILERNODE_ARRAY, KIND_COUNTED_ARRAY, 8),
    ROW(TYPE_PROFILERNODE, PROFILERNODE, KIND_CHAIN, 0),
    ROW(TYPE_OBJECTSYNC_BLOCK, OBJECTSYNC_BLOCK, KIND_CHAIN, 0),
    ROW(TYPE_OBJECTMONITOR_ARRAY, OBJECTMONITOR_ARRAY, KIND_ARRAY, 64),
    ROW(TYPE_OBJECTMONITOR, OBJECTMONITOR, KIND_CHAIN, 0),
    ROW(TYPE_VMSYMBOL_ARRAY, VMSYMBOL_ARRAY, KIND_ARRAY, 8),
    ROW(TYPE_SYMBOLTABLEBUCKET_ARRAY, SYMBOLTABLEBUCKET_ARRAY, KIND_ARRAY, 16),
    ROW(TYPE_SYMBOLTABLEBUCKET, SYMBOLTABLEBUCKET, KIND_CHAIN, 0),
    ROW(TYPE_STRINGTABLEBUCKET_ARRAY, STRINGTABLEBUCKET_ARRAY, KIND_ARRAY, 16),
    ROW(TYPE_STRINGTABLEBUCKET, STRINGTABLEBUCKET, KIND_CHAIN, 0),
    ROW(TYPE_STRINGTABLEENTRY, STRINGTABLEENTRY, KIND_CHAIN, 0),
    ROW(TYPE_UNIVERSE, UNIVERSE, KIND_CHAIN, 0),
    ROW(TYPE_SYSTEMDICTIONARY, SYSTEMDICTIONARY, KIND_CHAIN, 0),
    ROW(TYPE_SYSTEMDICTIONARY_KLASSES, SYSTEMDICTIONARY_KLASSES, KIND_CHAIN, 0),
    ROW(TYPE_SYSTEMDICTIONARY_MIRRORS, SYSTEMDICTIONARY_MIRRORS, KIND_CHAIN, 0),
    ROW(TYPE_DICTIONARY, SYSTEMDICTIONARY_DICTIONARY, KIND_ARRAY, 8),
    ROW(TYPE_PLACEHOLDERTABLE, SYSTEMDICTIONARY_PLACEHOLDERTABLE, KIND_ARRAY, 8),
    ROW(TYPE_LOADERCONSTRAINTTABLE, SYSTEMDICTIONARY_LOADERCONSTRAINTTABLE, KIND_ARRAY, 8),
    ROW(TYPE_DICTIONARYENTRY, DICTIONARYENTRY, KIND_CHAIN, 0),
    ROW(TYPE_PLACEHOLDERENTRY, PLACEHOLDERENTRY, KIND_CHAIN, 0),
    ROW(TYPE_LOADERCONSTRAINTENTRY, LOADERCONSTRAINTENTRY, KIND_CHAIN, 0),
    ROW(TYPE_LOADERCONSTRAINTENTRY_LOADERS, LOADERCONSTRAINTENTRY_LOADERS, KIND_COUNTED_ARRAY, -1),
    ROW(TYPE_PROTECTIONDOMAINENTRY, PROTECTIONDOMAINENTRY, KIND_CHAIN, 0),
};
#undef ROW

constexpr std::array<TypeInfo, VM_TYPE_COUNT> ByType() {
    std::array<TypeInfo, VM_TYPE_COUNT> table = {};
    for (const Row &row : ROWS)
        table[static_cast<size_t>(row.type)] = row.info;
    return table;
}

// A walk goes by a member's type into the table, so that each must be an object's or in it.
constexpr bool AllMembersLeadSomewhere() {
    for (const Row &row : ROWS)
        for (int32_t i = 0; i < row.info.memberCount; i++)
            if (row.info.members[i].type < ANY_OBJECT || row.info.members[i].type >= VM_TYPE_COUNT)
                return false;
    return true;
}
static_assert(AllMembersLeadSomewhere(), "a member's type has no row");

} // namespace

constexpr std::array<TypeInfo, VM_TYPE_COUNT> typeInfoArray = ByType();

const char type_char[VM_TYPE_COUNT + 1] = "012F5346789*ABCDEHabcdefghijklmnopqrstuvwxyzABCDEFGHI?JKL?_";

const StartSymbol startSymbols[START_SYMBOL_COUNT] = {
    {SYM_THREAD_LIST, TYPE_JAVATHREAD, "*JAVATHREAD", 0},
    {SYM_VM_THREAD, TYPE_VMTHREAD, "*VMTHREAD", 0},
    {SYM_MONITOR_BLOCKS, TYPE_OBJECTSYNC_BLOCK, "*OBJECTSYNC_BLOCK", 0},
    {SYM_UNIVERSE_KLASSES, TYPE_UNIVERSE, "UNIVERSE", 0},
    {SYM_SYSTEM_KLASSES, TYPE_SYSTEMDICTIONARY, "SYSTEMDICTIONARY", 0},
    {SYM_THREAD_PROFILER, TYPE_THREADPROFILER, "THREADPROFILER", 0},
    {SYM_VM_SYMBOLS, TYPE_VMSYMBOL_ARRAY, "VMSYMBOL_ARRAY", 191},
    {SYM_GLOBAL_HANDLES, TYPE_JNIHANDLEBLOCK, "*JNIHANDLEBLOCK", 0},
};

bool QorIsObjectType(int32_t type) {
    return type < NUM_BASIC_TYPES || type >= VM_TYPE_COUNT || !typeInfoArray[static_cast<size_t>(type)].name;
}

bool QorResolvePlace(const VmPlace &place, uint64_t object, uint64_t *address) {
    switch (place.kind) {
    case PLACE_BYTES:
        *address = object + static_cast<uint64_t>(place.value);
        return true;
    case PLACE_MEMBER:
        *address = object + offsets[place.value] * VM_WORD_SIZE;
        return true;
    case PLACE_SYMBOL:
        *address = nsymbols[place.value];
        return *address != 0;
    case PLACE_TABLE:
        *address = QorWordAt(nsymbols[place.value]);
        *address = *address ? QorWordAt(*address + TABLE_BUCKETS) : 0;
        return *address != 0;
    case PLACE_NONE:
        break;
    }
    return false;
}
