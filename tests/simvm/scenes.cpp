#include "heap.h"
#include "jni_table.h"
#include "roots.h"
#include "stage.h"
#include "storm.h"

#include <cstdio>
#include <unistd.h>

namespace simvm {

Scope In(const std::string &holder, const std::string &name, int line, Object *receiver,
         std::vector<Object *> monitors, const std::string &signature, std::vector<Variable> variables) {
    MethodInfo *method = DefineMethod(
        holder, name, signature, {{0, 10}, {45, line + 300}, {46, line + 1}, {7, line + 70000}, {8, line}},
        receiver ? 0 : METHOD_STATIC);
    return {method, 8, receiver, std::move(monitors), std::move(variables)};
}

Scope Native(const std::string &holder, const std::string &name, Object *receiver,
             const std::string &signature, std::vector<Variable> variables) {
    int32_t flags = METHOD_NATIVE | (receiver ? 0 : METHOD_STATIC);
    return {DefineMethod(holder, name, signature, {}, flags, 0), 0, receiver, {}, std::move(variables)};
}

Frame Run(const std::string &holder) {
    return {F::INTERPRETED, {In(holder, "run", 21, NewObject(holder))}};
}

void Add(Scene *scene, const std::string &name, std::vector<Frame> frames, Rest rest,
         const std::string &state, std::map<std::string, std::string> facts) {
    scene->scripts.push_back({std::move(frames), rest, state, std::move(facts)});
    EmitScript(&scene->scripts.back());
    scene->runners.push_back(Start(name, &scene->scripts.back()));
}

namespace {

void StageShop(Scene *scene) {
    Object *till = NewObject("shop/Till"), *ledger = NewObject("shop/Ledger", vm.old.letter),
           *orders = NewObject("shop/Orders"), *queue = NewObject("java/util/LinkedList"),
           *cart = NewObject("shop/Cart"), *clock = NewObject("shop/Clock"),
           *drawer = NewObject("shop/Drawer"), *page = NewObject("shop/Page");
    Frame run = Run("shop/Worker");
    Add(scene, "door",
        {Run("shop/Door"),
         {F::COMPILED,
          {In("java/net/ServerSocket", "accept", 450), In("java/net/PlainSocketImpl", "accept", 384)}},
         {F::NATIVE,
          {Native("java/net/PlainSocketImpl", "socketAccept", NewObject("java/net/PlainSocketImpl"))}}},
        Rest::ACCEPT);
    Add(scene, "import",
        {run,
         {F::INTERPRETED, {In("shop/Import", "load", 88, orders)}},
         {F::COMPILED, {Native("shop/Import", "inflate", NewObject("shop/Import"))}},
         {F::NATIVE, {Native("java/io/FileInputStream", "readBytes")}}},
        Rest::PIPE);
    Add(scene, "night|watch", {run, {F::INTERPRETED, {In("shop/Watch", "pause", 26, clock, {clock})}}},
        Rest::SLEEP);
    Add(scene, "packer",
        {run,
         {F::COMPILED,
          {In("shop/Packer", "next", 33, queue, {queue}), In("java/lang/Object", "wait", 474, queue)}},
         {F::NATIVE, {Native("java/lang/Object", "wait", queue)}}},
        Rest::WAIT);
    Add(scene, "till-1",
        {run,
         {F::COMPILED,
          {In("shop/Cashier", "sell", 101, cart), In("shop/Till", "open", 17, till, {till}),
           In("shop/Ledger", "book", 64, ledger, {ledger, till})}},
         {F::INTERPRETED, {In("shop/Ledger", "sync", 71, ledger, {ledger})}},
         {F::NATIVE, {Native("java/lang/Thread", "sleep")}}},
        Rest::SLEEP);
    Add(scene, "till-2", {run, {F::INTERPRETED, {In("shop/Till", "open", 17, till, {drawer, till})}}},
        Rest::MONITOR);
    Add(scene, "till-3",
        {run,
         {F::INTERPRETED, {In("shop/Cashier", "close", 140, cart, {cart})}},
         {F::COMPILED, {In("shop/Ledger", "book", 64, ledger, {page, ledger})}}},
        Rest::MONITOR);
    Add(scene, "pricing",
        {run,
         {F::INTERPRETED, {In("shop/Prices", "update", 52)}},
         {F::OSR, {In("shop/Prices", "all", 60, orders), In("shop/Prices", "each", 64)}},
         {F::INTERPRETED, {In("shop/Tax", "of", 5, cart, {cart})}},
         {F::COMPILED, {In("shop/Tax", "rate", 9, cart), In("shop/Tax", "round", 15)}}},
        Rest::SPIN);
    Add(scene, "search",
        {run,
         {F::COMPILED, {In("shop/Search", "scan", 31, orders)}},
         {F::COMPILED, {In("shop/Search", "match", 40)}}},
        Rest::CALLS);
    Add(scene, "hash", {run, {F::COMPILED, {In("shop/Hash", "mix", 12)}}}, Rest::SPIN);
    Add(scene, "sums", {run, {F::STUB, {}}, {F::COMPILED, {In("shop/Sums", "add", 15)}, false, EmitLinked()}},
        Rest::SPIN);
    Add(scene, "copier",
        {run, {F::COMPILED, {In("shop/Copier", "copy", 77, orders), In("shop/Copier", "page", 80)}, true}},
        Rest::SPIN);
    Add(scene, "reports",
        {run,
         {F::INTERPRETED, {In("shop/Reports", "print", 19, orders, {orders})}},
         {F::NATIVE, {Native("java/security/AccessController", "doPrivileged")}},
         {F::COMPILED, {In("shop/Reports$1", "run", 23, NewObject("shop/Reports$1"))}},
         {F::NATIVE, {Native("java/net/SocketInputStream", "socketRead0")}}},
        Rest::PIPE);
}

// What the Java side adds: to each thread a text with its name, and in front of all the system data, if
// asked.
std::string AnswerOfJava(const JavaCall &call) {
    std::string answer = call.withSystem ? "Java System Data\x1e"
                                           "from Java\x1f"
                                         : "";
    for (int32_t i = 0; i < call.count; i++)
        for (const ThreadInfo *thread : vm.threads)
            if (thread->object == call.threads[i])
                answer += "\x1d"
                          "added to " +
                          thread->name + "\x1e";
    return answer;
}

} // namespace

Script MainScript() {
    return {{{F::INTERPRETED, {In("shop/Main", "main", 7)}},
             {F::COMPILED, {In("qoragent/Agent", "start", 70)}},
             {F::NATIVE, {Native("qoragent/Agent", "initvar")}}},
            Rest::CALL};
}

void StageScene(const std::string &name, Scene *scene) {
    if (name == "shop")
        StageShop(scene);
    else if (name == "readers")
        StageReaders(scene);
    else if (name == "drivers")
        StageDrivers(scene);
    else if (name == "java") {
        StageShop(scene);
        DefineJavaSide(AnswerOfJava);
    } else if (name == "tiers")
        StageTiers(scene);
    else if (name.rfind("servers", 0) == 0)
        StageServers(name, scene);
    else if (name == "heap") {
        StageShop(scene);
        StageRoots(scene->runners.front()->info, ChainEnd::NONE);
        FillHeap(TrickyHeap(), 1);
        SetCollections({12, 3, 4'000'000, 9'000'000});
    } else if ((scene->storm = name == "storm" || name == "crowd"))
        StartStorm(name == "storm" ? StormOptions()
                                   : StormOptions{200, 50, 2, 50, 1, false, false, false, false});
    else
        Fail(("no scene " + name).c_str());
}

void EndScene(Scene *scene) {
    if (scene->helper.joinable())
        scene->helper.join();
    for (Runner *runner : scene->runners)
        Leave(runner);
    scene->runners.clear();
    for (int descriptor : scene->descriptors)
        close(descriptor);
    if (!scene->storm)
        return;
    StormFigures figures = StopStorm();
    printf("%ld collections, %ld threads ended, %ld and %ld + %ld of %ld signals, longest stop %.3f ms, %ld "
           "laps\n",
           figures.collections, figures.threadsEnded, figures.profileSignals, figures.foreignArrived,
           figures.foreignMerged, figures.foreignSent, figures.longestStop / 1e6, figures.laps);
}

SampleObjects NewSampleObjects(ThreadInfo *thread) {
    return {NewHandle(thread, NewObject("java/lang/Object")),
            NewHandle(thread, NewObject("java/lang/ref/WeakReference")),
            NewHandle(thread, NewArray("[Ljava/lang/Object;", 2)), NewHandle(thread, NewArray("[I", 3))};
}

} // namespace simvm
