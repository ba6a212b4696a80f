#include "Restore.h"
#include "jvmti/threads/Monitors.h"
#include "jvmti/threads/ThreadSystem.h"

#include <gtest/gtest.h>
#include <string>

namespace {

enum : jint {
    ALIVE = JVMTI_THREAD_STATE_ALIVE,
    RUNNABLE = JVMTI_THREAD_STATE_RUNNABLE,
    WAITING = JVMTI_THREAD_STATE_WAITING,
    TIMED = JVMTI_THREAD_STATE_WAITING_WITH_TIMEOUT,
    PARKED = JVMTI_THREAD_STATE_PARKED,
    SLEEPING = JVMTI_THREAD_STATE_SLEEPING,
    SUSPENDED = JVMTI_THREAD_STATE_SUSPENDED,
    INTERRUPTED = JVMTI_THREAD_STATE_INTERRUPTED,
    BLOCKED = JVMTI_THREAD_STATE_BLOCKED_ON_MONITOR_ENTER
};

// Refines the state of a thread by its frame at `index`.
void Refine(QorThreadRecord *thread, int32_t index, const char *className, const char *method) {
    const QorFrameRecord frame = {index, 0, method, className, "", 0, 1, nullptr};
    EXPECT_EQ(GetThreadEnhancedState(&frame, thread), 0);
}

} // namespace

TEST(ThreadStates, FollowTheLastBitThatTells) {
    const std::pair<jint, int32_t> rows[] = {
        {0, STATE_UNKNOWN},
        {JVMTI_THREAD_STATE_TERMINATED, STATE_TERMINATED},
        {ALIVE | RUNNABLE | SUSPENDED, STATE_RUNNABLE},
        {ALIVE | SUSPENDED, STATE_SUSPENDED},
        {ALIVE | INTERRUPTED | BLOCKED, STATE_LOCK},
        {ALIVE | WAITING | JVMTI_THREAD_STATE_WAITING_INDEFINITELY, STATE_OBJECT_WAIT},
        {ALIVE | WAITING | JVMTI_THREAD_STATE_IN_OBJECT_WAIT | SUSPENDED, STATE_OBJECT_WAIT},
        {ALIVE | WAITING | TIMED | PARKED, STATE_OBJECT_WAIT},
        {ALIVE | WAITING | TIMED | SLEEPING, STATE_SLEEPING},
        {ALIVE | SLEEPING, STATE_UNKNOWN},
    };
    for (const auto &[bits, state] : rows)
        EXPECT_EQ(mapThreadStatetoQorState(bits, 5), state) << std::hex << bits;
}

TEST(ThreadStates, OfInstrumentedThreadsAreNeverIdle) {
    const Restore count(gBciThreadIdCount, 2);
    gBciThreadIds[1] = 5;
    EXPECT_EQ(mapThreadStatetoQorState(ALIVE | WAITING | PARKED, 5), STATE_OTHER);
    EXPECT_EQ(mapThreadStatetoQorState(ALIVE | WAITING | PARKED, 6), STATE_OBJECT_WAIT);
    EXPECT_EQ(mapThreadStatetoQorState(ALIVE | BLOCKED, 5), STATE_LOCK);
}

