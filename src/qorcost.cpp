#include "qorcost.h"

#include <algorithm>
#include <ctime>
#include <iterator>

QorCost qorRequestCost;
int64_t qorLastStopUsec[STOP_KINDS] = {-1, -1, -1, -1, -1};

namespace {

constexpr int32_t LOOK_INTERVAL = 256; // callbacks between two looks at the clock

bool stoppedBy[STOP_KINDS]; // the current request has made such a call

} // namespace

void QorStartCost() {
    qorRequestCost = {};
    std::fill(std::begin(stoppedBy), std::end(stoppedBy), false);
}

int64_t QorStopStarts() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000000} + now.tv_nsec / 1000;
}

void QorStopEnded(QorStopKind kind, int64_t start) {
    const int64_t usec = QorStopStarts() - start;
    qorRequestCost.calls++;
    qorRequestCost.sumUsec += usec;
    qorRequestCost.largestUsec = std::max(qorRequestCost.largestUsec, usec);
    qorLastStopUsec[kind] = stoppedBy[kind] ? std::max(qorLastStopUsec[kind], usec) : usec;
    stoppedBy[kind] = true;
}

bool QorStopIsOver(QorStopLimit *limit) {
    if (limit->isOver || limit->callbacks++ % LOOK_INTERVAL != 0)
        return limit->isOver;
    const int64_t now = QorStopStarts();
    if (limit->end == 0)
        limit->end = now + limit->usec;
    limit->isOver = now > limit->end;
    return limit->isOver;
}

void QorForgetCost() {
    QorStartCost();
    std::fill(std::begin(qorLastStopUsec), std::end(qorLastStopUsec), -1);
}
