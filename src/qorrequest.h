// The current request: its flag word, its parsed fields and its reply buffer.
//
// The dispatcher unpacks a request into these globals before it calls a view; the views and the readers below
// them only look. One request runs at a time, on the worker, which is the only thread that writes here.
#pragma once

#include <atomic>
#include <cstdint>

enum : int32_t {
    MAXNETDATA = 20480,
    QOREOTLEN = 7,
    REQUEST_LIMIT = MAXNETDATA + QOREOTLEN, // bytes of a request; its terminator comes after them
    BUF_SIZE = REQUEST_LIMIT + 1,
    PAGEBUF_SIZE = 1024000,
    CONSOLE_ARG_COUNT = 9,
    DUMPFILE_SIZE = 512,
};

// A dump path that is none: it asks for the class histogram instead.
constexpr char HISTOGRAM_WORD[] = "ClassHistogramOnly";

// Bits of `reqid`.
enum : uint32_t {
    QORREQ_JUST_THREADS = 0x40,
    QORREQ_MEMORY_ACTIVITY = 0x80,
    QORREQ_THREAD_SUMMARY = 0x100,
    QORREQ_THREAD_DETAILS = 0x200,
    QORREQ_SHOW_OBJECT = 0x400,
    QORREQ_LOCK_HOLDER = 0x800,
    QORREQ_SHOW_LOCALS = 0x1000,
    QORREQ_ACTIVE_THREADS = 0x2000,
    QORREQ_DB_XTIER = 0x4000,
    QORREQ_POLL_DETAILS = 0x8000,
    QORREQ_VIRTUAL_THREADS = 0x10000,
    QORREQ_SERVER_SCAN = 0x4000000,

    QORREQ_SAMPLING = QORREQ_ACTIVE_THREADS | QORREQ_POLL_DETAILS,
    QORREQ_THREAD_DATA = QORREQ_SAMPLING | QORREQ_MEMORY_ACTIVITY, // carries per-thread data for Java
};

// Bits of the flag word, the first field of a request. Each variable holds the masked value, not 0 and 1.
enum : int32_t {
    FLAG_GC_RETRY_MODE = 3,
    FLAG_NO_GC = 4,
    FLAG_SP_NULL = 8,
    FLAG_POLL_DETAILS = 16,
    FLAG_TRACE_SINGLE_THREAD = 32,
    FLAG_SHOW_JSP_INFO = 64,
    FLAG_SYSTEM_DATA = 128,
    FLAG_TRACE_ALL_THREADS = 256,
    FLAG_NOT_A_POLL = 512,
    FLAG_COST = 1024,    // what the request cost the JVM is a section at the end
    FLAG_COPY = 2048,    // a text dump or histogram is made by a copy of the process
    FLAG_NO_COPY = 4096, // it isn't; without either flag the setting decides
    FLAG_NO_LOCALS = 8192,
    FLAG_FIGURES = 16384, // rows of a poll without stacks carry what Java knows of their threads
};

// The request's text, which the worker cuts up; its last byte is always 0. The worker's alone while one
// lives.
extern char buf[BUF_SIZE];

// Word 0: the agent holds the GC lock. Word 1: a request is in progress, from its hand-over to its answer.
extern std::atomic<int32_t> qorlocks[2];

// 1 while the worker is asked to leave: at SHUTDOWN, and for one that was given up. Loops that wait for the
// JVM, or follow what it changes meanwhile, end then. Set by whoever asks, cleared before a worker starts.
extern std::atomic<int32_t> qorLeave;

extern int32_t no_gc;                       // do not take the GC lock
extern int32_t sp_null_enable;              // handle threads with a null stack pointer
extern int32_t poll_details;                // details in a poll; a single-thread trace sets it as well
extern int32_t trace_single_thread_details; // only the thread named in slot 1
extern int32_t show_jsp_info;               // web request information
extern int32_t get_system_data;             // add system data
extern int32_t trace_all_threads;           // idle threads too
extern int32_t cost_wanted;                 // add what the request cost
extern int32_t copy_flags;                  // FLAG_COPY, FLAG_NO_COPY
extern int32_t no_locals;                   // leave local variables alone
extern int32_t figures_wanted;              // Java's figures in each row of a poll
extern int32_t qorIsPollOrTrace;            // 1 for a poll or trace: the sampling loop's log lines are silent

extern uint32_t reqid;                        // what is asked for; keeps its value when a request has none
extern char *pars;                            // the request's text after the command, or null
extern char *console_args[CONSOLE_ARG_COUNT]; // argument slots, each null or a text inside the request
extern char dumpfile[DUMPFILE_SIZE];          // path of a dump asked for, or the histogram's word
extern uint32_t heap_id;                      // the console's number for a dump

// Something had no room in the reply, which then has no timing. Set by the views, cleared by the dispatcher.
extern bool qorReplyIsCut;

// What answers a request on one of the roads; each appends to `pagebuf`. Worker.
struct QorViews {
    void (*memory)();
    void (*object)();
    void (*locals)();
    void (*threads)();
    void (*figures)(); // what goes before threads' rows; null for nothing
};

// The number in an argument slot; 0 for an empty slot.
int64_t QorConsoleNumber(int32_t slot);

// The reply, PAGEBUF_SIZE bytes; null before start-up and after SHUTDOWN. Its last byte is always 0.
extern char *pagebuf;
