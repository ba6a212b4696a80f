// The drivers' connections as the agent reads them, compared with the sockets that they are on.
#include "agent.h"
#include "objects.h"
#include "storm.h"

#include "jvmti/threads/ThreadSystem.h"
#include "platforms/own_address.h"
#include "qorutil/vm_heap.h"
#include "qorutil/vm_reader.h"
#include "sunprint/report/connection_list.h"
#include "sunprint/report/direct_connections.h"
#include "sunprint/report/jdbc_versions.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <random>

using namespace simvm;

namespace {

using Facts = std::map<std::string, std::string>;

void WithDrivers(const std::function<void(Scene &)> &body) {
    Options options;
    options.library = SIMVM_FOLDER "/server/libjvm.so";
    Boot(options);
    Scene scene;
    StageScene("drivers", &scene);
    Script main = MainScript();
    EmitScript(&main);
    RunHere("main", &main, [&] {
        ASSERT_EQ(StartAgent(), 0);
        body(scene);
        Ask("SHUTDOWN");
    });
    EndScene(&scene);
}

bool Find(const std::string &name, Word object, QorDatabaseBlock *block) {
    const QorDirectDriver driver = name == "new-connection"       ? DRIVER_CONNECTION
                                   : name == "wrapped"            ? DRIVER_FERRULE_STATEMENT
                                   : name == "wrapped-connection" ? DRIVER_FERRULE_CONNECTION
                                                                  : DRIVER_STATEMENT;
    tessar_thick_driver = name == "thick" || name.rfind("hole", 0) == 0;
    QorForgetPages();
    QorNoteSpaces();
    return QorFindDirectConnection(driver, object, name.c_str(), ("key of " + name).c_str(), block);
}

// What a row shows, as the facts of a scene have it.
Facts FactsOf(const QorDatabaseBlock &block) {
    char storage[8192];
    QorText text;
    QorTextStart(&text, storage, sizeof storage);
    QorAppendShortDatabaseBlock(&text, block);
    const std::vector<std::string> field = Split(storage + 1, 29);
    Facts facts = {{"url", field[0]},
                   {"user", field[1]},
                   {"local port", field[2]},
                   {"remote port", field[3]},
                   {"peer", field[4]}};
    if (field[6] != "0")
        facts["sql"] = Ask("525|NoProcessing|getJavaString|" + field[6]);
    return facts;
}

// What is to be shown of a thread; nothing when its socket isn't one.
Facts Wanted(const Runner &runner) {
    Facts facts = runner.script->facts;
    if (!facts.empty() && facts["peer"] == "127.0.0.1" && *OwnAddress(false) &&
        runner.info->name.rfind("wrapped", 0) != 0)
        facts["peer"] = OwnAddress(false);
    return facts;
}

void ExpectConnections(Scene &scene) {
    for (const Runner *runner : scene.runners) {
        const std::string &name = runner->info->name;
        Facts wanted = Wanted(*runner);
        QorDatabaseBlock block, again;
        const bool found = Find(name, scene.named[name]->address, &block);
        ASSERT_EQ(found, !wanted.empty()) << name;
        EXPECT_EQ(found ? FactsOf(block) : Facts(), wanted) << name;
        char storage[512];
        QorText text;
        QorTextStart(&text, storage, sizeof storage);
        EXPECT_EQ(QorThreadOfClientPort(atoi(wanted["local port"].c_str()), &text), found);
        EXPECT_EQ(std::string(storage), found ? std::string(name).append("|key of ").append(name) : "");
        EXPECT_EQ(QorKnownConnectionOf(name.c_str(), ("key of " + name).c_str(), &again), found);
        EXPECT_FALSE(QorKnownConnectionOf(name.c_str(), "another key", &again));
    }
}

QorDirectConnection *EntryOf(const std::string &name) {
    for (int i = 0; i < db_info_index; i++)
        if (DB_Info[i].threadName == name)
            return &DB_Info[i];
    return nullptr;
}

} // namespace

