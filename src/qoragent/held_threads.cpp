#include "held_threads.h"

void *segv_suspended_thread;
void *null_sp_suspended_thread;

void QorResumeFaultedThreads() {
    segv_suspended_thread = nullptr;
    null_sp_suspended_thread = nullptr;
}

void qor_resume_all_threads() {}
