#include "qorrequest.h"
#include "reply/records.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(Records, TitleIsTheFirstRowThatApplies) {
    struct Case {
        uint32_t reqid;
        int32_t details, trace;
        const char *title;
    };
    const Case cases[] = {
        {0x80, 0, 0, "JVM Memory Activity"},
        {0x2180, 0, 0, "JVM Memory Activity"},
        {0x2100, 0, 0, "Thread Info Summary"},
        {0x2000, 0, 0, "JVM Active Threads"},
        {0xa000, 16, 0, "JVM Active Threads"},
        {0x200, 0, 0, "Thread Info Details"},
        {0x800, 0, 0, "Thread Holding Lock"},
        {0x8000, 0, 0, "JVM Active Threads"},
        {0x8000, 0, 32, "Thread Info Details"},
        {0x8000, 16, 0, "Thread Info Details"},
        {0x8000, 16, 32, "Thread Info Details"},
        {0x40, 0, 0, ""},
        {0x4000, 0, 0, ""},
        {0, 16, 0, ""},
    };
    for (const Case &c : cases) {
        poll_details = c.details;
        trace_single_thread_details = c.trace;
        char header[TITLE_SIZE];
        InitResponseHeader(c.reqid, header);
        EXPECT_EQ(*c.title ? std::string(c.title) + RECORD_END : "", header)
            << std::hex << c.reqid << " details " << c.details << " trace " << c.trace;
        // A traced thread is always shown with its stack.
        EXPECT_EQ(c.reqid == 0x8000 && c.trace ? true : c.details != 0, poll_details != 0)
            << std::hex << c.reqid;
    }
    poll_details = trace_single_thread_details = 0;
}

} // namespace