TEST(ThreadStates, AreRefinedByTheirCalls) {
    const std::tuple<int32_t, int32_t, std::string, const char *, int32_t> rows[] = {
        {STATE_RUNNABLE, 0, "sun.nio.ch.EPoll", "wait", STATE_NETWORK_WAIT},
        {STATE_RUNNABLE, 0, "sun.nio.ch.Pipe", "poll0Now", STATE_OBJECT_WAIT},
        {STATE_RUNNABLE, 0, "sun.nio.ch.Net", "accept", STATE_OBJECT_WAIT},
        {STATE_RUNNABLE, 0, "sun.nio.ch.Network", "accept", STATE_NETWORK_WAIT},
        {STATE_RUNNABLE, 0, "qoragent.Agent", "dataFromNative", STATE_OBJECT_WAIT},
        {STATE_RUNNABLE, 0, "tessar.jdbc.zdi8.ZDIDBAccess", "execute", STATE_DB_WAIT},
        {STATE_LOCK, 0, "java.io.FileInputStream", "readBytes", STATE_LOCK},
        {STATE_CONDVAR_WAIT, 0, "java.lang.Thread", "sleep0", STATE_SLEEPING},
        {STATE_NETWORK_WAIT, 2, "sun.nio.ch.NioSocketImpl", "timedAccept", STATE_OBJECT_WAIT},
        {STATE_NETWORK_WAIT, 40, "tessar.net.ns.Packet", "receive", STATE_DB_WAIT},
        {STATE_RUNNABLE, 3, "ferrule.jdbc.base.Statement", "execute", STATE_DB_WAIT},
        {STATE_IO_WAIT, 3, "ferrule.jdbc.base.Statement", "execute", STATE_IO_WAIT},
        {STATE_OBJECT_WAIT, 2, "ferrule.rjvm.ResponseImpl", "waitForData", STATE_RMI_WAIT},
        {STATE_OBJECT_WAIT, 3, "ferrule.rjvm.ResponseImpl", "waitForData", STATE_OBJECT_WAIT},
    };
    for (const auto &[state, index, className, method, refined] : rows) {
        tessar_thick_driver = 0;
        QorThreadRecord thread = {};
        thread.state = state;
        Refine(&thread, index, className.c_str(), method);
        EXPECT_EQ(thread.state, refined) << className << "." << method << " at " << index;
        EXPECT_EQ(thread.enhancedState, refined == state ? 0 : refined);
        EXPECT_EQ(tessar_thick_driver, className.find("zdi8") != std::string::npos);
    }
}

// On newer JDKs Object.wait has one frame more, which isn't counted.
TEST(ThreadStates, CountWaitAsOneFrame) {
    for (const char *className : {"java.lang.Object", "app.Object"}) {
        QorThreadRecord waiting = {};
        waiting.state = STATE_OBJECT_WAIT;
        Refine(&waiting, 0, className, "wait0");
        Refine(&waiting, 1, className, "wait");
        Refine(&waiting, 2, className, "wait");
        EXPECT_FALSE(QorStateIsSettled(waiting.state, 3));
        Refine(&waiting, 3, "ferrule.rjvm.ResponseImpl", "waitForData");
        EXPECT_EQ(waiting.state, *className == 'j' ? STATE_RMI_WAIT : STATE_OBJECT_WAIT);
    }
}

TEST(Frames, MapLocationsToLines) {
    const jvmtiLineNumberEntry table[] = {{0, 10}, {4, 11}, {4, 12}, {9, 20}, {30, 15}, {31, 16}, {90, 17}};
    const std::tuple<jlocation, jint, int32_t> rows[] = {{-1, 7, -1}, {0, 7, 10},  {3, 7, 10},  {4, 7, 12},
                                                         {29, 7, 20}, {30, 7, 15}, {89, 7, 16}, {500, 7, 17},
                                                         {0, 0, -1},  {31, 5, 15}};
    for (const auto &[location, count, line] : rows)
        EXPECT_EQ(QorMapLoc2Line(location, table, count), line) << location << " " << count;
    EXPECT_EQ(QorMapLoc2Line(1, table + 1, 2), -1) << "before the first line";
}

TEST(LockNames, AreParsedToAnIdAndADecimalName) {
    const std::tuple<std::string, int64_t, std::string> rows[] = {
        {"java.lang.Object@1a2b", 6699, "java.lang.Object@6699"},
        {"Lock123", 291, "Lock@291"},
        {"a@ffffffffffffffffffff", INT64_MAX, "a@9223372036854775807"},
        {std::string(NAME_SIZE - 3, 'x') + "@f", 15, std::string(NAME_SIZE - 3, 'x') + "@1"}, // cut
    };
    for (const auto &[name, id, shown] : rows) {
        char text[NAME_SIZE];
        snprintf(text, sizeof text, "%s", name.c_str());
        EXPECT_EQ(QorParseLockName(text), id) << name;
        EXPECT_EQ(text, shown);
    }
}
