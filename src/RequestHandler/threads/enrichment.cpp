#include "enrichment.h"

#include "Xtier/thread_e2e_info.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/JniCalls.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "reply/qortext.h"
#include "reply/records.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

std::atomic<int32_t> flagcompiled_java_code;

namespace {

constexpr jint FRAME_CAPACITY = 23; // 7 in use at a time, and what JNI's own checks want to spare
constexpr int32_t TEXTS_PER_THREAD = 10;
constexpr int32_t LARGEST_REPLY = PAGEBUF_SIZE - 1; // a text of this length or more is too long
constexpr int32_t MARKED_LEVEL = 3;                 // the state field is set off by marks and may be replaced

// Marks of the answer, beside those that it shares with the reply.
constexpr char FRAMEWORK_MARK = 14;
constexpr char REMOTE_MARK = 15;

constexpr char READ_RULE[] = "\x1drule=read";

// The log threshold of what is logged about every request.
int32_t Traced() {
    return qorIsPollOrTrace ? LOG_TRACE : LOG_DETAIL;
}

// A stretch of text, without a terminator of its own. Null `from` for none.
struct Piece {
    const char *from;
    const char *to;
};

const char *Find(const Piece &text, char c) {
    return text.from < text.to
               ? static_cast<const char *>(memchr(text.from, c, static_cast<size_t>(text.to - text.from)))
               : nullptr;
}

// The head of a text that may be as long as a reply.
struct Excerpt {
    explicit Excerpt(const char *from) { QorStrncpy(text, from, sizeof text, sizeof text); }
    char text[80] = "";
};

// ---- What goes to Java -----------------------------------------------------------------------------------

struct JavaArguments {
    jobjectArray threads;
    jobjectArray strings;
    jlongArray ids;
    jstring minusOne, zero; // nearly every number is one of these
    jstring lastNumber;     // another one, with its value: depths are alike
    int32_t lastValue;
    jobjectArray found; // the threads by block, null where the blocks have references
    jint count;         // threads that went in
};

jstring MakeText(JNIEnv *env, const char *text) {
    jstring made = env->NewStringUTF(text);
    QorDescribeException(env);
    return made;
}

void Store(JNIEnv *env, const JavaArguments &to, int32_t number, jstring text) {
    env->SetObjectArrayElement(to.strings, to.count * TEXTS_PER_THREAD + number, text);
}

// Puts text `number` of the current thread. The array is made of empty texts.
void PutText(JNIEnv *env, const JavaArguments &to, int32_t number, const char *text) {
    if (!text[0])
        return;
    jstring made = MakeText(env, text);
    Store(env, to, number, made);
    QorDeleteLocalRef(env, made);
}

void PutNumber(JNIEnv *env, JavaArguments *to, int32_t number, int32_t value) {
    if (value == -1 || value == 0) {
        Store(env, *to, number, value ? to->minusOne : to->zero);
        return;
    }
    if (!to->lastNumber || to->lastValue != value) {
        char storage[24];
        QorText text;
        QorTextStart(&text, storage, sizeof storage);
        QorTextAppendNumber(&text, value);
        QorDeleteLocalRef(env, to->lastNumber);
        to->lastNumber = MakeText(env, storage);
        to->lastValue = value;
    }
    Store(env, *to, number, to->lastNumber);
}

int32_t YesNoOrUnknown(int32_t value) {
    return value == 0 || value == 1 ? value : -1;
}

void PutTexts(JNIEnv *env, JavaArguments *to, const QorE2EBlock &block) {
    PutNumber(env, to, 0, block.frameCount);
    PutNumber(env, to, 1, YesNoOrUnknown(block.stuckAndHogger[0]));
    PutNumber(env, to, 2, YesNoOrUnknown(block.stuckAndHogger[1]));
    PutText(env, *to, 3, block.ioFile);
    PutText(env, *to, 4, block.applicationName);
    PutText(env, *to, 5, block.moduleName);
    PutText(env, *to, 6, block.wmName);
    PutText(env, *to, 7, block.sessionId);
    PutNumber(env, to, 8, block.networkPort);
    PutText(env, *to, 9, block.networkHost);
}

// Whether the thread of this block, the list's `index`th, went in.
bool PutThread(JNIEnv *env, const JavaArguments &to, const QorE2EBlock &block, jsize index) {
    jobject element = to.found ? QorGetObjectArrayElement(env, to.found, index) : nullptr;
    if (!block.directRef && !element) {
        QORLOG(LOG_ERROR, "Thread object NULL");
        return false;
    }
    jobject thread = element ? element : block.threadRef;
    if (!thread)
        return false;
    env->SetObjectArrayElement(to.threads, to.count, thread);
    const bool put = !QorDescribeException(env);
    QorDeleteLocalRef(env, element);
    return put;
}

jobjectArray MakeArray(JNIEnv *env, jsize count, jclass klass, jobject element) {
    jobjectArray made = env->NewObjectArray(count, klass, element);
    QorDescribeException(env);
    return made;
}

// The arrays for `count` threads, or false.
bool MakeArrays(JNIEnv *env, jsize count, JavaArguments *made) {
    jstring empty = MakeText(env, "");
    made->minusOne = MakeText(env, "-1");
    made->zero = MakeText(env, "0");
    made->threads = MakeArray(env, count, jobjclass, nullptr);
    made->strings = MakeArray(env, count * TEXTS_PER_THREAD, jstringclass, empty);
    made->ids = env->NewLongArray(count);
    QorDescribeException(env);
    if (empty && made->minusOne && made->zero && made->threads && made->strings && made->ids)
        return true;
    QORLOG(LOG_ERROR, "checkAndAppendInfo : Not able to allocate memory for thread_array");
    return false;
}

// Hands the threads over, packed: one that can't go leaves no gap, and the arrays' rest stays null.
void PutThreads(JNIEnv *env, jsize blocks, jlong *ids, JavaArguments *to) {
    jsize index = 0;
    for (QorE2EBlock *block = thread_e2e_info; block; block = block->next) {
        block->valid = PutThread(env, *to, *block, index++);
        if (!block->valid)
            continue;
        ids[to->count] = block->osThreadId;
        PutTexts(env, to, *block);
        to->count++;
    }
    for (jsize i = to->count * TEXTS_PER_THREAD; i < blocks * TEXTS_PER_THREAD; i++)
        env->SetObjectArrayElement(to->strings, i, nullptr);
    if (to->count < blocks)
        env->SetObjectArrayElement(to->threads, to->count, nullptr);
    env->SetLongArrayRegion(to->ids, 0, blocks, ids);
    QorDescribeException(env);
}

bool GatherArguments(JNIEnv *env, QorThreadFinder find, JavaArguments *arguments) {
    *arguments = {};
    jsize blocks = 0;
    for (const QorE2EBlock *block = thread_e2e_info; block; block = block->next)
        blocks++;
    if (!blocks) {
        QORLOG(LOG_DETAIL, "checkAndAppendInfo : no active threads");
        return false;
    }
    if (find && !(arguments->found = find(env, thread_e2e_info)))
        return false;
    auto *ids = static_cast<jlong *>(calloc(static_cast<size_t>(blocks), sizeof(jlong)));
    if (!ids) {
        QORLOG(LOG_ERROR, "Malloc Failed.Not able to allocate memory");
        return false;
    }
    const bool made = MakeArrays(env, blocks, arguments);
    if (made)
        PutThreads(env, blocks, ids, arguments);
    free(ids);
    return made;
}

// The answer, or null.
jstring CallJava(JNIEnv *env, const JavaArguments &arguments, bool systemData) {
    flagcompiled_java_code = 1;
    jstring answer = nullptr;
    jmethodID method = env->GetStaticMethodID(
        e2eclass, "cjavacalls", "([Ljava/lang/Object;[J[Ljava/lang/String;III)Ljava/lang/String;");
    if (!QorDescribeException(env) && method) {
        answer = static_cast<jstring>(
            env->CallStaticObjectMethod(e2eclass, method, arguments.threads, arguments.ids, arguments.strings,
                                        arguments.count, jint{systemData}, jint{qorIsPollOrTrace}));
        if (QorDescribeException(env))
            answer = nullptr;
    }
    flagcompiled_java_code = 0;
    return answer;
}

// ---- What comes back -------------------------------------------------------------------------------------

// The text being merged.
struct Merge {
    Piece reply;         // what is not yet dealt with
    const char *viewEnd; // in the reply, where the view's own text ends
    Piece answer;        // the same
    QorText out;
};

// One thread's part of the reply. `state` is where its state field begins, at the level of the marks only.
struct ReplyPart {
    const char *end;
    const char *state;
    bool hasRemote;
};

// One thread's text in the answer.
struct AnswerPart {
    Piece framework;
    Piece remote;
    Piece endToEnd;
};

// Copies a piece whole, or false.
bool Put(Merge *merge, const Piece &piece) {
    const auto wanted = static_cast<int32_t>(piece.to - piece.from);
    if (wanted == 0)
        return true;
    int32_t copied = wanted;
    QorStrncpy2(merge->out.text + merge->out.length, piece.from, merge->out.size - merge->out.length,
                &copied);
    merge->out.length += copied;
    return copied == wanted;
}

// A section end in the middle of a record would tear the reply apart.
bool PutFromAnswer(Merge *merge, const Piece &piece) {
    return !Find(piece, SECTION_END) && Put(merge, piece);
}

// Copies up to a section's title, its record end included, so that the rows follow.
bool PutHeader(Merge *merge, const char *title) {
    const char *found = QorStrstr(merge->reply.from, title);
    const char *end = found ? Find({found, merge->reply.to}, RECORD_END) : nullptr;
    if (!end)
        return true;
    const Piece header = {merge->reply.from, end + 1};
    merge->reply.from = header.to;
    return Put(merge, header);
}

// The title of the next record: at the start of the reply or after a section. Anywhere else the words
// are a value's.
const char *FindRecordTitle(const char *from) {
    const char *found = strstr(from, TITLE_THREAD_DETAILS);
    while (found && found != pagebuf && found[-1] != SECTION_END)
        found = strstr(found + 1, TITLE_THREAD_DETAILS);
    return found;
}

// Finds where the next thread's part ends; false when the reply has no more.
bool FindReplyPart(const Merge &merge, ReplyPart *part) {
    *part = {};
    const char *row = merge.reply.from;
    if (reqid & QORREQ_POLL_DETAILS) {
        row = FindRecordTitle(row);
        if (!row)
            return false;
        if (!qorIsPollOrTrace)
            QORLOG(LOG_DETAIL, "checkAppendInfo: Patching next thread: %.10s", row);
        part->end = Find({row, merge.reply.to}, SECTION_END);
    } else {
        QORLOG(Traced(), "checkAppendInfo: request is not QORREQ_POLL_DETAILS . reqid=%d",
               static_cast<int32_t>(reqid));
        // The row before ends where this one begins.
        part->end = Find({row + (*row == RECORD_END), merge.reply.to}, RECORD_END);
        if (!QorOnJvmtiRoad() && row < merge.viewEnd &&
            (!part->end || part->end >= merge.viewEnd)) // the last row's: the section's
            part->end = static_cast<const char *>(
                memrchr(row, SECTION_END, static_cast<size_t>(merge.viewEnd - row)));
    }
    if (!part->end)
        return false;
    if (gbiOptimizationLevel != MARKED_LEVEL)
        return true;

    const char *mark = Find({row, part->end}, STATE_MARK);
    if (!mark)
        return false;
    part->state = mark + 1;
    QORLOG(Traced(), "old_statestart=%.10s", part->state);
    const Piece state = {part->state, part->end};
    const char *remote = Find(state, FIELD_COUNT_MARK);
    if (!remote)
        remote = Find(state, RMI_MARK);
    part->hasRemote = remote;
    if (remote)
        QORLOG(Traced(), "Found RMI or DB: old_rmidbstart=%.10s", remote);
    return true;
}

// The text between two marks; none unless both are there.
Piece Enclosed(const Piece &text, char mark) {
    const char *open = Find(text, mark);
    const char *close = open ? Find({open + 1, text.to}, mark) : nullptr;
    return close ? Piece{open + 1, close} : Piece{};
}

// Takes the next thread's text off the answer; false when it isn't whole.
bool TakeAnswerPart(Merge *merge, AnswerPart *part) {
    const char *end = Find(merge->answer, RECORD_END);
    const Piece text = {merge->answer.from, end};
    if (!end || !Find(text, FIELD_SEP))
        return false;
    QORLOG(Traced(), "checkAppendInfo: Processing from ext_ returns for Thread : %.10s", text.from);
    merge->answer.from = end + 1;
    *part = {Enclosed(text, FRAMEWORK_MARK), Enclosed(text, REMOTE_MARK), {Find(text, FIELD_SEP), end}};
    // Marked texts before the start mark may hold separators of their own.
    for (const Piece &marked : {part->framework, part->remote})
        if (marked.from && marked.from <= part->endToEnd.from && marked.to >= part->endToEnd.from)
            part->endToEnd.from = Find({marked.to, end}, FIELD_SEP);
    return part->endToEnd.from;
}

// At the level of the marks the answer may be in place of the state field and of what follows it.
bool PutMarked(Merge *merge, const ReplyPart &old, AnswerPart *part) {
    for (const Piece &marked : {part->framework, part->remote})
        if (marked.from && marked.to >= part->endToEnd.from)
            part->endToEnd.from = marked.to + 1;
    const bool framework = part->framework.from;
    const bool remote = part->remote.from && old.hasRemote;
    if (framework)
        QORLOG(Traced(), "Found ext_qrfstart=%.10s , ext_e2estart=%.10s", part->framework.from,
               part->endToEnd.from);
    else
        QORLOG(Traced(), "No ext_qrf ");
    if (part->remote.from)
        QORLOG(Traced(), "Found ext_rmidbstart=%.10s , ext_e2estart=%.10s", part->remote.from,
               part->endToEnd.from);
    else
        QORLOG(Traced(), "No ext_rmidb");
    if (framework)
        QORLOG(Traced(), "Will patch QRF");
    if (remote)
        QORLOG(Traced(), "Will patch RMI / DB");

    if (!Put(merge, {merge->reply.from, old.state - 1}))
        return false;
    if (framework && !PutFromAnswer(merge, part->framework))
        return false;
    return remote ? PutFromAnswer(merge, part->remote) : Put(merge, {old.state, old.end});
}

// The thread's figures and details, with the agent's own mark after the figures.
bool PutEndToEnd(Merge *merge, const Piece &text, bool byReadRule) {
    const char *behind = byReadRule ? Find({text.from + 1, text.to}, FIELD_SEP) : nullptr;
    const Piece figures = {text.from, behind ? behind : text.to};
    return PutFromAnswer(merge, figures) &&
           (!byReadRule || Put(merge, {READ_RULE, READ_RULE + sizeof READ_RULE - 1})) &&
           PutFromAnswer(merge, {figures.to, text.to});
}

bool MergeThread(Merge *merge, QorE2EBlock *block, int32_t number) {
    ReplyPart old;
    if (!FindReplyPart(*merge, &old))
        return false;
    block->patchPoint = pagebuf + (old.end - pagebuf);
    const bool marked = gbiOptimizationLevel == MARKED_LEVEL && block->valid;
    if (!marked) {
        if (!Put(merge, {merge->reply.from, old.end}))
            return false;
        QORLOG(Traced(), "Patched up to Callstack. console_buf_orig=%s", Excerpt(old.end).text);
    }
    if (block->valid) {
        AnswerPart part;
        if (!TakeAnswerPart(merge, &part) || (marked && !PutMarked(merge, old, &part)))
            return false;
        QORLOG(Traced(), "checkAndAppendInfo: processing chunk=%d", number);
        if (!PutEndToEnd(merge, part.endToEnd, block->byReadRule))
            return false;
    }
    merge->reply.from = old.end;
    return true;
}

bool MergeAll(Merge *merge) {
    if ((reqid & QORREQ_ACTIVE_THREADS) && !PutHeader(merge, TITLE_ACTIVE_THREADS))
        return false;
    if ((reqid & QORREQ_MEMORY_ACTIVITY) && !PutHeader(merge, TITLE_MEMORY_ACTIVITY))
        return false;
    int32_t number = 0;
    for (QorE2EBlock *block = thread_e2e_info; block; block = block->next)
        if (!MergeThread(merge, block, number++))
            return false;
    return Put(merge, merge->reply);
}

// Appends the leading system data to the reply, where it stays whatever becomes of the threads' texts.
bool TakeSystemData(Piece *answer, QorText *reply) {
    const char *end = Find(*answer, SECTION_END);
    if (!end)
        return false;
    const auto length = static_cast<int32_t>(end + 1 - answer->from);
    QORLOG(Traced(), "Appending Java System Data to console_buf");
    if (length >= LARGEST_REPLY - reply->length)
        return false;
    QorTextAppend(reply, answer->from, length);
    answer->from = end + 1;
    return true;
}

void MergeAnswer(const char *answer, bool systemData) {
    if (!answer || !answer[0]) {
        QORLOG(LOG_ERROR, "charbuffer is NULL ");
        return;
    }
    QORLOG(Traced(), "checkAppendInfo: Before patching. pagebuf is=%s", pagebuf);
    QORLOG(Traced(), "checkAppendInfo: cjavacalss return =%s", answer);
    QorText reply;
    QorTextContinue(&reply, pagebuf, PAGEBUF_SIZE);
    Merge merge = {};
    merge.viewEnd = pagebuf + reply.length;
    merge.answer = {answer, answer + strlen(answer)};
    if (systemData && !TakeSystemData(&merge.answer, &reply))
        return;
    merge.reply = {pagebuf, pagebuf + reply.length};

    int64_t wanted = int64_t{reply.length} + (merge.answer.to - merge.answer.from) + 1;
    for (const QorE2EBlock *block = thread_e2e_info; block; block = block->next)
        wanted += block->byReadRule ? sizeof READ_RULE : 0;
    const auto size = static_cast<int32_t>(std::min<int64_t>(wanted, PAGEBUF_SIZE));
    char *storage = static_cast<char *>(malloc(static_cast<size_t>(size)));
    if (!storage) {
        QORLOG(LOG_ERROR, "Malloc Failed");
        return;
    }
    QorTextStart(&merge.out, storage, size);
    if (MergeAll(&merge)) {
        QorStrncpy(pagebuf, storage, PAGEBUF_SIZE, merge.out.length);
        QORLOG(Traced(), "checkAppendInfo: After patching. pagebuf is=%s", pagebuf);
    }
    free(storage);
}

// The timing line, which a reply of the direct road has already. Cut off for the merge, it comes last again.
struct TimingLine {
    char text[sizeof TITLE_TIME_SPENT + 32] = "";

