// What tests share that boot one VM after the other.
#pragma once

#include "simvm.h"

#include "qorutil/vm_offsets.h"

#include <algorithm>
#include <functional>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace simvm {

// Runs a test's body in a separate process, as there is one VM in each. The body's failures are this
// test's.
inline void InOwnProcess(const std::function<void()> &body) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // one that hangs ends with the test
        body();
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << "the process failed, or died";
}

// The agent's row for a VM whose members have changed places.
inline void TellAgentPlaces() {
    static uint32_t row[OFFSET_COUNT];
    QorSelectOffsets(LAST_DIRECT_BUILD);
    std::copy(offsets, offsets + OFFSET_COUNT, row);
    TellPlaces(row);
    offsetsForTests = row;
}

} // namespace simvm
