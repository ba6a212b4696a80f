#include <cstdio>
#include <gtest/gtest.h>
#include <unistd.h>

// The JVM's threads live until the process is gone, so nothing that they use may be destroyed before: the
// process ends without running any destructor.
int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    fflush(nullptr);
    _exit(result);
}
