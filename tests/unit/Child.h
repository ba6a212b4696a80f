// Runs a part of a test in a process of its own.
#pragma once

#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

// What the process ended with: 0, 1 when an expectation failed in it, what `body` exits with, or minus the
// signal that ended it.
inline int InChild(const std::function<void()> &body) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(30);
        body();
        fflush(nullptr);
        _exit(testing::Test::HasFailure());
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}
