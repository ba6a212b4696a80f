#include "render_objects.h"

#include "render.h"

#include <fmt/format.h>

namespace qorctl {

namespace {

// Frames that run the same method have one number, so the agent reports their locals together.
size_t FramesOfMethod(const Thread &thread, const Frame &frame) {
    size_t count = 0;
    for (const Frame &other : thread.stack)
        count += frame.place ? &other == &frame : other.method_id == frame.method_id;
    return count;
}

std::string FieldValue(const ObjectField &field) {
    switch (field.kind) {
    case FieldKind::REFERENCE:
        return "->";
    case FieldKind::NONE:
        return "null";
    case FieldKind::NOT_SHOWN:
        return "(of its own class, not shown)";
    case FieldKind::VALUE:
        break;
    }
    return field.value;
}

Json ToJson(const ObjectField &field) {
    constexpr const char *KINDS[] = {"reference", "value", "null", "not shown"};
    return {{"name", field.name},
            {"modifier", field.modifier.empty() ? Json() : Json(field.modifier)},
            {"type", field.type},
            {"kind", KINDS[static_cast<int>(field.kind)]},
            {"tag", field.kind == FieldKind::REFERENCE ? Json(field.tag) : Json()},
            {"value", field.kind == FieldKind::VALUE ? Json(field.value) : Json()}};
}

} // namespace

std::string LocalsText(const Locals &locals, const Thread &thread, const Frame &frame, const Style &style) {
    std::string text = fmt::format("\"{}\" #{} frame {}: {}\n", Printable(thread.name), thread.key.thread,
                                   frame.index, Printable(CallText(frame)));
    if (locals.rows.empty())
        return text + "no objects in its locals (numbers in locals are not reported)\n";
    Table table({{"TAG", true}, {"TYPE"}, {"VALUE"}});
    for (const Local &local : locals.rows)
        table.Add({local.tag ? fmt::format("{}", *local.tag) : "-", local.type, local.value});
    text += table.Text(style);
    if (size_t frames = FramesOfMethod(thread, frame); frames > 1)
        text += fmt::format(
            "{} frames of this thread run the method; those beside each other are shown together\n", frames);
    if (locals.cut)
        text += "the reply reached the agent's limit, locals are missing\n";
    return text;
}

Json LocalsJson(const Locals &locals, const Thread &thread, const Frame &frame) {
    Json rows = Json::array();
    for (const Local &local : locals.rows)
        rows.push_back({{"tag", local.tag ? Json(*local.tag) : Json()},
                        {"type", local.type},
                        {"value", local.tag && !local.isText ? Json() : Json(local.value)}});
    return {{"thread", thread.key.thread},
            {"frame", frame.index},
            {"class", frame.class_name},
            {"method", frame.method},
            {"frames_of_method", FramesOfMethod(thread, frame)},
            {"locals", rows},
            {"cut", locals.cut}};
}

std::string ObjectText(const ObjectView &object, const Style &style) {
    std::string text;
    for (const ObjectClass &entry : object.classes) {
        std::string title = fmt::format("{} {}", Printable(entry.name),
                                        text.empty() ? fmt::format("tag {}", object.tag) : "");
        title.resize(title.find_last_not_of(' ') + 1);
        text += Coloured(title, BOLD, style) + "\n";
        if (entry.fields.empty()) {
            text += "no fields\n";
            continue;
        }
        Table table({{"TAG", true}, {"MODIFIER"}, {"TYPE"}, {"FIELD"}, {"VALUE"}});
        for (const ObjectField &field : entry.fields)
            table.Add({field.kind == FieldKind::REFERENCE ? fmt::format("{}", field.tag) : "-",
                       field.modifier, field.type, field.name, FieldValue(field)});
        text += table.Text(style);
    }
    if (object.cut)
        text += "the reply reached the agent's limit, fields are missing\n";
    return text;
}

Json ObjectJson(const ObjectView &object) {
    Json classes = Json::array();
    for (const ObjectClass &entry : object.classes) {
        Json fields = Json::array();
        for (const ObjectField &field : entry.fields)
            fields.push_back(ToJson(field));
        classes.push_back({{"class", entry.name}, {"fields", fields}});
    }
    return {{"tag", object.tag}, {"classes", classes}, {"cut", object.cut}};
}

} // namespace qorctl
