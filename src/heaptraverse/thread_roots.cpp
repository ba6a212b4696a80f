#include "thread_roots.h"

#include "sunprint/root_lines.h"
#include "traverse.h"

#include "qorthreads/dump_hold.h"
#include "qorthreads/thread_facts.h"
#include "qorutil/vm_reader.h"
#include "qorutil/vm_threads.h"
#include "sunprint/frame_names.h"
#include "sunprint/locals.h"
#include "sunprint/stack_steps.h"

#include <cstdio>

namespace {

constexpr uint64_t CACHE_BELOW_FP = 32; // of an interpreted frame: its constant pool cache

QorStackWalk walk;
QorFrameNames names;
char threadName[QOR_THREAD_NAME_SIZE];
int32_t threadsRead;

// A name is the application's, the file's lines are ours.
void BlankControls(char *text) {
    for (; *text; text++)
        if (static_cast<unsigned char>(*text) < ' ')
            *text = ' ';
}

void SetPrefix(const QorFrameInfo &frame) {
    if (QorNameFrame(frame, &names) == FRAME_NAMED)
        snprintf(prepend_str, sizeof prepend_str, "%s|%s->%s|", threadName, names.className, names.method);
    else
        snprintf(prepend_str, sizeof prepend_str, "%s||", threadName);
    BlankControls(prepend_str);
}

void ReportFrame(const QorFrameInfo &frame) {
    SetPrefix(frame);
    if (frame.kind == WALKED_INTERPRETED) {
        INLINE_DUMP_OOP_DETAILS(&logfile, frame.method, ROOT_OF_FRAME, FRAME_LETTER,
                                "interpreter_frame_meth");
        INLINE_DUMP_OOP_DETAILS(&logfile, QorWordAt(frame.fp - CACHE_BELOW_FP), ROOT_OF_FRAME, FRAME_LETTER,
                                "interpreter_frame_cache");
    }
    PrintLocals({frame.kind, frame.fp, frame.pc, frame.sp, frame.method}, nullptr, &logfile);
}

// Where the thread's walk begins. False when that isn't known.
bool FindRegisters(uint64_t thread) {
    walk.held = QorDumpRegisters(thread, &walk.at);
    return walk.held || (QorReadAnchor(thread, &walk.at) == ANCHOR_READ && walk.at.sp != 0);
}

void ReportStack(uint64_t thread) {
    QorThreadFacts facts;
    walk = {};
    if (threadsRead++ >= MAX_VM_THREADS || !FindRegisters(thread) || !QorReadThreadFacts(thread, &facts))
        return;
    QorReadThreadName(facts, threadName);
    QorReadCodeRanges(&walk.code);
    QorReadCodeCopy(thread, &walk.copy);
    QorWalkStack(&walk);
    for (int32_t i = 0; i < walk.records && !logfile.error; i++)
        ReportFrame(frame_info[i]);
    *prepend_str = 0;
}

} // namespace

int32_t traverseThread() {
    threadsRead = 0;
    *prepend_str = 0;
    qorThreadVisit = ReportStack;
    const int32_t java = QorTraverseRoot(START_JAVA_THREADS) < 0 ? NO_JAVA_THREADS : 0;
    return java | (QorTraverseRoot(START_VM_THREADS) < 0 ? NO_VM_THREADS : 0);
}

void QorPrepareThreadRoots() {
    QorCodeRanges code;
    if (QorReadCodeRanges(&code))
        QorAskAllCode(code);
}
