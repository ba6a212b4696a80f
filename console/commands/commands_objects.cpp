// The commands that open a frame's locals and an object.
#include "base/failure.h"
#include "command_tools.h"
#include "show/render_objects.h"
#include "thread_choice.h"
#include "wire/objects.h"
#include "wire/records.h"
#include "wire/request.h"

#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <iostream>
#include <unistd.h>

namespace qorctl {

namespace {

bool HasFields(const ObjectView &object) {
    return std::any_of(object.classes.begin(), object.classes.end(),
                       [](const ObjectClass &entry) { return !entry.fields.empty(); });
}

ObjectView RequireObject(const Settings &settings, pid_t pid, int64_t tag) {
    std::string reply = AskOnce(settings, pid, ObjectRequest(tag, false));
    ObjectView object = DecodeObject(OpenReply(reply), tag);
    if (IsAddress(tag) && !HasFields(object)) { // a class's own address: its statics
        ObjectView statics = DecodeObject(OpenReply(AskOnce(settings, pid, ObjectRequest(tag, true))), tag);
        if (!statics.classes.empty())
            object = statics;
    }
    if (object.classes.empty())
        throw Failure(
            fmt::format("the agent shows nothing for tag {}", tag),
            "it was never given or its object is gone; or the object is a plain java.lang.Object, or an "
            "array that is empty, holds a null or is of primitives. Take tags from 'locals' or 'object'");
    return object;
}

int64_t TagOfField(const ObjectView &object, std::string_view name) {
    const ObjectField *field = FindField(object, name);
    if (!field)
        throw Failure(fmt::format("the object {} has no field {}", object.tag, name),
                      "see its fields above it");
    if (field->kind == FieldKind::REFERENCE)
        return field->tag;
    const char *why = field->kind == FieldKind::NONE ? "is null"
                      : field->kind == FieldKind::NOT_SHOWN
                          ? "is of its own class, which the agent doesn't open"
                          : "holds a value, which is shown with the object";
    throw Failure(fmt::format("the field {} of object {} {}", name, object.tag, why), "follow another field");
}

// Goes from field to field, "bank.impl.fd".
ObjectView Follow(const Settings &settings, pid_t pid, ObjectView object, const std::string &path) {
    for (std::string_view name : Split(path, '.'))
        object = RequireObject(settings, pid, TagOfField(object, name));
    return object;
}

// Lets the user go on from object to object.
void Browse(Settings settings, pid_t pid, ObjectView object) {
    std::string line;
    for (;;) {
        Print("field, tag, or nothing to end> ");
        if (!std::getline(std::cin, line) || line.empty())
            return;
        int64_t tag = 0;
        settings.BeginRound();
        try {
            object = ReadNumber<int64_t>(line, &tag) ? RequireObject(settings, pid, tag)
                                                     : Follow(settings, pid, object, line);
            Print(ObjectText(object, TerminalStyle(settings)));
        } catch (const Failure &failure) {
            Print(FailureText(failure) + "\n");
        }
    }
}

} // namespace

void RunLocals(const Settings &settings, pid_t pid, const std::string &thread_name, int frame_index) {
    ThreadSample sample = RequireStack(settings, pid, thread_name);
    const Thread &thread = sample.threads[0];
    const Frame *frame = nullptr;
    for (const Frame &row : thread.stack)
        if (row.index == frame_index && !row.framework)
            frame = &row;
    if (!frame)
        throw Failure(fmt::format("thread {} shows {} frames, from 0 at the top; there is no frame {}",
                                  thread_name, thread.stack.size(), frame_index),
                      "count them in 'qorctl stack'");
    std::string reply = AskOnce(settings, pid, LocalsRequest(thread.key.thread, *frame));
    Locals locals = DecodeLocals(OpenReply(reply));
    if (!locals.refusal.empty())
        throw Failure(fmt::format("the agent answers \"{}\"", locals.refusal),
                      "the thread went on; ask again while it stays in the frame");
    PrintView(settings, 0, LocalsJson(locals, thread, *frame),
              LocalsText(locals, thread, *frame, TerminalStyle(settings)));
}

void RunObject(const Settings &settings, pid_t pid, const std::vector<int64_t> &tags,
               const std::string &follow) {
    Json all = Json::array();
    std::string text;
    ObjectView object;
    for (int64_t tag : tags) {
        object = RequireObject(settings, pid, tag);
        if (!follow.empty())
            object = Follow(settings, pid, object, follow);
        all.push_back(ObjectJson(object));
        text += (text.empty() ? "" : "\n") + ObjectText(object, TerminalStyle(settings));
    }
    PrintView(settings, 0, {{"objects", all}}, text);
    if (!settings.json && isatty(STDIN_FILENO) && isatty(STDOUT_FILENO))
        Browse(settings, pid, std::move(object));
}

} // namespace qorctl