    TimingLine() {
        if (QorOnJvmtiRoad())
            return;
        const size_t length = strlen(pagebuf);
        char *from = pagebuf + length - std::min(length, sizeof text - 1);
        if (char *line = strstr(from, TITLE_TIME_SPENT)) {
            snprintf(text, sizeof text, "%s", line);
            *line = 0;
        }
    }
    ~TimingLine() {
        QorText reply;
        QorTextContinue(&reply, pagebuf, PAGEBUF_SIZE);
        QorTextAppend(&reply, text);
    }
    TimingLine(const TimingLine &) = delete;
    TimingLine &operator=(const TimingLine &) = delete;
};

// A poll without stacks has no place for an answer.
bool CanMerge() {
    return !(reqid & QORREQ_POLL_DETAILS) || strstr(pagebuf, TITLE_THREAD_DETAILS);
}

void AskAndMerge(JNIEnv *env, QorThreadFinder find) {
    const QorLocalFrame frame(env, FRAME_CAPACITY);
    if (!frame.pushed) {
        QORLOG(LOG_ERROR, "checkAndAppendInfo : Out of Memory when PushLocalFrame");
        return;
    }
    const bool systemData = get_system_data && (reqid & QORREQ_SAMPLING);
    if (!systemData && !CanMerge())
        return;
    JavaArguments arguments;
    if (!GatherArguments(env, find, &arguments))
        return;
    jstring answer = CallJava(env, arguments, systemData);
    if (!answer)
        return;
    const char *text = env->GetStringUTFChars(answer, nullptr);
    QorDescribeException(env);
    MergeAnswer(text, systemData);
    if (text)
        env->ReleaseStringUTFChars(answer, text);
}

} // namespace

void checkAndAppendInfo(JNIEnv *env, QorThreadFinder find) {
    if ((reqid & QORREQ_THREAD_DATA) && e2eclass && jobjclass && jstringclass) {
        pagebuf[PAGEBUF_SIZE - 1] = 0;
        const TimingLine timing;
        AskAndMerge(env, find);
        QORLOG(Traced(), "checkAppendInfo:Cleaning up before returning");
    }
    release_thread_e2e_info(env);
}
