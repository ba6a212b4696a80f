// The VM catches its faults itself, the copies of a dump end by theirs, and what the VM keeps is never freed.
extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options() {
    return "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:use_sigaltstack=0:detect_leaks=0";
}
