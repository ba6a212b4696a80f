#include "JvmFixture.h"
#include "LogCapture.h"
#include "ModelObjects.h"
#include "Xtier/tiers/XtierCalls.h"
#include "jvmti/JniCalls.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using CallReaders = SessionTest;

constexpr char RESPONSE[] = "Lferrule/rjvm/ResponseImpl;";
constexpr char REFERENCE[] = "Lferrule/rmi/cluster/ClusterableRemoteRef;";
constexpr char DESCRIPTOR[] = "Ljava/io/FileDescriptor;";
constexpr char REQUEST[] = "Lferrule/servlet/internal/ServletRequestImpl;";
constexpr char EXECUTE_THREAD[] = "Lferrule/work/ExecuteThread;";

template <typename... Args>
jobject construct(const char *className, const char *signature, Args... args) {
    jclass klass = Env()->FindClass(className);
    jobject object = Env()->NewObject(klass, Env()->GetMethodID(klass, "<init>", signature), args...);
    EXPECT_FALSE(Env()->ExceptionCheck()) << className;
    return object;
}

jobject makeResponse(int id, int port, jobject address) {
    jobject response = MakeObject("ferrule/rjvm/ResponseImpl");
    Plant(response, "id,I", std::to_string(id));
    const std::string channel = "rjvm,Lferrule/rjvm/RJVM;|remoteChannel,Lferrule/rmi/spi/Channel;|";
    Plant(response, channel + "port,I", std::to_string(port));
    PlantObject(response, channel + "address,Ljava/net/InetSocketAddress;", address);
    return response;
}

QorRmiCallData readRmi(const char *signature, jobject object) {
    const ModelEntry entry(LOCAL_RMI_CALL, signature, object);
    QorRmiCallData record;
    QorClearRmiCallData(&record);
    EXPECT_EQ(QorGetRmiCallDataFromLocalVariable(&entry, &record), 0);
    return record;
}

QorIOCallData readFile(const char *signature, jobject object) {
    const ModelEntry entry(LOCAL_FILE_CALL, signature, object);
    QorIOCallData record;
    QorClearIOCallData(&record);
    EXPECT_EQ(QorGetIOCallDataFromLocalVariable(&entry, &record), 0);
    return record;
}

jobject makeDescriptor(int fd) {
    jobject descriptor = MakeObject("java/io/FileDescriptor");
    Plant(descriptor, "fd,I", std::to_string(fd));
    return descriptor;
}

struct OpenFile {
    explicit OpenFile(const std::string &name) : fd(open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {}
    ~OpenFile() { close(fd); }
    int fd;
};

// A directory of its own, entered for the length of a test.
struct Workplace {
    Workplace() {
        char name[] = "/tmp/call-readers-XXXXXX";
        path = mkdtemp(name);
        EXPECT_EQ(chdir(path.c_str()), 0);
    }
    ~Workplace() {
        EXPECT_EQ(chdir("/"), 0);
        EXPECT_EQ(system(("rm -rf " + path).c_str()), 0);
    }
    std::string path;
};

QorAppServerCallData readServer(const ModelEntry &entry) {
    QorAppServerCallData record;
    QorClearAppServerCallData(&record);
    EXPECT_EQ(QorGetAppServerCallDataFromLocalVariable(&entry, &record), 0);
    return record;
}

} // namespace

TEST_F(CallReaders, TellTheRemotePeer) {
    const struct {
        const char *address, *host;
    } ROWS[] = {
        {"127.0.0.1", "127.0.0.1"},
        {"10.1.2.3", "10.1.2.3"},
        {"0.0.0.7", "0.0.0.7"},
        {"127.255.255.255", "127.255.255.255"},
        // Signed parts, from which the console gets the address back.
        {"192.168.1.5", "-63.-87.-254.-251"},
        {"128.0.0.0", "-128.0.0.0"},
        {"255.255.255.255", "0.0.0.-1"},
        {"0.0.0.0", ""},
        {"::1", ""},
        {"2001:db8::5", ""},
    };
    for (const auto &row : ROWS) {
        QorLocalFrame references(Env(), 32);
        jobject address =
            construct("java/net/InetSocketAddress", "(Ljava/lang/String;I)V", Text(row.address), 7001);
        const QorRmiCallData record = readRmi(RESPONSE, makeResponse(42, 7001, address));
        EXPECT_STREQ(record.host, row.host) << row.address;
        EXPECT_EQ(record.callId, 42);
        EXPECT_EQ(record.port, 7001);
        EXPECT_STREQ(record.jndiName, "");
    }
    // The holder is known by now, so nothing is looked for where it isn't.
    LogCapture log(1);
    jobject address = construct("java/net/InetSocketAddress", "(Ljava/lang/String;I)V", Text("10.0.0.1"), 1);
    EXPECT_STREQ(readRmi(RESPONSE, makeResponse(1, 1, address)).host, "10.0.0.1");
    EXPECT_EQ(log.text(), "");

    jobject unresolved =
        CallObject("java/net/InetSocketAddress", "createUnresolved",
                   "(Ljava/lang/String;I)Ljava/net/InetSocketAddress;", Text("nowhere.invalid"), 1);
    EXPECT_STREQ(readRmi(RESPONSE, makeResponse(1, 1, unresolved)).host, "");
}

