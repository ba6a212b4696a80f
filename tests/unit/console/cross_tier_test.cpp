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

TEST(EndToEnd, ComesAfterEveryFormOfRecord) {
    ThreadSample sample =
        Rows(Row("1", "*Runnable" + ADDED) + Row("2", DB_BLOCK + ADDED) +
             Row("3", "RMI Wait{&7~1099~-63.-87.-254.-251~ejb" + ADDED) + Row("4", "Lock~^~"));
    EXPECT_FALSE(sample.cut);
    Json json = ToJson(sample)["threads"];
    ASSERT_EQ(json.size(), 4u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(sample.threads[i].end_to_end.texts, std::vector<std::string>{"own|text"}) << i;
        EXPECT_EQ(json[i]["file"], "/tmp/a b=c") << i;
        EXPECT_EQ(json[i]["peer"], "10.0.0.1:25") << i;
        EXPECT_EQ(json[i]["rule"], "read") << i;
        EXPECT_EQ(json[i]["server"].dump(),
                  R"({"application":"shop","module":"cart","work_manager":"wm","session":"s1",)"
                  R"("stuck":false,"hogger":true})");
    }
    EXPECT_EQ(sample.threads[2].rmi->remote_host, "192.168.1.5");
    EXPECT_FALSE(json[3].contains("server") || !sample.threads[3].end_to_end.texts.empty());
    for (const char *text :
         {"cpu=1 alloc=", "cpu=99999999999999999999"}) { // figures of another form are texts
        sample = Rows(Row("1", std::string("Runnable~") + text));
        EXPECT_EQ(sample.threads[0].end_to_end.texts, std::vector<std::string>{text});
    }
    sample = Rows(Row("2", DB_BLOCK + ADDED));
    ExpectParts(
        ThreadTable(sample, Style()),
        {"  1.20 s     70.0 M  /tmp/a b=c  10.0.0.1:25  application shop, module cart, work manager wm, "
         "session s1, hogging  own|text  scott@127.0.0.1:1521 from :40001  jdbc:x  select 1\n"});
    ExpectParts(ThreadDump(sample, Style()), {"   so far: 1.20 s processor time, 70.0 M allocated\n"});
}

TEST(Frameworks, ObjectsAreNoFrames) {
    const std::string dump =
        ThreadDump(Stack("Thread Info Details;n~^~^~^~1-2~EL_Exp->a->b~EL_Exp~0~Lock!Call Stack;"
                         "user~2~7~0~2~3~View_Object->Orders~V.java~0;"
                         "sys~2~7~8~2~3~a.B->d~B.java~5;!JVM Locks;0~0~a.L@5~7;!"),
                   Style());
    ExpectParts(dump, {"\n\tat View_Object.Orders(V.java)\n\tat a.B.d(B.java:5)\n\t- locked"});
}

TEST(Connections, OneRowForASocket) {
    const std::string no_socket = "DB Wait{10}jdbc:y~sa~0~0~^~0~0~^~^~^";
    EXPECT_EQ(AddressText("::1", 1521), "[::1]:1521");
    const ThreadSample sample = Rows(Row("1", DB_BLOCK) + Row("2", "DB Wait{10}^~^~0~0~^~0~0~^~^~^") +
                                     Row("3", no_socket) + Row("4", DB_BLOCK) + Row("5", no_socket));
    EXPECT_EQ(ConnectionTable(FindConnections(sample), Style()),
              "CLIENT PORT  SERVER          USER   DATABASE  URL     THREADS       SQL\n"
              "      40001  127.0.0.1:1521  scott  x         jdbc:x  t1 #1, t4 #4  select 1\n"
              "          -  -               sa     y         jdbc:y  t3 #3\n"
              "          -  -               sa     y         jdbc:y  t5 #5\n");
    const char *const names[][2] = {{"jdbc:postgresql://h:5432/shop?ssl=true", "shop"},
                                    {"jdbc:tessar:thin:@h:1521:SHOP", "SHOP"},
                                    {"jdbc:tessar:thin:@(ADDRESS=(HOST=h))(SERVICE_NAME=shop)))", "shop"},
                                    {"jdbc:db2://h:50000/SHOP:retrieveMessages=true", "SHOP"},
                                    {"jdbc:h2:tcp://h/mem:shop;MODE=x", "mem:shop"}};
    for (const auto &[url, name] : names)
        EXPECT_EQ(DatabaseName(url), name) << url;
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
    const std::string query = "java.net.Socket$SocketInputStream.read a.b.c.Wire.get java.util.F.call "
                              "a.b.d.PStatementImpl.executeQuery x.Y.z";
    const std::tuple<const char *, std::string, std::string, std::string> rows[] = {
        {"Network Wait", query, "frame web a.b.c.Wire get\nobject db La/b/c/Wire;\n",
         "waits in a.b.d.*: no rule"},
        {"Network Wait", query, "  frame  db  a.b.d.PStatementImpl  *",
         "waits in a.b.d.*: a rule without state"},
        {"Lock", "x.Y.z javax.servlet.http.HttpServlet.service d.e.f.g.Chain.doFilter",
         "frame web javax.servlet.http.HttpServlet *", "serves a request in d.e.f.*: no rule"},
    };
    for (const auto &[state, calls, rules, hint] : rows) {
        ThreadSample sample;
        sample.threads.push_back(InCalls(state, calls));
        EXPECT_EQ(UnknownProductsText(FindUnknownProducts(sample, rules)),
                  "1 thread " + hint + "; see docs/cross-tier.md\n");
    }
}

} // namespace
