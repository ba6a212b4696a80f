#include "CollectedHeapHack.h"

#include "followRefHackHelper.h"

#include <utility>

constexpr CollectedHeapMethod collectedHeapMethods[COLLECTED_HEAP_METHODS] = {
    {"allocate_new_tlab", 1},
    {"accumulate_statistics_all_tlabs", 2},
    {"resize_all_tlabs", 3},
    {"check_for_bad_heap_word_value", 4},
    {"check_for_non_bad_heap_word_value", 5},
    {"kind", 6},
    {"initialize", 7},
    {"post_initialize", 8},
    {"capacity", 9},
    {"used", 10},
    {"is_maximal_no_gc", 11},
    {"permanent_capacity", 12},
    {"permanent_used", 13},
    {"max_capacity", 14},
    {"is_in", 15},
    {"is_in_closed_subset", 16},
    {"is_in_permanent", 17},
    {"is_permanent", 18},
    {"preload_and_dump", 19},
    {"mem_allocate", 20},
    {"permanent_mem_allocate", 21},
    {"large_typearray_limit", 22},
    {"supports_inline_contig_alloc", 23},
    {"top_addr", 24},
    {"end_addr", 25},
    {"ensure_parsability", 26},
    {"unsafe_max_alloc", 27},
    {"supports_tlab_allocation", 28},
    {"tlab_capacity", 29},
    {"unsafe_max_tlab_alloc", 30},
    {"can_elide_tlab_store_barriers", 31},
    {"new_store_pre_barrier", 32},
    {"can_elide_initializing_store_barrier", 33},
    {"card_mark_must_follow_store", 0},
    {"flush_deferred_store_barrier", 0},
    {"can_elide_permanent_oop_store_barriers", 0},
    {"supports_heap_inspection", 0},
    {"collect", 0},
    {"collect_as_vm_thread", 0},
    {"size_policy", 0},
    {"oop_iterate", 0},
    {"object_iterate", 0},
    {"safe_object_iterate", 0},
    {"permanent_oop_iterate", 0},
    {"permanent_object_iterate", 0},
    {"block_start", 0},
    {"block_size", 0},
    {"block_is_obj", 0},
    {"millis_since_last_gc", 0},
    {"prepare_for_verify", 0},
    {"print", 0},
    {"print_on", 0},
    {"print_gc_threads_on", 0},
    {"gc_threads_do", 53},
    {"print_tracing_info", 54},
    {"verify", 55},
};

namespace {

using Method = void *(*)(CollectedHeap *, void *);

template <int Slot>
void *PutTrueHeapBack(CollectedHeap *, void *) {
    reset_FollowRefHack();
    if (collectedHeapMethods[Slot].check != 0)
        QorNoteHeapCheck(collectedHeapMethods[Slot].check);
    return nullptr;
}

struct MethodList {
    Method slot[COLLECTED_HEAP_METHODS];
};

template <int... Slots>
constexpr MethodList MakeMethods(std::integer_sequence<int, Slots...>) {
    return {{PutTrueHeapBack<Slots>...}};
}

constexpr MethodList METHODS = MakeMethods(std::make_integer_sequence<int, COLLECTED_HEAP_METHODS>());

} // namespace

CollectedHeap *getCollectedHeapHackObject() {
    static CollectedHeap heap = {METHODS.slot};
    return &heap;
}