TEST_F(CallReaders, TellTheRemoteName) {
    for (const std::string &value : TrialValues()) {
        QorLocalFrame references(Env(), 32);
        jobject reference = MakeObject("ferrule/rmi/cluster/ClusterableRemoteRef");
        Plant(reference, "replicaHandler,Lferrule/rmi/cluster/ReplicaHandler;|jndiName,Ljava/lang/String;",
              value);
        EXPECT_EQ(readRmi(REFERENCE, reference).jndiName, Shown(value, sizeof QorRmiCallData::jndiName));
    }
}

TEST_F(CallReaders, KeepTheirRecordsEmptyWithoutTheFields) {
    jobject plain = MakeObject("java/lang/Object");
    jobject withoutPeer = MakeObject("ferrule/rjvm/ResponseImpl");
    Plant(withoutPeer, "id,I", "42");
    for (jobject object : {plain, withoutPeer, makeResponse(0, 0, nullptr)}) {
        const QorRmiCallData record = readRmi(RESPONSE, object);
        EXPECT_EQ(record.callId, 0);
        EXPECT_EQ(record.port, 0);
        EXPECT_STREQ(record.host, "");
    }
    EXPECT_STREQ(readRmi(REFERENCE, plain).jndiName, "");
    for (const char *signature : {"Ljava/io/FileReader;", "Ljava/io/RandomAccessFile;",
                                  "Ljava/io/BufferedInputStream;", DESCRIPTOR, "Lapp/Other;"}) {
        const QorIOCallData record = readFile(signature, plain);
        EXPECT_EQ(record.fd, -1) << signature;
        EXPECT_STREQ(record.fileName, "");
    }
    const QorAppServerCallData server = readServer(ModelEntry(LOCAL_APP_SERVER_CALL, EXECUTE_THREAD, plain));
    EXPECT_EQ(server.stuck, -1);
    EXPECT_EQ(server.hogger, -1);
    for (const char *text : {server.applicationName, server.moduleName, server.wmName, server.sessionId})
        EXPECT_STREQ(text, "");
}

TEST_F(CallReaders, TellTheFileOfEveryStream) {
    Workplace place;
    const std::string path = place.path + "/data.txt";
    { OpenFile made(path); }
    jobject name = Text(path);
    jobject input = construct("java/io/FileInputStream", "(Ljava/lang/String;)V", name);
    jclass inputClass = Env()->GetObjectClass(input);
    jobject descriptor =
        Env()->CallObjectMethod(input, Env()->GetMethodID(inputClass, "getFD", "()Ljava/io/FileDescriptor;"));
    ASSERT_FALSE(Env()->ExceptionCheck());
    const struct {
        const char *signature;
        jobject object;
    } ROWS[] = {
        {"Ljava/io/FileReader;", construct("java/io/FileReader", "(Ljava/lang/String;)V", name)},
        {"Ljava/io/RandomAccessFile;",
         construct("java/io/RandomAccessFile", "(Ljava/lang/String;Ljava/lang/String;)V", name, Text("r"))},
        {"Ljava/io/BufferedInputStream;",
         construct("java/io/BufferedInputStream", "(Ljava/io/InputStream;)V", input)},
        {DESCRIPTOR, descriptor},
    };
    for (const auto &row : ROWS) {
        const QorIOCallData record = readFile(row.signature, row.object);
        EXPECT_EQ(record.fileName, path) << row.signature;
        EXPECT_GT(record.fd, 0);
    }
    Env()->CallVoidMethod(input, Env()->GetMethodID(inputClass, "close", "()V"));
    ASSERT_FALSE(Env()->ExceptionCheck());
    EXPECT_EQ(readFile(DESCRIPTOR, descriptor).fd, -1) << "closed";
    EXPECT_STREQ(readFile("Ljava/io/BufferedInputStream;", ROWS[2].object).fileName, "");
}

TEST_F(CallReaders, TellFileNamesThatFitARecord) {
    Workplace place;
    for (const auto &[name, shown] : {
             std::pair<std::string, std::string>{"a\nb\x1d\x1e\x1f\x0e", "a b    "},
             {"caf\xe9", "caf?"},
             {"caf\xc3\xa9", "caf\xc3\xa9"},
         }) {
        OpenFile file(name);
        EXPECT_EQ(readFile(DESCRIPTOR, makeDescriptor(file.fd)).fileName, place.path + "/" + shown);
    }
    std::string path = place.path;
    while (path.size() < 3300) {
        const std::string directory(200, 'd');
        ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
        ASSERT_EQ(chdir(directory.c_str()), 0);
        path += "/" + directory;
    }
    OpenFile deep("file");
    EXPECT_EQ(readFile(DESCRIPTOR, makeDescriptor(deep.fd)).fileName, path.substr(0, 3071));

    const QorIOCallData input = readFile(DESCRIPTOR, makeDescriptor(0));
    EXPECT_EQ(input.fd, 0);
    EXPECT_STREQ(input.fileName, "");
    LogCapture log(5);
    const QorIOCallData unknown = readFile(DESCRIPTOR, makeDescriptor(99999));
    EXPECT_EQ(unknown.fd, 99999);
    EXPECT_STREQ(unknown.fileName, "");
    EXPECT_EQ(log.count("QorGetFileNameFromFD : Not able to open readlink /proc/" + std::to_string(getpid()) +
                        "/fd/99999, error number : 2"),
              1);
}

