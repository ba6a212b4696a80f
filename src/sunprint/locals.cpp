#include "locals.h"

#include "fields.h"
#include "frame_locals.h"
#include "object_print.h"

#include "qorlog.h"
#include "reply/qorformat.h"

#include "qorutil/vm_heap.h"
#include "qorutil/vm_reader.h"
#include "root_lines.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

constexpr char TITLE_FRAME[] = "Frame", TITLE_CLASS[] = "This Class", TITLE_OBJECT[] = "This Object";
constexpr char ROOT_NAME[] = "thread_local";
constexpr char LOCALS_WORD[] = "Method Locals";
constexpr char NO_LOCALS[] = "No Locals available";
constexpr char NO_FRAME[] = "This Frame does not exist on JVM", NO_METHOD[] = "Method not found on JVM";
constexpr char CLASS_LABEL[] = "View This Class", BAD_CLASS[] = "Invalid This Class";
constexpr char BAD_OBJECT[] = "Invalid Object", BAD_THIS_OBJECT[] = "Invalid This Object";

// The frame that is shown; large, and the worker alone shows one.
struct Shown {
    QorFrameLocals locals;
    char className[VM_SYMBOL_SIZE], methodName[VM_SYMBOL_SIZE], signature[VM_SYMBOL_SIZE];
    char objectName[VM_SYMBOL_SIZE];
    QorArgument argument;
} shown;

void AppendSentence(QorText *out, const char *text) {
    QorTextAppend(out, text);
    QorTextAppendChar(out, SECTION_END);
}

void AppendHead(QorText *out) {
    QorTextAppend(out, TITLE_FRAME);
    QorTextAppendChar(out, RECORD_END);
    QorTextAppend(out, shown.className);
    QorTextAppend(out, "->");
    AppendSentence(out, shown.methodName);
}

// What the frame runs in; an address of 0 is shown as a placeholder.
void AppendThis(QorText *out, const char *title, uint64_t address, QorViewFlag shownAs, const char *name) {
    char start[48];
    if (address)
        snprintf(start, sizeof start, "%" PRIx64 "%c%d%c", address, FIELD_SEP, shownAs, FIELD_SEP);
    else
        snprintf(start, sizeof start, "%s%c%s%c", null_str, FIELD_SEP, null_str, FIELD_SEP);
    QorTextAppend(out, title);
    QorTextAppendChar(out, RECORD_END);
    QorTextAppend(out, start);
    AppendSentence(out, name);
}

// The first object of exactly that class in the frame's part of the stack.
uint64_t SearchStack(const QorFrameLocals &locals) {
    uint64_t word = 0;
    for (uint64_t at = locals.frame->sp; at < locals.stackEnd; at += sizeof word)
        if (QorStackWord(*locals.frame, at, &word) && QorKlassOf(word) == locals.method.holder)
            return word;
    return 0;
}

// False when there is no object to show: then there is nothing else either.
bool ShowThis(QorText *out) {
    const QorFrameLocals &locals = shown.locals;
    const bool compiled = locals.frame->kind == WALKED_COMPILED;
    if (locals.method.isStatic) {
        const bool readable = valid_klass(locals.method.holder) != 0;
        AppendThis(out, TITLE_CLASS, readable ? locals.method.holder : 0, VIEW_CLASS,
                   !readable          ? BAD_CLASS
                   : *shown.className ? shown.className
                                      : CLASS_LABEL);
        return true;
    }
    uint64_t object = locals.receiver;
    if (compiled && !valid_oop(object))
        object = SearchStack(locals);
    if (compiled && !object) {
        AppendSentence(out, NO_LOCALS);
        return false;
    }
    if (QorClassNameOf(object, shown.objectName))
        AppendThis(out, TITLE_OBJECT, object, VIEW_OBJECT, shown.objectName);
    else
        AppendThis(out, TITLE_OBJECT, 0, VIEW_OBJECT, compiled ? BAD_OBJECT : BAD_THIS_OBJECT);
    return true;
}

void ShowLocals(QorText *out) {
    QorLocalRows rows = {out, nullptr, false};
    const char *at = nullptr;
    bool isArgument = shown.signature[0] != 0;
    for (QorLocal local;;) {
        isArgument = isArgument && meth_sig_parser(shown.signature, &at, &shown.argument);
        const char code = isArgument ? shown.argument.code : 0;
        if (!QorNextLocal(&shown.locals, code == 'J' || code == 'D', &local))
            break;
        if (code && strchr("ZBCSIJFD", code) && local.kind == LOCAL_OBJECT)
            local.kind = LOCAL_NUMBER;
        if (!QorAppendLocal(&rows, local, isArgument ? &shown.argument : nullptr))
            break;
    }
    QorEndLocals(&rows);
}

