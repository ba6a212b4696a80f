// What a recording consists of: its pace, its parts, its lines, and the completion of a sample that was cut.
#include "base/failure.h"
#include "record/jvm_life.h"
#include "record/pace.h"
#include "record/part_file.h"
#include "record/record_lines.h"
#include "record/sampler.h"
#include "report/recording.h"
#include "report/thread_formats.h"
#include "wire.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

using namespace qorctl;

namespace {

TEST(Pace, GrowsWithWhatItCosts) {
    const struct {
        int spent_ms, interval_ms;
    } rows[] = {{500, 1000}, {5, 1000}, {30, 1500},  {31, 1500}, {60, 1500},
                {60, 1500},  {1, 1500}, {100, 3000}, {1, 3000},  {1, 1000}};
    Pace pace(std::chrono::milliseconds(1000), 0.02);
    for (const auto &row : rows) {
        pace.Add(std::chrono::milliseconds(row.spent_ms));
        EXPECT_EQ(pace.interval().count(), row.interval_ms) << row.spent_ms;
    }
}

// A process is another one after the reuse of its number, and after an exec.
TEST(JvmLife, OfProc) {
    std::string stat = "42 (a (b) c) S 1 1 1 0 -1 0 0 0 0 0 250 50 0 0 20 0 9 0 777 1 1 1 4096 5";
    std::optional<JvmLife> life = ParseLife(stat, 100);
    ASSERT_TRUE(life);
    EXPECT_EQ(life->cpu_ms, 3000);
    EXPECT_TRUE(life->IsSame(*life));
    for (const char *change : {"777", "4096"})
        EXPECT_FALSE(life->IsSame(*ParseLife(std::string(stat).replace(stat.find(change), 1, "9"), 100)));
}

// As a disk of the network or a quota may.
TEST(PartFile, RefusedWhenClosed) {
    std::string path = fmt::format("/tmp/qor-record-{}", getpid());
    const int next = dup(0);
    close(next);
    PartFile file(path);
    file.Write("whole");
    close(next);
    EXPECT_THROW(file.Close(), WriteFailure);
    unlink(path.c_str());
}

// An agent with three threads, of which a poll with stacks shows the first. A stack takes it 0.9 s.
TEST(Sampler, CompletesWhatWasCut) {
    std::string stacks_asked;
    const auto agent = [&](const std::string &request) {
        const auto row = [](const std::string &id) {
            return "t-" + id + "~^~^~^~77-" + id + "~a.B->c~B.java~12~Runnable";
        };
        const auto details = [&](const std::string &id) {
            return "Thread Info Details;" + row(id) + "!Call Stack;a.B->c~B.java~12~1~0~9~^~^";
        };
        if (request == "1305|showstack|32768")
            return Wire(details("1"));
        if (size_t at = request.find("ARG=x,1=77-"); at != request.npos) {
            const std::string id = request.substr(at + 11);
            stacks_asked += id;
            return Wire(details(id) + "!Time spent in JVM for processing request;900000 usec!");
        }
        if (request.find("showstack") == request.npos)
            return std::string("walk=3 leftout=0 handquota=5 cut=0");
        return Wire("JVM Active Threads;a~" + row("1") + ";a~" + row("2") + ";a~" + row("3") + ";!" + TIMING);
    };
    Sampler sampler(77);
    for (const auto &[budget_ms, missing] : {std::pair(0, 2), {500, 1}, {500, 1}, {5000, 0}}) {
        const TakenSample sample = sampler.Take(agent, std::chrono::milliseconds(budget_ms));
        EXPECT_EQ(sample.threads.threads.size(), 3u);
        EXPECT_EQ(sample.missing, missing);
    }
    EXPECT_EQ(stacks_asked, "2323"); // another one each time
}

TEST(ThreadFormats, KeepTheirFormWhateverTheNames) {
    TakenSample taken;
    taken.number = 1;
    Thread &thread = taken.threads.threads.emplace_back();
    thread.name = "a \"b\"\n#9";
    thread.key = {77, 1};
    Frame &frame = thread.stack.emplace_back();
    frame.class_name = "a; b";
    frame.method = "handle";
    std::string text = MetaLine({}, {1, 1000, "17", "Main", "1"}) + "\n";
    for (const std::string &line : PartLines().Sample({}, taken))
        text += line + "\n";
    text += "{\"type\":\"sample\",\"n\":2,\"threads\":[{"; // cut
    auto source = [&](const auto &use) {                   // in two pieces
        use(std::string_view(text).substr(0, 99));
        use(std::string_view(text).substr(99));
    };
    EXPECT_EQ(FoldedText(ReadRecording(source)), "a:_b.handle 1\n");
    const OneSample sample = ReadSample(source, 1);
    ExpectParts(JstackText(sample.threads, sample.time, sample.java_version),
                {"Java 17:\n", "\"a 'b'\\x0a#9\" #1 ", "\tat a; b.handle("});
    EXPECT_THROW(ReadSample(source, 2), Failure);
    text.erase(0, text.find('\n') + 1);
    EXPECT_THROW(ReadRecording(source), Failure);
}

} // namespace
