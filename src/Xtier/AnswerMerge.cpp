#include "AnswerMerge.h"

#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "reply/qortext.h"
#include "reply/records.h"
#include "thread_e2e_info.h"

#include <algorithm>
#include <cstdlib>
#include <unistd.h>

namespace {

constexpr int32_t LARGEST_REPLY = PAGEBUF_SIZE - 1; // a text of this length or more is too long
constexpr int32_t MARKED_LEVEL = 3;                 // the state field is set off by marks and may be replaced

// Marks of the answer, beside those that it shares with the reply.
constexpr char FRAMEWORK_MARK = 14;
constexpr char REMOTE_MARK = 15;

// What the agent itself adds to a thread's figures.
constexpr char READ_RULE[] = "rule=read",
               VIRTUAL[] = "virtual=", CARRIES[] = "carries=", LOCK_OWNER[] = "owner=";
constexpr int32_t LONGEST_MARKS = NAME_SIZE + 128;

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
    const char *title = poll_details ? TITLE_THREAD_DETAILS : TITLE_ACTIVE_THREADS;
    const char *found = strstr(from, title);
    while (found && found != pagebuf && found[-1] != SECTION_END)
        found = strstr(found + 1, title);
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
        QORLOG(QorTracedAt(), "checkAppendInfo: request is not QORREQ_POLL_DETAILS . reqid=%d",
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
    QORLOG(QorTracedAt(), "old_statestart=%.10s", part->state);
    const Piece state = {part->state, part->end};
    const char *remote = Find(state, FIELD_COUNT_MARK);
    if (!remote)
        remote = Find(state, RMI_MARK);
    part->hasRemote = remote;
    if (remote)
        QORLOG(QorTracedAt(), "Found RMI or DB: old_rmidbstart=%.10s", remote);
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
    QORLOG(QorTracedAt(), "checkAppendInfo: Processing from ext_ returns for Thread : %.10s", text.from);
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
        QORLOG(QorTracedAt(), "Found ext_qrfstart=%.10s , ext_e2estart=%.10s", part->framework.from,
               part->endToEnd.from);
    else
        QORLOG(QorTracedAt(), "No ext_qrf ");
    if (part->remote.from)
        QORLOG(QorTracedAt(), "Found ext_rmidbstart=%.10s , ext_e2estart=%.10s", part->remote.from,
               part->endToEnd.from);
    else
        QORLOG(QorTracedAt(), "No ext_rmidb");
    if (framework)
        QORLOG(QorTracedAt(), "Will patch QRF");
    if (remote)
        QORLOG(QorTracedAt(), "Will patch RMI / DB");

    if (!Put(merge, {merge->reply.from, old.state - 1}))
        return false;
    if (framework && !PutFromAnswer(merge, part->framework))
        return false;
    return remote ? PutFromAnswer(merge, part->remote) : Put(merge, {old.state, old.end});
}

void AppendPartner(QorText *out, const char *word, int64_t partnerId) {
    char key[THREAD_KEY_SIZE] = "^";
    if (partnerId != 0)
        QorFormatThreadKey(key, getpid(), partnerId);
    QorTextAppendChar(out, FIELD_SEP);
    QorTextAppend(out, word);
    QorTextAppend(out, key);
}

// Fields for what the agent itself knows of the thread.
void AppendMarks(QorText *out, const QorE2EBlock &block) {
    if (block.byReadRule) {
        QorTextAppendChar(out, FIELD_SEP);
        QorTextAppend(out, READ_RULE);
    }
    if (block.isVirtual)
        AppendPartner(out, VIRTUAL, block.partnerId);
    else if (block.partnerId != 0)
        AppendPartner(out, CARRIES, block.partnerId);
    if (block.lockOwner) {
        QorTextAppendChar(out, FIELD_SEP);
        QorTextAppend(out, LOCK_OWNER);
        QorTextAppend(out, block.lockOwner);
    }
}

bool HasMarks(const QorE2EBlock &block) {
    return block.byReadRule || block.isVirtual || block.partnerId != 0 || block.lockOwner;
}

// The thread's figures and details, with the agent's own marks after the figures.
bool PutEndToEnd(Merge *merge, const Piece &text, const QorE2EBlock &block) {
    char storage[LONGEST_MARKS];
    QorText marks;
    QorTextStart(&marks, storage, sizeof storage);
    AppendMarks(&marks, block);
    const char *behind = marks.length ? Find({text.from + 1, text.to}, FIELD_SEP) : nullptr;
    const Piece figures = {text.from, behind ? behind : text.to};
    return PutFromAnswer(merge, figures) && Put(merge, {marks.text, marks.text + marks.length}) &&
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
        QORLOG(QorTracedAt(), "Patched up to Callstack. console_buf_orig=%s", Excerpt(old.end).text);
    }
    if (block->valid) {
        AnswerPart part;
        if (!TakeAnswerPart(merge, &part) || (marked && !PutMarked(merge, old, &part)))
            return false;
        QORLOG(QorTracedAt(), "checkAndAppendInfo: processing chunk=%d", number);
        if (!PutEndToEnd(merge, part.endToEnd, *block))
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
    QORLOG(QorTracedAt(), "Appending Java System Data to console_buf");
    if (length >= LARGEST_REPLY - reply->length)
        return false;
    QorTextAppend(reply, answer->from, length);
    answer->from = end + 1;
    return true;
}

} // namespace

int32_t QorTracedAt() {
    return qorIsPollOrTrace ? LOG_TRACE : LOG_DETAIL;
}

void QorMergeAnswer(const char *answer, bool systemData) {
    if (!answer || !answer[0]) {
        QORLOG(LOG_ERROR, "charbuffer is NULL ");
        return;
    }
    QORLOG(QorTracedAt(), "checkAppendInfo: Before patching. pagebuf is=%s", pagebuf);
    QORLOG(QorTracedAt(), "checkAppendInfo: cjavacalss return =%s", answer);
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
        wanted += HasMarks(*block) ? LONGEST_MARKS : 0;
    const auto size = static_cast<int32_t>(std::min<int64_t>(wanted, PAGEBUF_SIZE));
    char *storage = static_cast<char *>(malloc(static_cast<size_t>(size)));
    if (!storage) {
        QORLOG(LOG_ERROR, "Malloc Failed");
        return;
    }
    QorTextStart(&merge.out, storage, size);
    if (MergeAll(&merge)) {
        QorStrncpy(pagebuf, storage, PAGEBUF_SIZE, merge.out.length);
        QORLOG(QorTracedAt(), "checkAppendInfo: After patching. pagebuf is=%s", pagebuf);
    }
    free(storage);
}