// The roots of a dump: of a compiled frame all of its stack that can be an object, of an interpreted one the
// slots that hold one.
void DumpRoots(QorDumpFile *dump) {
    QorFrameLocals &locals = shown.locals;
    const auto write = [dump](uint64_t object) {
        INLINE_DUMP_OOP_DETAILS(dump, object, ROOT_OF_FRAME, FRAME_LETTER, ROOT_NAME);
    };
    if (locals.frame->kind == WALKED_COMPILED) {
        uint64_t word = 0;
        for (uint64_t at = locals.frame->sp; at < locals.stackEnd; at += sizeof word)
            if (QorStackWord(*locals.frame, at, &word) && valid_oop(word))
                write(word);
        return;
    }
    if (locals.receiver)
        write(locals.receiver);
    for (QorLocal local; QorNextLocal(&locals, false, &local);)
        if (local.kind == LOCAL_OBJECT)
            write(local.bits);
}

// What the frame is, and why it isn't shown.
const char *FindFrame() {
    QorFrameLocals &locals = shown.locals;
    const QorFramePlace &frame = *locals.frame;
    if (QorReadMethod(frame.method, &locals.method) != FRAME_NAMED ||
        !QorHolderName(locals.method, shown.className) || !QorMethodName(locals.method, shown.methodName))
        return NO_METHOD;
    strip_slash(shown.className);
    QorMethodSignature(locals.method, shown.signature);
    switch (frame.kind == WALKED_COMPILED ? QorFindCompiledFrame(&locals)
                                          : QorFindInterpretedFrame(&locals)) {
    case FRAME_GONE:
        return NO_FRAME;
    case FRAME_WITHOUT_LOCALS:
        return NO_LOCALS;
    default:
        return nullptr;
    }
}

} // namespace

void PrintLocals(const QorFramePlace &frame, QorText *reply, QorDumpFile *dump) {
    if (frame.kind != WALKED_COMPILED && frame.kind != WALKED_INTERPRETED)
        return;
    shown = {};
    shown.locals.frame = &frame;
    const char *const why = FindFrame();
    if (!reply) {
        if (dump && (!why || why == NO_LOCALS)) // a native frame's arguments are on its stack
            DumpRoots(dump);
    } else if (why) {
        AppendSentence(reply, why);
    } else {
        AppendHead(reply);
        if (ShowThis(reply))
            ShowLocals(reply);
    }
}

void QorAnswerLocals(char *const *args, QorText *reply) {
    constexpr int32_t FIELDS = 5, TRIES = 2;
    uint64_t fields[FIELDS] = {};
    for (int32_t i = 1; i < FIELDS; i++)
        fields[i] = args[i] ? atoqoraddr(args[i]) : 0;
    const QorFramePlace frame = {args[0] ? atoi(args[0]) : 0, fields[1], fields[2], fields[3], fields[4]};
    const int32_t start = reply->length;
    for (int32_t i = 0; i < TRIES; i++) { // objects move in a collection
        QorTextCut(reply, start);
        QorForgetPages();
        const uint32_t collections = QorCollectionCount();
        const bool collecting = QorIsCollecting() != 0;
        QorNoteSpaces();
        PrintLocals(frame, reply, nullptr);
        if (!collecting && !QorIsCollecting() && QorCollectionCount() == collections)
            return;
    }
    QorTextCut(reply, start);
    AppendSentence(reply, NO_FRAME);
}

uint64_t parseMethodLocals(const char *text, const char *className) {
    const char *const locals = strstr(text, LOCALS_WORD);
    if (!locals) {
        QORLOG(LOG_NOTE, "Qor Agent Error: Frame does not contain locals %s ", className);
        return 0;
    }
    const char *const end = strchrnul(locals, SECTION_END);
    const size_t length = strlen(className);
    for (const char *row = strchr(locals, RECORD_END); row && row < end; row = strchr(row, RECORD_END)) {
        char *field = nullptr;
        const uint64_t address = strtoull(++row, &field, 16);
        const char *const second = *field == FIELD_SEP ? strchr(field + 1, FIELD_SEP) : nullptr;
        if (address && second && strncmp(second + 1, className, length) == 0 &&
            second[1 + length] == FIELD_SEP)
            return address;
    }
    QORLOG(LOG_NOTE, "Qor Agent Error:  Required local object info not present %s %s ", className, text);
    return 0;
}
