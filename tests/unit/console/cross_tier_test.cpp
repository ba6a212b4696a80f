// What replies report of other tiers: text added after a record, addresses, connections, ports and sessions.
#include "show/connections.h"
#include "show/json.h"
#include "show/render.h"
#include "show/render_tiers.h"
#include "show/unknown_products.h"
#include "wire.h"
#include "wire/cross_tier.h"
#include "wire/records.h"
#include "wire/request.h"

using namespace qorctl;

namespace {

const std::string DB_BLOCK = "DB Wait{10}jdbc:x~scott~40001~1521~127.0.0.1~1700000000~-5~select 1~"
                             "DEEPDIVE_TESSAR_DB~^";

std::string Row(const std::string &thread, const std::string &state) {
    return "a~t" + thread + "~^~^~^~1-" + thread + "~A->b~A.java~3~" + state + ";";
}

ThreadSample Rows(const std::string &rows) {
    return Threads("JVM Active Threads;" + rows + "!" + TIMING);
}

TEST(EndToEnd, ComesAfterEveryFormOfRecord) {
    ThreadSample sample = Rows(Row("1", "*Runnable" + ADDED) + Row("2", DB_BLOCK + ADDED) +
                               Row("3", "RMI Wait{&7~1099~-63.-87.-254.-251~ejb" + ADDED) +
                               Row("4", "Lock~^~") + Row("5", "Lock"));
    ASSERT_EQ(sample.threads.size(), 5u);
    EXPECT_FALSE(sample.cut);
    Json json = ToJson(sample)["threads"];
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(sample.threads[i].end_to_end.texts, std::vector<std::string>{"own|text"}) << i;
        EXPECT_EQ(json[i]["file"], "/tmp/a b=c") << i;
        EXPECT_EQ(json[i]["peer"], "10.0.0.1:25") << i;
        EXPECT_EQ(json[i]["rule"], "read") << i;
        EXPECT_EQ(json[i]["server"].dump(),
                  R"({"application":"shop","module":"cart","work_manager":"wm","session":"s1",)"
                  R"("stuck":false,"hogger":true})");
    }
    EXPECT_EQ(sample.threads[1].db->type, "DEEPDIVE_TESSAR_DB");
    EXPECT_EQ(sample.threads[2].rmi->jndi_name, "ejb");
    EXPECT_EQ(sample.threads[2].rmi->remote_host, "192.168.1.5");
    for (size_t i : {3, 4})
        EXPECT_FALSE(json[i].contains("server") || json[i].contains("rule") ||
                     !sample.threads[i].end_to_end.texts.empty());
    for (const char *text : {"cpu=1 alloc=", "cpu", "cpu=1.5", "=1", "cpu=99999999999999999999"}) {
        sample = Rows(Row("1", std::string("Runnable~") + text)); // figures of another form are texts
        EXPECT_EQ(sample.threads[0].end_to_end.texts, std::vector<std::string>{text});
    }
}

TEST(Render, ThreadsOfOtherTiers) {
    ThreadSample sample =
        Rows("a~web~^~/shop/cart~^~1-1~A->b~A.java~3~Runnable;" + Row("2", DB_BLOCK + ADDED));
    ExpectParts(
        ThreadTable(sample, Style()),
        {"  1.20 s     70.0 M              /tmp/a b=c  10.0.0.1:25  application shop, module cart, work "
         "manager wm, session s1, hogging  own|text  scott@127.0.0.1:1521 from :40001  jdbc:x  select 1\n"});
    ExpectParts(ThreadDump(sample, Style()),
                {"   request: /shop/cart\n", "   database: scott@127.0.0.1:1521 from :40001\n",
                 "   url: jdbc:x\n", "   sql: select 1\n", "   file: /tmp/a b=c\n",
                 "   so far: 1.20 s processor time, 70.0 M allocated\n"});
}

TEST(Frameworks, ObjectsAreNoFrames) {
    ThreadSample sample = Threads(
        "Thread Info Details;n~^~^~^~1-2~EL_Exp->a->b~EL_Exp~0~Lock!Call Stack;a.B->c~B.java~4~2~0~9~^~^"
        ";EL_Exp->a->b~El_Exp~0~;View_Object->d~V.java~4~2~1~8~^~^!JVM Locks;5~0~a.L@5~-1;!" +
        TIMING);
    const std::vector<Frame> &frames = sample.threads.at(0).stack;
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_TRUE(!frames[0].framework && frames[1].framework && !frames[2].framework);
    EXPECT_EQ(frames[1].method, "a->b");
    EXPECT_TRUE(ToJson(sample)["threads"][0]["stack"][1]["index"].is_null());
    ExpectParts(ThreadDump(sample, Style()), {"by a frame that isn't known"});

    const std::string dump =
        ThreadDump(Stack("Thread Info Details;n~^~ ~ ~1-2~View_Object->Orders~V.java~0~Lock!Call Stack;"
                         "user~2~0~9~2~3~a.B->c~B.java~4;user~2~7~0~2~3~View_Object->Orders~V.java~0;"
                         "sys~2~7~8~2~3~a.B->d~B.java~5;!JVM Locks;0~0~a.L@5~7;!" +
                         TIMING),
                   Style());
    ExpectParts(dump, {"\tat View_Object.Orders(V.java)\n\tat a.B.d(B.java:5)\n\t- locked"});
    EXPECT_EQ(dump.find("- locked"), dump.rfind("- locked"));
}

