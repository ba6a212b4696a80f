// Threads of the JVM that the agent holds still, for a fault that must not leave them so.
//
// Only direct reading holds threads still, and nothing reads directly yet: there is never one to resume.
#pragma once

// Threads that a fault was seen on, or that have no stack pointer; null for none.
extern void *segv_suspended_thread, *null_sp_suspended_thread;

// Resumes the two, if set. May run in the fault handler.
void QorResumeFaultedThreads();

// Resumes every thread that a heap walk has stopped. May run in the fault handler.
void qor_resume_all_threads();

// The same when the request in `buf` is such a walk: one that failed must not leave the JVM stopped.
void QorResumeAfterHeapWalk();
