#include "dump.h"
#include "heap.h"

#include <algorithm>
#include <fstream>
#include <sstream>

namespace simvm {

namespace {

struct Reader {
    HeapDump dump;
    Word base = RecordBase();
    DumpedObject *last = nullptr;

    Word Address(const std::string &text) const {
        Word relative = strtoull(text.c_str(), nullptr, 16);
        return relative ? relative + base : 0;
    }
};

std::vector<std::string> Parts(const std::string &line) {
    std::vector<std::string> parts;
    std::stringstream in(line);
    for (std::string part; std::getline(in, part, '|');)
        parts.push_back(part);
    if (!line.empty() && line.back() == '|')
        parts.emplace_back();
    return parts;
}

bool ReadRoot(Reader *reader, const std::vector<std::string> &parts) {
    if (parts.size() < 3 || parts[0].size() < 3)
        return false;
    size_t name = parts.size() - 2;
    DumpedRoot root = {parts[0][1], "", parts[name], atoi(parts.back().c_str()),
                       reader->Address(parts[0].substr(2))};
    for (size_t i = 1; i < name; i++)
        root.prefix += parts[i] + "|";
    reader->dump.roots.push_back(root);
    return true;
}

// The text of a symbol is the rest of its line.
bool ReadObject(Reader *reader, const std::string &line, const std::vector<std::string> &parts) {
    size_t at = line[1] == '[' ? 1 : 0;
    if (parts.size() < at + 2)
        return false;
    DumpedObject object;
    object.space = line[0];
    object.type = line[1];
    if (at)
        object.length = strtoll(parts[0].c_str() + 2, nullptr, 16);
    Word address = reader->Address(at ? parts[1] : parts[0].substr(2));
    object.bytes = strtoll(parts[at + 1].c_str(), nullptr, 16);
    if (object.type == '1')
        object.text = line.substr(parts[0].size() + 1 + parts[1].size() + 1);
    else
        for (size_t i = at + 2; i < parts.size(); i++)
            object.symbols.push_back(reader->Address(parts[i]));
    reader->dump.repeated += reader->dump.objects.count(address);
    reader->last = &(reader->dump.objects[address] = object);
    return true;
}

bool ReadReference(Reader *reader, char kind, const std::vector<std::string> &parts) {
    DumpedObject *holder = reader->last;
    if (!holder || parts.size() != (kind == 'R' ? 1 : 2))
        return false;
    Word first = reader->Address(parts[0].substr(1));
    if (kind == 'R')
        holder->elements.push_back(first);
    else
        (kind == 'I' ? holder->fields : holder->links).push_back({first, reader->Address(parts[1])});
    return true;
}

bool ReadLine(Reader *reader, const std::string &line) {
    std::vector<std::string> parts = Parts(line);
    if (line.size() < 2)
        return false;
    switch (line[0]) {
    case 'S':
        return ReadRoot(reader, parts);
    case 'I':
    case 'L':
    case 'R':
        return ReadReference(reader, line[0], parts);
    case 'P':
    case 'O':
    case 'C':
    case 'E':
    case 'F':
        return ReadObject(reader, line, parts);
    default:
        return line.rfind(" Finished ", 0) == 0 && (reader->dump.finished = true);
    }
}

} // namespace

HeapDump ReadDump(const std::string &path) {
    Reader reader;
    std::ifstream in(path);
    std::string line;
    if (std::getline(in, line))
        reader.dump.header = Parts(line);
    while (std::getline(in, line))
        if (!ReadLine(&reader, line))
            reader.dump.strange.push_back(line);
    for (auto &[address, object] : reader.dump.objects)
        std::sort(object.fields.begin(), object.fields.end());
    return reader.dump;
}

} // namespace simvm