TEST_F(CallReaders, TellTheSocketsPeer) {
    const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(server, reinterpret_cast<sockaddr *>(&address), size), 0);
    ASSERT_EQ(listen(server, 1), 0);
    ASSERT_EQ(getsockname(server, reinterpret_cast<sockaddr *>(&address), &size), 0);
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr *>(&address), size), 0);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const struct {
        const char *signature;
        int fd;
        int32_t readFd, port;
        const char *host;
    } ROWS[] = {
        {DESCRIPTOR, client, client, ntohs(address.sin_port), "127.0.0.1"},
        {DESCRIPTOR, ends[0], ends[0], 0, ""},
        {DESCRIPTOR, 0, 0, -1, ""},
        {DESCRIPTOR, -1, -1, -1, ""},
        {"Ljava/net/Socket;", client, -1, -1, ""},
    };
    for (const auto &row : ROWS) {
        const ModelEntry entry(LOCAL_NETWORK_CALL, row.signature, makeDescriptor(row.fd));
        QorNetworkCallData record = {5, 5, "x"};
        EXPECT_EQ(QorGetNetworkCallDataFromLocalVariable(&entry, &record), 0);
        EXPECT_EQ(record.fd, row.readFd);
        EXPECT_EQ(record.port, row.port);
        EXPECT_STREQ(record.host, row.host);
    }
    for (int fd : {server, client, ends[0], ends[1]})
        close(fd);
}

TEST_F(CallReaders, TellTheServersWork) {
    const std::string manager = "workManager,Lferrule/work/SelfTuningWorkManagerImpl;|";
    for (const std::string &value : TrialValues()) {
        QorLocalFrame references(Env(), 64);
        for (const char *flag : {"0", "1"}) {
            jobject thread = MakeObject("ferrule/work/ExecuteThread");
            Plant(thread, "stuckThread,Z", flag);
            Plant(thread, "isHogger,Z", *flag == '0' ? "1" : "0");
            Plant(thread, manager + "applicationName,Ljava/lang/String;", "A" + value);
            Plant(thread, manager + "moduleName,Ljava/lang/String;", "M" + value);
            Plant(thread, manager + "wmName,Ljava/lang/String;", value);
            const QorAppServerCallData record =
                readServer(ModelEntry(LOCAL_RMI_CALL, EXECUTE_THREAD, thread));
            EXPECT_EQ(record.stuck, *flag - '0');
            EXPECT_EQ(record.hogger, '1' - *flag);
            EXPECT_EQ(record.applicationName, Shown("A" + value, SERVER_TEXT_SIZE));
            EXPECT_EQ(record.moduleName, Shown("M" + value, SERVER_TEXT_SIZE));
            EXPECT_EQ(record.wmName, Shown(value, SERVER_TEXT_SIZE));
        }
        jobject request = MakeObject("ferrule/servlet/internal/ServletRequestImpl");
        Plant(request,
              "sessionHelper,Lferrule/servlet/internal/ServletRequestImpl$SessionHelper;|"
              "sessionID,Ljava/lang/String;",
              value);
        const ModelEntry serving(LOCAL_APP_SERVER_CALL, REQUEST, request, "execute");
        const ModelEntry running(LOCAL_APP_SERVER_CALL, REQUEST, request, "run");
        EXPECT_EQ(readServer(serving).sessionId, Shown(value, SERVER_TEXT_SIZE));
        EXPECT_STREQ(readServer(running).sessionId, "");
    }
}

// A server without the field marks a stuck thread by its name.
TEST_F(CallReaders, TellAStuckThreadByItsName) {
    jobject plain = MakeObject("java/lang/Object");
    const struct {
        const char *name;
        int32_t stuck;
    } ROWS[] = {{"[STUCK] ExecuteThread: '3'", 1}, {"[STUCK", -1}, {"ExecuteThread: [STUCK]", -1}};
    for (const auto &row : ROWS)
        for (int sample = 0; sample < 2; sample++) {
            ModelEntry entry(LOCAL_APP_SERVER_CALL, EXECUTE_THREAD, plain);
            snprintf(entry.threadName, sizeof entry.threadName, "%s", row.name);
            EXPECT_EQ(readServer(entry).stuck, row.stuck) << row.name;
        }
    ModelEntry named(LOCAL_APP_SERVER_CALL, EXECUTE_THREAD, MakeObject("ferrule/work/ExecuteThread"));
    snprintf(named.threadName, sizeof named.threadName, "[STUCK] but not so");
    EXPECT_EQ(readServer(named).stuck, 0);
}