TEST(Connections, OneRowForASocket) {
    const std::string empty = "DB Wait{10}^~^~0~0~^~0~0~^~^~^",
                      no_socket = "DB Wait{10}jdbc:y~sa~0~0~^~0~0~^~^~^";
    EXPECT_EQ(AddressText("::1", 1521), "[::1]:1521");
    ThreadSample sample = Rows(Row("1", DB_BLOCK) + Row("2", empty) + Row("3", no_socket) +
                               Row("4", DB_BLOCK) + Row("5", no_socket) + Row("6", "Runnable"));
    std::vector<DbConnection> connections = FindConnections(sample);
    EXPECT_EQ(ConnectionTable(connections, Style()),
              "CLIENT PORT  SERVER          USER   DATABASE  URL     THREADS       SQL\n"
              "      40001  127.0.0.1:1521  scott  x         jdbc:x  t1 #1, t4 #4  select 1\n"
              "          -  -               sa     y         jdbc:y  t3 #3\n"
              "          -  -               sa     y         jdbc:y  t5 #5\n");
}

TEST(Connections, TheDatabaseIsNamedByTheUrl) {
    const char *const rows[][2] = {{"jdbc:postgresql://h:5432/shop?ssl=true", "shop"},
                                   {"jdbc:tessar:thin:@h:1521:SHOP", "SHOP"},
                                   {"jdbc:x:y?databaseNames=a&database=shop", "shop"},
                                   {"jdbc:tessar:thin:@(ADDRESS=(HOST=h))(SERVICE_NAME=shop)))", "shop"},
                                   {"jdbc:db2://h:50000/SHOP:retrieveMessages=true", "SHOP"},
                                   {"jdbc:h2:mem:shop;MODE=x", "shop"},
                                   {"jdbc:h2:tcp://h/mem:shop", "mem:shop"},
                                   {"jdbc:postgresql://h", ""}};
    for (const auto &row : rows)
        EXPECT_EQ(DatabaseName(row[0]), row[1]) << row[0];
}

// Calls from the top of the stack, "class.method" with blanks between.
Thread InCalls(const std::string &state, const std::string &calls) {
    Thread thread;
    thread.state = state;
    for (std::string_view call : Split(calls, ' ')) {
        Frame &frame = thread.stack.emplace_back();
        frame.class_name = call.substr(0, call.rfind('.'));
        frame.method = call.substr(call.rfind('.') + 1);
    }
    return thread;
}

TEST(UnknownProducts, NeedEvidence) {
    const std::string socket = "sun.nio.ch.Net.poll java.net.Socket$SocketInputStream.read ";
    const std::string query = "a.b.c.Wire.get java.util.F.call a.b.d.PStatementImpl.executeQuery x.Y.z";
    const std::string served = "x.Y.z javax.servlet.http.HttpServlet.service ",
                      caller = "d.e.f.g.Chain.doFilter";
    const std::tuple<const char *, std::string, std::string, std::string> rows[] = {
        {"Network Wait", socket + query, "frame web a.b.c.Wire get\nobject db La/b/c/Wire;\n",
         "1 thread waits in a.b.d.*: no rule"},
        {"Network Wait", socket + query, "  frame  db  a.b.d.PStatementImpl  *",
         "1 thread waits in a.b.d.*: a rule without state"},
        {"Network Wait", socket + query, "state db a.b.", ""},
        {"Lock", served + caller, "frame web javax.servlet.http.HttpServlet *",
         "1 thread serves a request in d.e.f.*: no rule"},
    };
    for (const auto &[state, calls, rules, hint] : rows) {
        ThreadSample sample;
        sample.threads.push_back(InCalls(state, calls));
        EXPECT_EQ(UnknownProductsText(FindUnknownProducts(sample, rules)),
                  hint.empty() ? "" : hint + "; see docs/cross-tier.md\n")
            << state << " " << calls << " " << rules;
    }
}

TEST(Sessions, PairsOfAReply) {
    const std::vector<DbSession> sessions = DecodeSessions(OpenReply("1234,50021,1240,50022,|"));
    EXPECT_EQ(sessions.at(1).process, 1240);
    EXPECT_EQ(sessions[1].client_port, 50022u);
    EXPECT_TRUE(DecodeSessions(OpenReply("|" + Wire(TIMING))).empty());
    for (const char *wrong : {"", "1234,50021,", "1234,|", "12x,1,|", "ERROR: Could not resolve localhost\n"})
        EXPECT_THROW(DecodeSessions(OpenReply(wrong)), Failure) << wrong;
}

} // namespace