TEST(DirectConnections, EqualTheirSockets) {
    WithDrivers([](Scene &scene) {
        ExpectConnections(scene);
        const int known = db_info_index;
        Collect();
        ExpectConnections(scene);
        EXPECT_EQ(db_info_index, known); // each has moved and is the same one
        QorDatabaseBlock block;
        for (const auto &[name, object] : scene.named)
            EXPECT_FALSE(name.rfind("hole", 0) == 0 && Find(name, object->address, &block)) << name;
        for (Word address : {Word(0), Word(1), vm.heap, ~Word(7), scene.named["thin"]->address + 8})
            for (const char *name : {"thin", "new-connection", "wrapped", "wrapped-connection"})
                EXPECT_FALSE(Find(name, address, &block)) << address;
        // Another thread takes over a connection, and sees its own statement's text.
        Object *other =
            New("tessar/jdbc/driver/TessarStatement",
                {{"connection", Get(scene.named["thin"], "connection")}, {"sql_query", NewString("other")}});
        ASSERT_TRUE(Find("other", other->address, &block));
        EXPECT_EQ(FactsOf(block)["sql"], "other");
        EXPECT_EQ(EntryOf("thin"), nullptr);
        EXPECT_EQ(db_info_index, known);
    });
}

// What was kept before a collection doesn't count after it: an address is another connection's, a klass
// another class's.
TEST(DirectConnections, AreReadAnewAfterAMove) {
    WithDrivers([](Scene &scene) {
        ExpectConnections(scene);
        Collect();
        // Each is looked for before the entry's own.
        EntryOf("thick")->connection = Get(scene.named["thin"], "connection").object->address;
        EntryOf("wrapped-connection")->connection = Get(scene.named["wrapped"], "implConn").object->address;
        ASSERT_GT(num_jdbc_versions, 0);
        for (int i = 0; i < num_jdbc_versions; i++) {
            jdbc_versions[i].version = QorJdbcForm(1 - jdbc_versions[i].version);
            for (QorFieldCell &cell : jdbc_versions[i].fieldCache)
                cell.offset += 8;
        }
        ExpectConnections(scene);
        for (int i = 0; i < num_jdbc_versions; i++) // no collection, but another class of that address
            for (QorFieldCell &cell : jdbc_versions[i].fieldCache)
                cell = {cell.klass, cell.className + 8, 8};
        for (int i = 0; i < db_info_index; i++)
            DB_Info[i].connection = 0;
        ExpectConnections(scene);
    });
}

TEST(DirectConnections, AgeInTheOrderOfTheirComing) {
    QorDirectConnection read = {};
    QorText text;
    char storage[512];
    QorTextStart(&text, storage, sizeof storage);
    for (int i = 1; i <= 10000; i++) {
        read.localPort = i;
        insert_db_info(read);
        insert_db_info(read); // known
        EXPECT_EQ(db_info_index, std::min(i, 100));
        EXPECT_FALSE(QorThreadOfClientPort(i - 100, &text));
        EXPECT_TRUE(QorThreadOfClientPort(std::max(i - 99, 1), &text));
        QorTextCut(&text, 0);
    }
    QorDropConnectionList();
}

TEST(DirectConnections, SurviveSpoiltMemoryAndLeaveNothing) {
    WithDrivers([](Scene &scene) {
        ExpectConnections(scene);
        std::vector<std::pair<std::string, Object *>> starts(scene.named.begin(), scene.named.end());
        std::mt19937_64 random(7);
        const size_t bytes = mallinfo2().uordblks;
        for (int round = 0; round < 10000; round++) {
            // One word of any object, or of what objects are known by; then all as it was.
            const Object &any = vm.objects[random() % vm.objects.size()];
            Spoilt spoilt = {};
            if (round % 2)
                spoilt = Spoil(random(), {}, Self()->address);
            else if (any.address) {
                spoilt.address = any.address + random() % any.bytes / 8 * 8;
                spoilt.old = As<Word>(spoilt.address);
                const Word wild[] = {0, ~Word(0), random(), any.address, spoilt.old + 4, vm.heap};
                As<Word>(spoilt.address) = wild[random() % std::size(wild)];
            }
            const auto &[name, object] = starts[random() % starts.size()];
            QorDatabaseBlock block;
            Find(name, object->address, &block);
            if (spoilt.address)
                Mend(spoilt);
        }
        EXPECT_EQ(mallinfo2().uordblks, bytes);
        QorDropConnectionList(); // of what wasn't true
        QorDropJdbcVersions();
        ExpectConnections(scene);
        for (const char *value : {"0", "1", "x", "18446744073709551615", "-8"})
            EXPECT_EQ(Ask(std::string("525|NoProcessing|getJavaString|") + value),
                      "Given Oop is Invalid on this JVM.");
        const Word handle = reinterpret_cast<Word>(&scene.named["thin"]->address); // of no String
        EXPECT_EQ(Ask("525|NoProcessing|getJavaString|" + std::to_string(handle)),
                  "Given Oop is Invalid on this JVM.");
    });
}
