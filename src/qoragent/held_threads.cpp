#include "held_threads.h"

#include "channel.h"
#include "dispatch.h"

#include <cstring>

void *segv_suspended_thread;
void *null_sp_suspended_thread;

namespace {

constexpr char HEAP_WALK_WORD[] = "showmem";
constexpr char HEAP_WALK_NUMBER[] = "256";
constexpr size_t HEAP_WALK_NUMBER_AT = 8; // behind the word's start

} // namespace

void QorResumeFaultedThreads() {
    segv_suspended_thread = nullptr;
    null_sp_suspended_thread = nullptr;
}

void qor_resume_all_threads() {}

void QorResumeAfterHeapWalk() {
    const char *word = strstr(buf, HEAP_WALK_WORD);
    if (!word || fpid == 0)
        return;
    if (strnlen(word, HEAP_WALK_NUMBER_AT) == HEAP_WALK_NUMBER_AT &&
        strncmp(word + HEAP_WALK_NUMBER_AT, HEAP_WALK_NUMBER, sizeof HEAP_WALK_NUMBER - 1) == 0)
        qor_resume_all_threads();
}
