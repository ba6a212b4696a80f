// What replies tell of other tiers: text added behind a record, addresses, connections, ports and sessions.
#include "base/failure.h"
#include "show/connections.h"
#include "show/json.h"
#include "show/render.h"
#include "show/render_tiers.h"
#include "show/unknown_products.h"
#include "wire.h"
#include "wire/cross_tier.h"
#include "wire/decode.h"
#include "wire/protocol.h"
#include "wire/records.h"
#include "wire/request.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace qorctl;

namespace {

const std::string DB_BLOCK = "DB Wait{10}jdbc:x~scott~40001~1521~127.0.0.1~1700000000~-5~select 1~"
                             "DEEPDIVE_TESSAR_DB~^";
const std::string ADDED =
    "~cpu=1203400000 alloc=73400320 blocked=1~file=/tmp/a b=c~application=shop~module=cart"
    "~workmanager=wm~session=s1~stuck=0~hogger=1~peer=10.0.0.1:25~rule=read~own|text~";

std::string Row(const std::string &thread, const std::string &state) {
    return "a~t" + thread + "~^~^~^~1-" + thread + "~A->b~A.java~3~" + state + ";";
}

ThreadSample Threads(const std::string &rows) {
    std::string text = Wire("JVM Active Threads;" + rows + "!" + TIMING);
    return DecodeThreads(OpenReply(text));
}

TEST(EndToEnd, StandsBehindEveryFormOfRecord) {
    ThreadSample sample = Threads(Row("1", "*Runnable" + ADDED) + Row("2", DB_BLOCK + ADDED) +
                                  Row("3", "RMI Wait{&7~1099~-63.-87.-254.-251~ejb" + ADDED) +
                                  Row("4", "Lock~^~") + Row("5", "Lock"));
    ASSERT_EQ(sample.threads.size(), 5u);
    EXPECT_FALSE(sample.cut);
    for (size_t i = 0; i < 3; ++i) {
        const EndToEnd &told = sample.threads[i].end_to_end;
        EXPECT_EQ(told.cpu_nanoseconds, 1203400000) << i;
        EXPECT_EQ(told.allocated_bytes, 73400320) << i;
        EXPECT_EQ(told.file, "/tmp/a b=c") << i;
        EXPECT_EQ(told.application, "shop") << i;
        EXPECT_EQ(told.module, "cart") << i;
        EXPECT_EQ(told.work_manager, "wm") << i;
        EXPECT_EQ(told.session, "s1") << i;
        EXPECT_EQ(told.stuck, 0) << i;
        EXPECT_EQ(told.hogger, 1) << i;
        EXPECT_EQ(told.peer, "10.0.0.1:25") << i;
        EXPECT_EQ(told.texts, std::vector<std::string>{"own|text"}) << i;
    }
    EXPECT_EQ(sample.threads[0].state, "Runnable");
    EXPECT_EQ(sample.threads[1].db->sql, "select 1");
    EXPECT_EQ(sample.threads[1].db->type, "DEEPDIVE_TESSAR_DB");
    EXPECT_EQ(sample.threads[2].rmi->jndi_name, "ejb");
    EXPECT_EQ(sample.threads[2].rmi->remote_host, "192.168.1.5");
    EXPECT_FALSE(sample.threads[3].end_to_end.cpu_nanoseconds);
    EXPECT_TRUE(sample.threads[3].end_to_end.texts.empty());
    Json json = ToJson(sample)["threads"][1];
    EXPECT_EQ(json["cpu_nanoseconds"], 1203400000);
    EXPECT_EQ(json["server"]["stuck"], false);
    EXPECT_EQ(json["rule"], "read");
    EXPECT_EQ(json["server"]["hogger"], true);
    for (const char *key : {"server", "rule"})
        EXPECT_FALSE(ToJson(sample)["threads"][4].contains(key));
}

TEST(EndToEnd, FiguresOfAnotherFormAreTexts) {
    for (const char *text :
         {"cpu=1 alloc=", "cpu", "cpu=1.5", "=1", "cpu=1  alloc=2", "cpu=99999999999999999999"}) {
        ThreadSample sample = Threads(Row("1", std::string("Runnable~") + text));
        EXPECT_FALSE(sample.threads[0].end_to_end.cpu_nanoseconds) << text;
        EXPECT_EQ(sample.threads[0].end_to_end.texts, std::vector<std::string>{text});
    }
}

// The record of the details ends at its section, a cut one is left out and told.
TEST(EndToEnd, InDetailsAndCutAnywhere) {
    std::string whole = "Thread Info Details;" + DETAILS_ROW + ADDED + "!" + STACK + "!Thread Info Details;" +
                        DETAILS_ROW + ADDED + "!";
    for (size_t length = 1; length <= whole.size(); ++length) {
        std::string text = Wire(whole.substr(0, length));
        ThreadSample sample = DecodeThreads(OpenReply(text));
        EXPECT_TRUE(sample.cut || text.back() == SECTION_END) << length;
        for (const Thread &thread : sample.threads)
            EXPECT_EQ(thread.end_to_end.peer, "10.0.0.1:25") << length;
        EXPECT_EQ(sample.threads.size(), size_t(std::count(text.begin(), text.end(), SECTION_END) + 1) / 2)
            << length;
    }
}

TEST(TrueAddress, SignedPartsBecomeBytes) {
    const char *rows[][2] = {
        {"10.1.2.3", "10.1.2.3"},    {"-63.-87.-254.-251", "192.168.1.5"},
        {"-1.0.0.0", "255.0.0.0"},   {"0.0.0.-1", "255.255.255.255"},
        {"-128.0.0.0", "128.0.0.0"}, {"db.host.at.home", "db.host.at.home"},
        {"1.2.3", "1.2.3"},          {"1.2.3.256", "1.2.3.256"},
    };
    for (auto &row : rows)
        EXPECT_EQ(TrueAddress(row[0]), row[1]);
}

TEST(Render, ThreadsOfOtherTiers) {
    ThreadSample sample =
        Threads("a~web~^~/shop/cart~^~1-1~A->b~A.java~3~Runnable;" + Row("2", DB_BLOCK + ADDED));
    std::string wide = ThreadTable(sample, Style());
    EXPECT_NE(wide.find("CPU  ALLOCATED  REQUEST     FILE        REMOTE       SERVER "), wide.npos) << wide;
    EXPECT_NE(wide.find("  A.b(A.java:3)                     /shop/cart\n"), wide.npos) << wide;
    EXPECT_NE(
        wide.find(
            "  1.20 s     70.0 M              /tmp/a b=c  10.0.0.1:25  application shop, module cart, work "
            "manager wm, session s1, hogging  own|text  scott@127.0.0.1:1521 from :40001  jdbc:x  "
            "select 1\n"),
        wide.npos)
        << wide;
    Style narrow;
    narrow.width = 80;
    std::string table = ThreadTable(sample, narrow);
    EXPECT_EQ(table.find("CPU"), table.npos) << table;
    for (size_t at = 0; at < table.size(); at = table.find('\n', at) + 1)
        EXPECT_LE(DisplayWidth(table.substr(at, table.find('\n', at) - at)), 80u) << table;
    std::string dump = ThreadDump(sample, Style());
    for (const char *line : {"   request: /shop/cart\n", "   database: scott@127.0.0.1:1521 from :40001\n",
                             "   url: jdbc:x\n", "   sql: select 1\n", "   file: /tmp/a b=c\n",
                             "   so far: 1.20 s processor time, 70.0 M allocated\n"})
        EXPECT_NE(dump.find(line), dump.npos) << line << dump;
    narrow.width = 12;
    EXPECT_NE(ThreadDump(sample, narrow).find("   sql: sel\xe2\x80\xa6\n"), std::string::npos);
}

// What a framework works on stands for the current call and as a row of its own among those of the stack.
TEST(Frameworks, ObjectsAreNoFrames) {
    std::string details = Wire("Thread Info Details;n~^~^~^~1-2~EL_Exp->a->b~EL_Exp~0~Lock!Call Stack"
                               ";a.B->c~B.java~4~2~0~9~^~^;EL_Exp->a->b~El_Exp~0~"
                               ";View_Object->d~V.java~4~2~1~8~^~^!JVM Locks;5~0~a.L@5~-1;!" +
                               TIMING);
    ThreadSample sample = DecodeThreads(OpenReply(details));
    ASSERT_EQ(sample.threads.size(), 1u);
    const Thread &thread = sample.threads[0];
    EXPECT_EQ(thread.call->class_name, "EL_Exp");
    EXPECT_EQ(thread.call->method, "a->b");
    ASSERT_EQ(thread.stack.size(), 3u);
    EXPECT_FALSE(thread.stack[0].framework || thread.stack[2].framework);
    EXPECT_TRUE(thread.stack[1].framework);
    EXPECT_EQ(thread.stack[1].method, "a->b");
    EXPECT_TRUE(ToJson(sample)["threads"][0]["stack"][1]["index"].is_null());
    EXPECT_NE(ThreadDump(sample, Style()).find("by a frame that isn't known"), std::string::npos);

    std::string stack = Wire("Thread Info Details;n~^~ ~ ~1-2~View_Object->Orders~V.java~0~Lock!Call Stack;"
                             "user~2~0~9~2~3~a.B->c~B.java~4;user~2~7~0~2~3~View_Object->Orders~V.java~0;"
                             "sys~2~7~8~2~3~a.B->d~B.java~5;!JVM Locks;0~0~a.L@5~7;!" +
                             TIMING);
    sample = DecodeStack(OpenReply(stack));
    ASSERT_EQ(sample.threads[0].stack.size(), 3u);
    EXPECT_TRUE(sample.threads[0].stack[1].framework);
    std::string dump = ThreadDump(sample, Style());
    EXPECT_NE(dump.find("\tat View_Object.Orders(V.java)\n\tat a.B.d(B.java:5)\n\t- locked"), dump.npos)
        << dump;
    EXPECT_EQ(dump.find("- locked"), dump.rfind("- locked"));
    EXPECT_EQ(StackNotes(sample).find("2 frames"), 0u);
}

// Of the poll's view of a thread, what goes with another state is left aside.
TEST(TakeTiers, CallsGoWithTheState) {
    Thread poll = Threads(Row("1", DB_BLOCK + ADDED)).threads[0];
    poll.request_url = "/shop";
    for (const char *state : {"DB Wait", "Runnable"}) {
        Thread thread;
        thread.state = state;
        TakeTiers(poll, &thread);
        EXPECT_EQ(thread.db.has_value(), thread.state == "DB Wait");
        EXPECT_EQ(thread.request_url, "/shop");
        EXPECT_EQ(thread.end_to_end.file, "/tmp/a b=c");
    }
}

TEST(Connections, OneRowForASocket) {
    const std::string empty = "DB Wait{10}^~^~0~0~^~0~0~^~^~^";
    EXPECT_EQ(AddressText("::1", 1521), "[::1]:1521");
    const std::string no_socket = "DB Wait{10}jdbc:y~sa~0~0~^~0~0~^~^~^";
    ThreadSample sample = Threads(Row("1", DB_BLOCK) + Row("2", empty) + Row("3", no_socket) +
                                  Row("4", DB_BLOCK) + Row("5", no_socket) + Row("6", "Runnable"));
    std::vector<DbConnection> connections = FindConnections(sample);
    ASSERT_EQ(connections.size(), 3u);
    EXPECT_EQ(ConnectionTable(connections, Style()),
              "CLIENT PORT  SERVER          USER   DATABASE  URL     THREADS       SQL\n"
              "      40001  127.0.0.1:1521  scott  x         jdbc:x  t1 #1, t4 #4  select 1\n"
              "          -  -               sa     y         jdbc:y  t3 #3\n"
              "          -  -               sa     y         jdbc:y  t5 #5\n");
    const char *const databases[][2] = {{"jdbc:postgresql://h:5432/shop?ssl=true", "shop"},
                                        {"jdbc:sqlserver://h:1433;databaseName=shop;encrypt=true", "shop"},
                                        {"jdbc:tessar:thin:@h:1521:SHOP", "SHOP"},
                                        {"jdbc:sqlserver://h;encrypt=true;DatabaseName=shop", "shop"},
                                        {"jdbc:x:y?databaseNames=a&database=shop", "shop"},
                                        {"jdbc:tessar:thin:@h:1521/shop", "shop"},
                                        {"jdbc:tessar:thin:@//h:1521/shop", "shop"},
                                        {"jdbc:tessar:thin:@alias", "alias"},
                                        {"jdbc:tessar:thin:@(ADDRESS=(HOST=h))(SERVICE_NAME=shop)))", "shop"},
                                        {"jdbc:db2://h:50000/SHOP:retrieveMessages=true", "SHOP"},
                                        {"jdbc:h2:mem:shop;MODE=x", "shop"},
                                        {"jdbc:h2:tcp://h/mem:shop", "mem:shop"},
                                        {"jdbc:sqlite:/var/shop.db", "/var/shop.db"},
                                        {"jdbc:sqlite::memory:", ":memory:"},
                                        {"jdbc:derby:memory:shop;create=true", "shop"},
                                        {"jdbc:postgresql://h", ""},
                                        {"", ""}};
    for (const auto &row : databases)
        EXPECT_EQ(DatabaseName(row[0]), row[1]) << row[0];
    Json json = ConnectionsJson(connections, sample);
    EXPECT_EQ(json["connections"][0]["threads"].size(), 2u);
    EXPECT_EQ(json["connections"][0]["threads"][1]["key"], "1-4");
    EXPECT_EQ(json["connections"][0]["threads"][0]["sql"], "select 1");
    EXPECT_EQ(json["connections"][0]["local_port"], 40001);
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
    const std::string call =
        socket + "a.b.c.Wire.get java.util.F.call a.b.d.PStatementImpl.executeQuery x.Y.z";
    const std::string served = "x.Y.z javax.servlet.http.HttpServlet.service ",
                      caller = "d.e.f.g.Chain.doFilter";
    const struct {
        const char *state;
        std::string calls, rules, hint;
    } rows[] = {
        {"Network Wait", call, "frame web a.b.c.Wire get\nobject db La/b/c/Wire;\n",
         "1 thread waits in a.b.d.*"},
        {"DB Wait", call, "", ""},
        {"Network Wait", call, "  frame  db  a.b.d.PStatementImpl  *", "1 thread waits in a.b.d.*"},
        {"Network Wait", call, "state db a.b.", ""},
        {"Network Wait", call.substr(socket.size()), "", ""},
        {"Network Wait", "sun.nio.ch.EPoll.wait " + call.substr(socket.size()), "", ""},
        {"Network Wait", socket + "a.b.c.Connection.isValid x.Y.z", "", ""},
        {"Network Wait", socket + "Connection.commit", "", ""},
        {"Network Wait", socket + "a.h.Client.get a.b.d.PStatementImpl.executeQuery", "", ""},
        {"Network Wait", socket + "a.b.D.read", "", ""},
        {"Lock", served + caller, "frame web javax.servlet.http.HttpServlet *",
         "1 thread serves a request in d.e.f.*"},
        {"Lock", served + caller, "frame web d.e.f.g.Chain doFilter", ""},
        {"Lock", served + "org.apache.catalina.core.Chain.doFilter", "", ""},
        {"Lock", served.substr(0, served.size() - 1), "", ""},
    };
    for (const auto &row : rows) {
        ThreadSample sample;
        sample.threads.push_back(InCalls(row.state, row.calls));
        std::string end = row.hint.empty()      ? ""
                          : row.rules[0] == ' ' ? ": a rule without state"
                                                : ": no rule";
        end += row.hint.empty() ? "" : "; see docs/cross-tier.md\n";
        EXPECT_EQ(UnknownProductsText(FindUnknownProducts(sample, row.rules)), row.hint + end)
            << row.state << " " << row.calls << " " << row.rules;
        sample.threads[0].request_url = "/x";
        EXPECT_EQ(FindUnknownProducts(sample, "").size(), row.state == rows[0].state && row.calls == call);
    }
}

TEST(Connections, HolderOfAPort) {
    EXPECT_EQ(PortHolderRequest(40001), "521|showstack|16384|ARG=x,0=40001");
    std::optional<PortHolder> holder = DecodePortHolder(OpenReply("pool|1|77-23"));
    ASSERT_TRUE(holder);
    EXPECT_EQ(holder->name, "pool|1");
    EXPECT_EQ(holder->key.Text(), "77-23");
    EXPECT_EQ(PortHolderText(*holder, 40001), "client port 40001 was last seen at \"pool|1\" #23\n");
    ThreadSample sample = Threads(Row("1", "Runnable") + Row("4", DB_BLOCK));
    EXPECT_FALSE(FindPortHolder(sample, 40002));
    ASSERT_TRUE(FindPortHolder(sample, 40001));
    EXPECT_EQ(PortHolderText(*FindPortHolder(sample, 40001), 40001),
              "client port 40001 is that of \"t4\" #4\n");
    EXPECT_FALSE(DecodePortHolder(OpenReply("Client Port not found on JVM")));
    for (const char *wrong : {"", "pool", "pool|77"})
        EXPECT_THROW(DecodePortHolder(OpenReply(wrong)), Failure) << wrong;
}

TEST(Sessions, PairsOfAReply) {
    EXPECT_EQ(SessionsRequest(5432, "10.0.0.1", "1234,1240"), "521|xtier01|5432|10.0.0.1|1234,1240");
    for (const std::string &tail : {std::string(), Wire(TIMING)}) {
        std::string reply = "1234,50021,1240,50022,|" + tail;
        std::vector<DbSession> sessions = DecodeSessions(OpenReply(reply));
        ASSERT_EQ(sessions.size(), 2u);
        EXPECT_EQ(sessions[1].process, 1240);
        EXPECT_EQ(sessions[1].client_port, 50022u);
        EXPECT_TRUE(DecodeSessions(OpenReply("|" + tail)).empty());
    }
    for (const char *wrong :
         {"", "1234,50021,", "1234,|", "1234,50021,12|", "12x,1,|", "ERROR: Could not resolve localhost\n",
          "ERROR Invalid parameters x for xtier01"})
        EXPECT_THROW(DecodeSessions(OpenReply(wrong)), Failure) << wrong;
}

TEST(Sessions, ListsFitTheAgentsBuffer) {
    std::vector<int64_t> processes;
    for (int64_t process = 4000000; process < 4004000; ++process)
        processes.push_back(process);
    std::vector<std::string> batches = BatchProcesses(processes);
    std::string all;
    for (const std::string &batch : batches) {
        EXPECT_LT(batch.size(), 10239u);
        EXPECT_NO_THROW(CheckRequest(SessionsRequest(65535, "255.255.255.255", batch)));
        all += batch + ",";
    }
    EXPECT_EQ(all.size(), processes.size() * 8);
    EXPECT_EQ(batches.size(), 4u);
    EXPECT_EQ(all.substr(all.size() - 8), "4003999,");
}

} // namespace
