#include "qorrequest.h"

#include <cstdlib>

char buf[BUF_SIZE];
std::atomic<int32_t> qorlocks[2];
std::atomic<int32_t> qorLeave;

int32_t no_gc;
int32_t sp_null_enable;
int32_t poll_details;
int32_t trace_single_thread_details;
int32_t show_jsp_info;
int32_t get_system_data;
int32_t trace_all_threads;
int32_t cost_wanted;
int32_t copy_flags;
int32_t no_locals;
int32_t figures_wanted;
int32_t qorIsPollOrTrace;

uint32_t reqid;
char *pars;
char *console_args[CONSOLE_ARG_COUNT];
char dumpfile[DUMPFILE_SIZE];
uint32_t heap_id;

bool qorReplyIsCut;

char *pagebuf;

int64_t QorConsoleNumber(int32_t slot) {
    return console_args[slot] ? atol(console_args[slot]) : 0;
}
