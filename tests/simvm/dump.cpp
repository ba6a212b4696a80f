#include "dump.h"
#include "agent.h"
#include "heap.h"

#include <algorithm>
#include <fstream>

namespace simvm {

namespace {

struct Reader {
    HeapDump dump;
    Word base = RecordBase();
    DumpedObject *last = nullptr;

    Word Address(const std::string &text) const {
        const Word relative = strtoull(text.c_str(), nullptr, 16);
        return relative ? relative + base : 0;
    }
};

bool ReadRoot(Reader *reader, const std::vector<std::string> &parts) {
    if (parts.size() < 3 || parts[0].size() < 3)
        return false;
    const std::string &name = parts[parts.size() - 2];
    const Word address = reader->Address(parts[0].substr(2));
    if (name == "thread_local" || name.rfind("interpreter_frame_", 0) == 0)
        reader->dump.frames[parts[1] + "|" + name + " " + Hex(address)] = address;
    else
        reader->dump.roots.insert(parts[0].substr(1, 1) + " " + name + " " + Hex(address));
    return true;
}

// The text of a symbol is the rest of its line.
bool ReadObject(Reader *reader, const std::string &line, const std::vector<std::string> &parts) {
    const bool isArray = line[1] == '[';
    if (parts.size() < size_t(isArray) + 2)
        return false;
    const Word address = reader->Address(isArray ? parts[1] : parts[0].substr(2));
    DumpedObject object = {line.substr(0, 2) + "|" + parts[isArray + 1] + "|", {}};
    if (line[1] == '1')
        object.line += line.substr(parts[0].size() + parts[1].size() + 2) + "|";
    else
        for (size_t i = isArray + 2; i < parts.size(); i++)
            object.line += Hex(reader->Address(parts[i])) + "|";
    if (isArray)
        object.line += parts[0].substr(2) + "|";
    reader->dump.repeated += reader->dump.objects.count(address);
    reader->last = &(reader->dump.objects[address] = object);
    return true;
}

bool ReadReference(Reader *reader, char kind, const std::vector<std::string> &parts) {
    if (!reader->last || parts.size() != (kind == 'R' ? 1 : 2))
        return false;
    const std::string first = Hex(reader->Address(parts[0].substr(1)));
    reader->last->references.push_back(
        kind == 'R' ? "R " + first : kind + (" " + first) + ">" + Hex(reader->Address(parts[1])));
    return true;
}

bool ReadLine(Reader *reader, const std::string &line) {
    const std::vector<std::string> parts = Split(line, '|');
    if (line.size() < 2)
        return false;
    if (line[0] == 'S')
        return ReadRoot(reader, parts);
    if (strchr("ILR", line[0]))
        return ReadReference(reader, line[0], parts);
    if (strchr("POCEF", line[0]))
        return ReadObject(reader, line, parts);
    return line.rfind(" Finished ", 0) == 0 && (reader->dump.isFinished = true);
}

} // namespace

HeapDump ReadDump(const std::string &path) {
    Reader reader;
    std::ifstream in(path);
    std::string line;
    if (std::getline(in, line))
        reader.dump.header = Split(line, '|');
    while (std::getline(in, line))
        if (!ReadLine(&reader, line))
            reader.dump.strange.push_back(line);
    for (auto &[address, object] : reader.dump.objects)
        if (object.line[1] == '8') // fields are in any order, elements in theirs
            std::sort(object.references.begin(), object.references.end());
    return reader.dump;
}

} // namespace simvm
