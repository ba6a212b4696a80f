#include "jvmti/threads/ThreadSystem.h"

#include <cstring>
#include <gtest/gtest.h>

// The common ones are in the tests of a JVM.
TEST(ThreadStates, AreRefinedByTheirCalls) {
    const std::tuple<int32_t, int32_t, const char *, const char *, int32_t> rows[] = {
        {STATE_RUNNABLE, 0, "sun.nio.ch.Pipe", "poll0Now", STATE_OBJECT_WAIT},
        {STATE_RUNNABLE, 0, "sun.nio.ch.Net", "accept", STATE_OBJECT_WAIT},
        {STATE_RUNNABLE, 0, "sun.nio.ch.Network", "accept", STATE_NETWORK_WAIT},
        {STATE_RUNNABLE, 0, "tessar.jdbc.zdi8.ZDIDBAccess", "execute", STATE_DB_WAIT},
        {STATE_NETWORK_WAIT, 2, "sun.nio.ch.NioSocketImpl", "timedAccept", STATE_OBJECT_WAIT},
        {STATE_NETWORK_WAIT, 40, "tessar.net.ns.Packet", "receive", STATE_DB_WAIT},
        {STATE_IO_WAIT, 3, "ferrule.jdbc.base.Statement", "execute", STATE_IO_WAIT},
        {STATE_OBJECT_WAIT, 3, "ferrule.rjvm.ResponseImpl", "waitForData", STATE_OBJECT_WAIT},
    };
    for (const auto &[state, index, className, method, refined] : rows) {
        tessar_thick_driver = 0;
        QorThreadRecord thread = {};
        thread.state = state;
        const QorFrameRecord frame = {index, 0, method, className, "", 0, 1, nullptr};
        EXPECT_EQ(GetThreadEnhancedState(&frame, &thread), 0);
        EXPECT_EQ(thread.state, refined) << className << "." << method << " at " << index;
        EXPECT_EQ(thread.enhancedState, refined == state ? 0 : refined);
        EXPECT_EQ(tessar_thick_driver, strstr(className, "zdi8") != nullptr);
    }
}
