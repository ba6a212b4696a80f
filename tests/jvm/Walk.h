// A walk over all threads, closed with its scope.
#pragma once

#include "jvmti/threads/ThreadSystem.h"

#include <string>

struct Walk {
    Walk() { QorInitThreadHandle(&handle); }
    ~Walk() { QorCloseThreadHandle(&handle); }

    // Moves to the next living thread, with its facts in `thread` and its frames in `frames`.
    bool next() {
        for (QorGetJVMThread(&handle, 0); handle.index < handle.count; QorGetJVMThread(&handle, 0)) {
            thread = {};
            if (QorGetThreadInfo(&handle, &thread) == 0 && QorGetFrames(&handle, &frames) >= 0)
                return true;
        }
        return false;
    }

    // Moves to the thread of that name.
    bool find(const std::string &name) {
        while (next())
            if (name == thread.name)
                return true;
        return false;
    }

    QorThreadHandle handle;
    QorThreadRecord thread = {};
    QorFrameHandle frames;
};
