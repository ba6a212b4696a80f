// Stacks that nobody ran: words in memory and a thread whose anchor leads there. However they lead on, the
// walk ends, the thread is shown as far as its stack can be, and the others' rows are right.
#include "code.h"
#include "with_scene.h"

#include "qorutil/vm_reader.h"
#include "sunprint/stack_steps.h"

#include <sys/mman.h>
#include <thread>

using namespace simvm;

namespace {

constexpr size_t ROOM = 256 << 10, PAGE = 4096;
constexpr Word FIXED = offsetof(InterpretedFrame, fp), WRAPPER_BELOW_FP = 48;

Word room, locked;   // memory of the stacks; a page after it that nobody can read
Word turn, compiled; // methods

Word InInterpreter() {
    return As<StubQueue>(*vm.statics.interpreterCode).start + 64;
}

// Frames from the innermost one up. Each call lays out the next one and points the last one at it.
struct Stack {
    explicit Stack(JavaThread &of) : java(of), fpPlace(&of.anchorFp), pcPlace(&of.anchorPc) {
        memset(&As<char>(room), POISON, ROOM);
        java.anchorSp = top;
        java.safepointState = 0;
    }
    // The caller's registers, as the frame laid out last has them.
    void Link(Word callersFp, Word pc) { *fpPlace = callersFp, *pcPlace = pc; }
    void Interpreted() {
        fp = top + FIXED;
        const Word bcp = At(turn, &Method::constMethod) + sizeof(ConstMethod);
        As<InterpretedFrame>(top) = {top, bcp, fp, 0, 0, turn, fp + 16, 0, 0};
        Link(fp, InInterpreter());
        fpPlace = &As<Word>(fp);
        pcPlace = &As<Word>(fp + 8);
        top = fp + 16;
    }
    // A frame of compiled code or of an adapter; fp is the caller's.
    void Compiled(Word blob) {
        *pcPlace = EntryOf(blob) + 1;
        top += 8 * Word(As<Blob>(blob).frameWords);
        pcPlace = &As<Word>(top - 8);
    }
    // The call stub's frame, where Java frames end, and above it the wrapper.
    void Stub() {
        fp = top + 64;
        Link(fp, *vm.statics.callStubReturn);
        As<Word>(fp - WRAPPER_BELOW_FP) = fp + 64;
        As<CallWrapper>(fp + 64) = {};
    }
    JavaThread &java;
    Word fp = 0, top = room + PAGE; // of the frame laid out last; sp of the next one
    Word *fpPlace, *pcPlace;
};

Word Adapter() {
    return NewBlob({VT_C2IAdapter, std::string(16, char(0xcc)), 2});
}

// Code of a method with one scope, that of the method of this number; `sender` is its caller's scope.
constexpr int32_t SCOPE = 2;
Word CodeOf(int32_t number, int32_t sender = NO_OFFSET) {
    BlobParts parts = {VT_nmethod, std::string(8, char(0xcc)), 4};
    parts.code.append(reinterpret_cast<char *>(&compiled), sizeof compiled); // before the table of methods
    parts.oops = {compiled};
    PutCompressed(&parts.scopes, 77);
    parts.scope = int32_t(parts.scopes.size());
    for (int32_t value : {sender, number, 0, NO_OFFSET, NO_OFFSET, NO_OFFSET})
        PutCompressed(&parts.scopes, value);
    return NewBlob(parts);
}

// What a word of a case lays out, or does to what was laid out last.
const std::map<std::string, void (*)(Stack &)> WORDS = {
    {"i", [](Stack &s) { s.Interpreted(); }},
    {"stub", [](Stack &s) { s.Stub(); }},
    {"adapter", [](Stack &s) { s.Compiled(Adapter()); }},
    {"freed",
     [](Stack &s) {
         const Word blob = Adapter();
         s.Compiled(blob);
         As<HeapBlock>(blob - sizeof(HeapBlock)).used = 0;
     }},
    {"code", [](Stack &s) { s.Compiled(CodeOf(1)); }},
    {"code-0", [](Stack &s) { s.Compiled(CodeOf(0)); }},
    {"code-in-itself", [](Stack &s) { s.Compiled(CodeOf(1, SCOPE)); }},
    {"copied", // to where the thread runs it while it is brought to a safepoint
     [](Stack &s) {
         auto *copy = Make<CodeCopy>();
         auto *state = Make<SafepointState>();
         Word &pc = *s.pcPlace, blob = CodeOf(1);
         *copy = {locked, 64, 0, 0, EntryOf(blob)};
         state->codeCopy = Word(copy);
         s.java.safepointState = Word(state);
         s.Compiled(blob);
         pc = locked + 1;
     }},
    {"to-locked", [](Stack &s) { s.Link(locked + FIXED, InInterpreter()); }},
    {"to-first",
     [](Stack &s) {
         As<Word>(s.fp - 8) = room + PAGE; // the caller's sp
         s.Link(room + PAGE + FIXED, InInterpreter());
     }},
    {"low-monitors", [](Stack &s) { As<Word>(s.fp - FIXED) -= 16; }},
    {"unwrapped", [](Stack &s) { As<Word>(s.fp - WRAPPER_BELOW_FP) = 0; }},
    {"leads-here",
     [](Stack &s) {
         At(s.fp + 64, &CallWrapper::anchorSp) = s.top;
         At(s.fp + 64, &CallWrapper::anchorFp) = s.fp;
     }},
};

// How many frames are shown of which stack; none: the thread has no row.
constexpr int NO_ROW = -1;
const std::pair<int, const char *> CASES[] = {
    {3, "i i i stub"},
    {2, "i i to-first"},
    {1, "i stub leads-here"},
    {NO_ROW, "i stub unwrapped"},
    {500, "i*600 stub"},
    {1, "i freed i stub"},
    {NO_ROW, "i to-locked"},
    {2, "i low-monitors i stub"},
    {NO_ROW, "adapter*501 i stub"},
    {2, "code i stub"},
    {2, "copied i stub"},
    {1, "code-0 i stub"},
    {500, "code-in-itself i stub"},
};

void LayOut(Stack *stack, const std::string &words) {
    for (const std::string &word : Split(words, ' '))
        for (int times = word.find('*') == word.npos ? 1 : stoi(word.substr(word.find('*') + 1)); times > 0;
             times--)
            WORDS.at(word.substr(0, word.find('*')))(*stack);
}

// What the poll shows of the odd thread, and that the others' rows are right beside it.
void ExpectPollWith(const Scene &scene, const std::string &key, const char *name, int frames) {
    std::map<std::string, Shown> threads = ReadPoll(Ask("785|showstack|32768")); // nobody is held
    const auto found = threads.find(key);
    EXPECT_EQ(found == threads.end() ? NO_ROW : int(found->second.frames.size()), frames) << name;
    EXPECT_TRUE(found == threads.end() || found->second.locks.empty()) << name;
    for (const Runner *runner : scene.runners)
        if (!Loops(*runner))
            ExpectRow(*runner, threads[Key(*runner->info)]);
}

// A thread held at the first instruction of compiled code, or where that has saved fp and set its own, or two
// frames into code that isn't the VM's.
void ExpectCallersOfHalfBuiltFrames(JavaThread &thread) {
    for (int saved : {0, 1, 2}) {
        Stack stack(thread);
        const Word sp = stack.top;
        const Word last = saved == 2 ? sp + 16 : sp; // where the caller's registers are
        stack.top = saved ? last + 16 : sp + 8;
        LayOut(&stack, "i stub");
        const Word fp = thread.anchorFp;
        As<Word>(sp) = last;
        if (saved == 2)
            As<Word>(sp + 8) = sp;
        As<Word>(last) = fp;
        As<Word>(saved ? last + 8 : sp) = InInterpreter();
        QorStackWalk walk = {};
        walk.at = {sp, saved == 2 ? sp : EntryOf(CodeOf(1)), saved ? sp : fp};
        walk.held = true;
        QorForgetPages();
        QorReadCodeRanges(&walk.code);
        QorWalkStack(&walk);
        ASSERT_EQ(walk.records, saved == 2 ? 1 : 2) << saved;
        EXPECT_EQ(frame_info[walk.records - 1].method, turn) << saved;
    }
}

} // namespace

TEST(OddStacks, EndTheirOwnThreadsWalkAlone) {
    WithScene("shop", {}, [](Scene &scene) {
        room = Map(ROOM + PAGE, false);
        locked = room + ROOM;
        mprotect(&As<char>(locked), PAGE, PROT_NONE);
        turn = DefineMethod("odd/Stack", "turn", "()V", {{0, 7}}, METHOD_STATIC)->oop;
        compiled = DefineMethod("odd/Stack", "compiled", "()V", {{0, 9}}, METHOD_STATIC)->oop;
        std::atomic<ThreadInfo *> odd{nullptr};
        std::atomic<bool> over{false};
        std::thread owner([&] {
            const Attached self("odd");
            SetStates(self.info, IN_NATIVE, OS_SLEEPING);
            for (odd = self.info; !over;)
                usleep(1000);
        });
        while (!odd)
            usleep(100);
        for (auto &[frames, words] : CASES) {
            Stack stack(odd.load()->Java());
            LayOut(&stack, words);
            ExpectPollWith(scene, Key(*odd), words, frames);
        }
        ExpectCallersOfHalfBuiltFrames(odd.load()->Java());
        over = true;
        owner.join();
    });
}
