// Stacks that nobody ran: words in memory and a thread whose anchor leads there. However they lead on, the
// walk ends, the thread is shown as far as its stack can be, and the others' rows are right.
#include "emit.h"
#include "poll.h"

#include "qorutil/vm_reader.h"
#include "sunprint/stack_steps.h"

#include <functional>
#include <sys/mman.h>
#include <thread>

using namespace simvm;

namespace {

constexpr size_t ROOM = 256 << 10, PAGE = 4096;
constexpr Word FIXED = offsetof(InterpretedFrame, fp), WRAPPER_BELOW_FP = 48;
constexpr int NO_ROW = -1;

Word room, locked, missing; // memory of the stacks; two pages after it that nobody can read
Word turn, compiled;        // methods

Word InInterpreter() {
    return As<StubQueue>(*vm.statics.interpreterCode).start + 64;
}

// Frames from the innermost one up. Each call lays out the next one and points the last one at it.
class Stack {
public:
    explicit Stack(Word thread) : top(room + PAGE) {
        memset(&As<char>(room), POISON, ROOM);
        At(thread, &JavaThread::anchorSp) = top;
        fpPlace_ = &At(thread, &JavaThread::anchorFp);
        pcPlace_ = &At(thread, &JavaThread::anchorPc);
    }
    // The caller's registers, as the frame laid out last has them.
    void Link(Word fp, Word pc) {
        *fpPlace_ = fp;
        *pcPlace_ = pc;
    }
    // The frame's fp.
    Word Interpreted() {
        const Word frame = top, fp = frame + FIXED;
        const Word bcp = At(turn, &Method::constMethod) + sizeof(ConstMethod);
        As<InterpretedFrame>(frame) = {frame, bcp, fp, 0, 0, turn, fp + 16, 0, 0};
        Link(fp, InInterpreter());
        fpPlace_ = &As<Word>(fp);
        pcPlace_ = &As<Word>(fp + 8);
        top = fp + 16;
        return fp;
    }
    // A frame of compiled code or of an adapter; fp is the caller's.
    void Compiled(Word blob) {
        *pcPlace_ = EntryOf(blob) + 1;
        top += 8 * Word(As<Blob>(blob).frameWords);
        pcPlace_ = &As<Word>(top - 8);
    }
    // The call stub's frame, where Java frames end, and above it the wrapper. The frame's fp.
    Word Stub() {
        const Word fp = top + 64;
        Link(fp, *vm.statics.callStubReturn);
        As<Word>(fp - WRAPPER_BELOW_FP) = fp + 64;
        As<CallWrapper>(fp + 64) = {};
        return fp;
    }
    void End() {
        Interpreted();
        Stub();
    }
    Word top; // sp of the next frame

private:
    Word *fpPlace_, *pcPlace_;
};

Word Adapter(int32_t words = 2) {
    return NewBlob({VT_C2I, std::string(16, char(0xcc)), words});
}

// Code of a method with one scope, that of the method of this number; `sender` is its caller's scope. Before
// and after the table of one method is the same method.
constexpr int32_t SCOPE = 2;
Word CodeOf(int32_t number, int32_t sender = NO_OFFSET) {
    BlobParts parts = {VT_NMETHOD, std::string(8, char(0xcc)), 4};
    parts.code.append(reinterpret_cast<char *>(&compiled), sizeof compiled);
    parts.oops = {compiled, compiled};
    PutCompressed(&parts.scopes, 77);
    parts.scope = int32_t(parts.scopes.size());
    for (int32_t value : {sender, number, 0, NO_OFFSET, NO_OFFSET, NO_OFFSET})
        PutCompressed(&parts.scopes, value);
    const Word blob = NewBlob(parts);
    As<Blob>(blob).oopCount = 1;
    return blob;
}

Word DescribedAt(Word description) {
    const Word blob = CodeOf(1);
    At(blob, &Blob::pcDescCache) = description;
    return blob;
}

struct Case {
    const char *name;
    int frames;
    std::function<void(Stack *)> lay;
};
// A caller of compiled code.
Case CodeCase(const char *name, int frames, Word (*code)()) {
    return {name, frames, [code](Stack *s) {
                s->Compiled(code());
                s->End();
            }};
}
// An interpreted frame, and what it says of its caller or of its monitors.
Case LinkCase(const char *name, int frames, Word fp) {
    return {name, frames, [fp](Stack *s) {
                s->Interpreted();
                s->Link(fp, InInterpreter());
            }};
}
Case MonitorCase(const char *name, Word shift) {
    return {name, 2, [shift](Stack *s) {
                As<Word>(s->Interpreted() - FIXED) += shift;
                s->End();
            }};
}
Case AdapterCase(const char *name, int frames, int count) {
    return {name, frames, [count](Stack *s) {
                for (int i = 0; i < count; i++)
                    s->Compiled(Adapter());
                s->End();
            }};
}

std::vector<Case> Cases() {
    return {
        {"nothing odd", 3,
         [](Stack *s) {
             s->Interpreted();
             s->Interpreted();
             s->End();
         }},
        {"a ring of frames", 2,
         [](Stack *s) {
             const Word first = s->Interpreted();
             As<Word>(s->Interpreted() - 8) = first - FIXED; // the caller's sp
             s->Link(first, InInterpreter());
         }},
        {"a wrapper that leads to the stub again", 1,
         [](Stack *s) {
             s->Interpreted();
             const Word fp = s->Stub();
             At(fp + 64, &CallWrapper::anchorSp) = s->top;
             At(fp + 64, &CallWrapper::anchorFp) = fp;
         }},
        {"a wrapper that points at itself", 1,
         [](Stack *s) {
             s->Interpreted();
             const Word fp = s->Stub(), self = fp - WRAPPER_BELOW_FP;
             As<Word>(self) = At(self, &CallWrapper::anchorSp) = self;
             At(self, &CallWrapper::anchorFp) = fp;
             As<Word>(self - 8) = *vm.statics.callStubReturn;
         }},
        {"no wrapper", NO_ROW,
         [](Stack *s) {
             s->Interpreted();
             As<Word>(s->Stub() - WRAPPER_BELOW_FP) = 0;
         }},
        {"more frames than are shown", 500,
         [](Stack *s) {
             for (int i = 0; i < 600; i++)
                 s->Interpreted();
             s->Stub();
         }},
        {"code without a frame", 1,
         [](Stack *s) {
             s->Interpreted();
             s->Compiled(Adapter(0));
         }},
        {"freed code", 1,
         [](Stack *s) {
             s->Interpreted();
             const Word blob = Adapter();
             s->Compiled(blob);
             s->End();
             As<HeapBlock>(blob - sizeof(HeapBlock)).used = 0;
         }},
        LinkCase("a frame without fp", NO_ROW, 0),
        LinkCase("a page that can't be read", NO_ROW, locked + FIXED),
        LinkCase("a page that isn't there", NO_ROW, missing + FIXED),
        MonitorCase("monitors far above", 1ul << 60),
        MonitorCase("monitors below the stack", -16ul),
        AdapterCase("many adapters", 1, 499),
        AdapterCase("too many adapters", NO_ROW, 501),
        CodeCase("method 1", 2, [] { return CodeOf(1); }),
        CodeCase("method 0", 1, [] { return CodeOf(0); }),
        CodeCase("a method that isn't in the table", 1, [] { return CodeOf(2); }),
        CodeCase("method 0 in itself", 1, [] { return CodeOf(0, SCOPE); }),
        CodeCase("a method in itself", 500, [] { return CodeOf(1, SCOPE); }),
        CodeCase("no description", 1, [] { return DescribedAt(0); }),
        CodeCase("a description that is gone", 1, [] { return DescribedAt(missing); }),
        CodeCase("a description of something else", 1, [] { return DescribedAt(room); }),
    };
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

// A thread held at the first instruction of compiled code, or where it has saved fp and set its own.
void ExpectCallersOfHalfBuiltFrames(Word thread) {
    for (int saved : {0, 1}) {
        Stack stack(thread);
        const Word sp = stack.top;
        stack.top += 8 + 8 * saved;
        stack.End();
        const Word fp = At(thread, &JavaThread::anchorFp);
        As<Word>(sp) = fp;
        As<Word>(sp + 8 * saved) = InInterpreter();
        QorStackWalk walk = {};
        walk.at = {sp, EntryOf(CodeOf(1)), saved ? sp : fp};
        walk.held = true;
        QorForgetPages();
        QorReadCodeRanges(&walk.code);
        QorWalkStack(&walk);
        EXPECT_EQ(walk.records, 2) << saved;
        EXPECT_EQ(frame_info[1].method, turn) << saved;
    }
}

void MapRoom() {
    room = Map(ROOM + 2 * PAGE, false);
    locked = room + ROOM;
    missing = locked + PAGE;
    mprotect(&As<char>(locked), PAGE, PROT_NONE);
    const int empty = memfd_create("empty", MFD_CLOEXEC); // unlike a hole it stays missing
    ASSERT_NE(mmap(&As<char>(missing), PAGE, PROT_READ, MAP_SHARED | MAP_FIXED, empty, 0), MAP_FAILED);
    close(empty);
}

} // namespace

TEST(OddStacks, EndTheirOwnThreadsWalkAlone) {
    WithScene("shop", {}, [](Scene &scene) {
        MapRoom();
        turn = DefineMethod("odd/Stack", "turn", "()V", {{0, 7}}, METHOD_STATIC)->oop;
        compiled = DefineMethod("odd/Stack", "compiled", "()V", {{0, 9}}, METHOD_STATIC)->oop;
        std::atomic<ThreadInfo *> odd{nullptr};
        std::atomic<bool> over{false};
        std::thread owner([&] {
            ThreadInfo *thread = NewThread("odd");
            LinkThread(thread);
            SetStates(thread, IN_NATIVE, OS_SLEEPING);
            for (odd = thread; !over;)
                usleep(1000);
            UnlinkThread(thread);
            FreeThread(thread);
        });
        while (!odd)
            usleep(100);
        for (const Case &c : Cases()) {
            Stack stack(odd.load()->address);
            c.lay(&stack);
            ExpectPollWith(scene, Key(*odd), c.name, c.frames);
        }
        ExpectCallersOfHalfBuiltFrames(odd.load()->address);
        over = true;
        owner.join();
    });
}
