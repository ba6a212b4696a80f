#include "render_dump.h"

#include "render_memory.h"

#include <algorithm>
#include <fmt/format.h>

namespace qorctl {

namespace {

std::string NameOf(const std::string &name, int64_t number) {
    return name.empty() ? fmt::format("(class {}, without a name)", number) : name;
}

// What isn't known is said: the size of some objects, or of all.
std::string BytesText(const DumpClass &entry) {
    if (entry.bytes == 0 && !entry.bytes_all)
        return "?";
    return (entry.bytes_all ? "" : ">= ") + SizeText(entry.bytes);
}

std::string ClassTable(const DumpSummary &dump, size_t rows, const Style &style) {
    Table table({{"OBJECTS", true}, {"SIZE", true}, {"CLASS"}});
    bool unknown = false;
    for (size_t i = 0; i < rows; ++i) {
        const DumpClass &entry = dump.classes[i];
        unknown |= !entry.bytes_all;
        table.Add({CountText(entry.objects), BytesText(entry), NameOf(entry.name, entry.number)});
    }
    std::string text = table.Text(style);
    if (rows < dump.classes.size())
        text += fmt::format("the largest {} of {} classes; --top shows more\n", rows, dump.classes.size());
    if (unknown)
        text += "? and >=: a dump has no size for objects that refer to nothing, nor for empty arrays\n";
    return text;
}

std::string ArrayTable(const DumpSummary &dump, const Style &style) {
    Table table({{"ELEMENTS", true}, {"SIZE", true}, {"ARRAY"}, {"OBJECT", true}});
    for (const DumpArray &array : dump.arrays)
        table.Add({CountText(array.elements), SizeText(array.bytes),
                   NameOf(array.class_name, array.class_number),
                   fmt::format(fmt::runtime(dump.by_address ? "{:x}" : "{}"), array.object)});
    return table.Text(style);
}

std::string RootTable(const DumpSummary &dump, const Style &style) {
    Table table({{"ROOTS", true}, {"KIND"}});
    for (int i = 0; i < ROOT_KINDS; ++i)
        if (dump.roots[i] > 0)
            table.Add({CountText(dump.roots[i]), std::string(DUMP_ROOT_NAMES[i].label)});
    return table.Text(style);
}

} // namespace

std::string DumpText(const DumpSummary &dump, size_t top, const Style &style) {
    std::string text =
        fmt::format("heap of {} {} on {}: {} used of {}\n", Printable(dump.vendor), Printable(dump.version),
                    Printable(dump.host), SizeText(dump.used_kib * KIB), SizeText(dump.max_kib * KIB));
    text += fmt::format("{} objects of {} classes, {} references, {} of known size\n\n",
                        CountText(dump.objects), CountText(static_cast<int64_t>(dump.classes.size())),
                        CountText(dump.references), SizeText(dump.bytes));
    text += ClassTable(dump, std::min(top, dump.classes.size()), style) + "\n";
    if (!dump.arrays.empty())
        text += ArrayTable(dump, style) + "\n";
    text += RootTable(dump, style);
    if (!dump.by_address)
        text += "what only a Class object's own fields hold hangs on an Object[] of the agent's, not on its "
                "class\n";
    if (!dump.seconds)
        text += "the dump has no end: it failed, or is still being written\n";
    else if (dump.named_classes == 0 && !dump.by_address)
        text += "the dump names no class: the agent could not list them\n";
    return text;
}

Json DumpJson(const DumpSummary &dump, size_t top) {
    Json classes = Json::array(), arrays = Json::array(), roots = Json::object();
    for (size_t i = 0; i < std::min(top, dump.classes.size()); ++i) {
        const DumpClass &entry = dump.classes[i];
        classes.push_back({{"class", entry.name.empty() ? Json() : Json(entry.name)},
                           {"number", entry.number},
                           {"objects", entry.objects},
                           {"bytes", entry.bytes == 0 && !entry.bytes_all ? Json() : Json(entry.bytes)},
                           {"bytes_complete", entry.bytes_all}});
    }
    for (const DumpArray &array : dump.arrays)
        arrays.push_back({{"class", array.class_name.empty() ? Json() : Json(array.class_name)},
                          {"object", array.object},
                          {"elements", array.elements},
                          {"bytes", array.bytes}});
    for (int i = 0; i < ROOT_KINDS; ++i)
        roots[DUMP_ROOT_NAMES[i].key] = dump.roots[i];
    return {{"heap_id", dump.heap_id},
            {"time", dump.time},
            {"host", dump.host},
            {"vendor", dump.vendor},
            {"version", dump.version},
            {"max_kib", dump.max_kib},
            {"used_kib", dump.used_kib},
            {"objects", dump.objects},
            {"bytes", dump.bytes},
            {"references", dump.references},
            {"classes_with_objects", dump.classes.size()},
            {"classes", classes},
            {"largest_arrays", arrays},
            {"roots", roots},
            {"complete", dump.seconds.has_value()},
            {"seconds", dump.seconds ? Json(*dump.seconds) : Json()}};
}

} // namespace qorctl
