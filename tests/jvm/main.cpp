#include <cstdio>
#include <gtest/gtest.h>
#include <unistd.h>

#ifdef __SANITIZE_ADDRESS__
// The JVM works with faults, and keeps what it has to its end.
extern "C" const char *__asan_default_options() {
    return "handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:use_sigaltstack=0:detect_leaks=0";
}
#endif

#ifdef QOR_COVERAGE
extern "C" void __gcov_dump();
#endif

// The JVM's threads live until the process is gone, so nothing that they use may be destroyed before: the
// process ends without running any destructor.
int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    fflush(nullptr);
#ifdef QOR_COVERAGE
    __gcov_dump();
#endif
    _exit(result);
}
