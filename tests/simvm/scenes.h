// Threads that run scripts, and the collector that stops them and moves what they refer to.
#pragma once

#include "code.h"
#include "simvm.h"

#include <csignal>
#include <thread>

extern "C" {
jstring Java_qoragent_Agent_dataFromNative(JNIEnv *, jobject, jstring);
jint Java_qoragent_Agent_initvar(JNIEnv *, jobject, jint, jint, jint, jint, jint, jstring, jstring, jstring,
                                 jobject, jobject, jobject, jobject, jstring, jobject, jstring, jstring, jint,
                                 jint, jint, jint, jint, jint);
jobjectArray Java_qoragent_Agent_getThreadObjects(JNIEnv *, jobject);
}

namespace simvm {

// A thread of the VM. What it shows from when it rests until it leaves is ShadowStack(*script).
struct Runner {
    ThreadInfo *info;
    Script *script;
    Control control;
    std::function<void()> call;
    std::thread thread;
    std::atomic<int32_t> resting{0}; // 1: it has come to its rest (loops: it has begun)
    std::atomic<bool> inJava{false};
    std::atomic<Word> stackLow{0}; // while not in Java: from here up its stack may hold references
    Word stackHigh = 0;
};

// Starts a thread that runs the script once, and comes back when it rests. `call` runs where its script's
// rest is CALL.
Runner *Start(const std::string &name, Script *script, std::function<void()> call = {});
// Ends its rest: it returns through all its frames, leaves the list and is joined. Its memory goes to the
// next thread.
void Leave(Runner *runner);
// A script whose last frame, a native method's, is where its thread makes its `call`.
Script NativeScript();
// The calling thread as the Java thread "main", which runs such a script.
void RunAsMain(const std::function<void()> &call);

// The calling thread in the VM's list, for as long as it is there.
struct Attached {
    ThreadInfo *const info;
    explicit Attached(const std::string &name) : info(NewThread(name)) { LinkThread(info); }
    ~Attached() { UnlinkThread(info), FreeThread(info); }
};

// One collection: stops all threads, moves every object of eden and from, poisons where they were. While it
// runs, the heap says so; `held` is called in its midst.
void Collect(const std::function<void()> &held = {});

// What the VM itself and its threads refer to: handles, monitors, dictionaries, known classes.

// A word of the VM's own structures that refers to an object.
struct Root {
    char letter; // of the structure, as a dump has it
    std::string name;
    Object *object;
};

// How the chains end: as they should, in a link back to their beginning, in a pointer to nowhere.
enum class ChainEnd { NONE, CYCLE, WILD };

// Lays out one or more of each structure, some of them the thread's: handle blocks, full, half full and
// empty; a handle area of two chunks of different length; monitor chunks; a privileged stack; monitor blocks;
// a VM thread with queues of one and of three operations; a dictionary with chains, placeholders, loader
// constraints; known classes, mirrors, symbols. Whatever the end of the chains, all roots are to be found. No
// collection may follow the thread's end.
void StageRoots(ThreadInfo *thread, ChainEnd end);
// Of what was staged, and each thread's object and handles.
std::vector<Root> AllRoots();

// A VM that never rests: threads end and start, collections move what they refer to, and a timer's
// signals arrive all the time.

struct StormOptions {
    int threads = 30, frames = 20, looping = 10;
    uint32_t locked = 4;  // one frame of so many has a monitor
    bool disturbs = true; // threads end and start, collections run, signals arrive
};

// A thread that the storm had. What it showed then is its script's shadow stack; one that has just come or is
// about to go shows the outer part.
struct Lived {
    int32_t kernelId;
    const Script *script;
};

void StartStorm(const StormOptions &options);
std::map<std::string, Lived> LivedSoFar(); // by name
std::vector<Runner *> StormRunners();      // where none comes or goes
// Ends all of it; a thread that still was held would never end. The VM's own handler of signal 31 stays
// installed: VmSignalHandler.
void StopStorm();
void VmSignalHandler(int signal);

// Scenes: what a VM's threads do while it is looked at.

// A scene's threads; the storm's are its own.
struct Scene {
    std::deque<Script> scripts;
    std::vector<Runner *> runners;
    std::map<std::string, Object *> named; // what readers of objects are to look at
    std::vector<int> descriptors;          // open until its end
};

// Ends the process for a name it does not know.
// shop: threads in all kinds of frames and places, at rest or looping
// readers: objects of all kinds of fields and elements, and frames with arguments and locals
// drivers: threads that wait for a database, on sockets of all kinds
// tiers: web requests, remote calls and a framework's objects, for each server
// servers: the ports of application servers; without Tomcat's thread
// heap: the shop over a tricky heap
// nothing: no thread
void StageScene(const std::string &name, Scene *scene);
void EndScene(Scene *scene);
extern const char SHOP[], READERS[], DRIVERS[], TIERS[], SERVERS[];

using Texts = std::map<std::string, std::string>;
// Stages what a text says, a line for each class, object and thread. A line that begins with a blank goes on
// with the one before; # begins a comment.
//   class NAME ...             as DefineClass has it
//   let NAME TEXT              $NAME is that text from then on
//   socket NAME                a connection: $T is that name from then on, the rest is as Connect has it
//   NAME = VALUE               an object by its name; with := it is one of the scene's named ones
//   static CLASS.FIELD = VALUE, set NAME.FIELD = VALUE
//   thread NAME: REST ["STATE"] FRAME; ... [| FACT=TEXT; ...]    outermost frame first
// VALUE: null, a number, a name, "text", 'characters' (a char[]), TYPE[<SUPER]{FIELD[,SIGNATURE]=VALUE ...},
//   SIGNATURE(VALUE ...). In texts \ ends a line. A class that isn't there yet is defined with these fields,
//   their types as their values have them where no signature is given.
// FRAME: KIND SCOPE > SCOPE ..., outermost first. i: interpreted, c: compiled, o: compiled in mid-loop, n:
//   native.
// SCOPE: CLASS.METHOD[(SIGNATURE)][:LINE] [@VALUE] [^VALUE ...] [%VALUE ...]: receiver (a bare @ or @{...} is
//   of that class), monitors, variables; ~, ! and = in place of % as Kept has them. Without a line it is
//   native.
void ReadScene(Scene *scene, const std::string &text);
std::vector<Frame> FramesOf(const std::string &text);
std::string Expanded(const std::string &line, const Texts &texts);
std::vector<std::string> WholeLines(const std::string &text);

// A connected socket of the loopback: its descriptor FD, its ports LOCAL and REMOTE, the address STATE of a
// native driver's memory that leads to it.
Texts Connect(Scene *scene);

// The agent as the simulated VM's main thread starts and asks it, by its natives.

struct AgentStart {
    std::string server = "", id = "test"; // as Java passes them
    int backoff = 1, lockInformation = 0;
};
// The status of the start. Handles of the native method end with it, as in any VM.
int StartAgent(const AgentStart &with = {});
std::string Ask(const std::string &request);

// A VM by words: its build, and what of it isn't as usual: client, parallel, cms.
Options On(const std::string &words);
std::vector<std::string> Split(const std::string &text, char separator);
// The fields of each record of a reply; a title is a record, too.
std::vector<std::vector<std::string>> Records(const std::string &reply);
std::string Hex(Word value);
std::string Dotted(std::string name);

// ---- what the agent has to show of a scene's threads, from their scripts, and what a dump has to hold, from
// the description

// A thread as lines: its row, its frames, its locks.
struct Shown {
    std::string name, state;
    std::vector<std::string> frames;  // "class->method file line", innermost first
    std::string waits;                // "address class"
    std::multiset<std::string> locks; // "address class frame"

    auto Lines() const { return std::tuple(name, state, waits, frames, locks); }
};

Shown Truth(const Runner &runner);
std::string FrameText(const Scope &scope);
std::string ShownName(const ThreadInfo &thread);

// A dump file of the direct road in lines that can be compared.
//   ADDRESS LINE                     of an object and of what it refers to: its address and the file's line
//   ADDRESS NUMBER LINE              its element that isn't null
//   S LETTER NAME ADDRESS            a root
//   FRAME THREAD|NAME ADDRESS        what a frame refers to
const std::string FRAME = "frame ";
struct HeapDump {
    std::vector<std::string> header;
    std::set<std::string> lines, unknown; // unknown: addresses of objects of which more may be said
};
HeapDump ReadDump(const std::string &path);
// What a dump made now has to hold; of frames at least this.
HeapDump TakeTruth(const std::vector<Runner *> &runners);
// Each way in which the two differ.
std::vector<std::string> Differences(const HeapDump &dump, const HeapDump &truth);

} // namespace simvm
