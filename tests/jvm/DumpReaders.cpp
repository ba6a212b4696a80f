#include "DumpReaders.h"

#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <sstream>

namespace {

// What leads where, from the lines of objects: whatever a reference leads to has been visited, an array of
// primitives by its record, anything else by naming its class. Classes are visited in another way.
void CheckReferences(TextDump *dump) {
    std::map<int64_t, std::set<int64_t>> reached; // by class
    std::set<int64_t> arrays;
    std::map<int64_t, std::string> names;
    int64_t object = -1, number = 0, size = 0, klass = 0, elements = 0;
    bool inArray = false;
    std::istringstream in(dump->body);
    for (std::string line; std::getline(in, line);) {
        if (line[0] != 'R' && inArray) {
            EXPECT_EQ(elements, 0) << "elements are missing in front of: " << line;
        }
        if (sscanf(line.c_str(), "A8%ld|%lx|%ld", &object, &size, &klass) == 3) {
            dump->classOf[object] = klass;
            inArray = false;
        } else if (sscanf(line.c_str(), "A[%lx|%ld|%lx|%ld", &elements, &number, &size, &klass) == 4) {
            inArray = klass > 99;
            arrays.insert(number);
            object = -1;
        } else if (line[0] == 'R' && inArray) {
            elements--;
        } else if (sscanf(line.c_str(), "R%ld|%ld|", &number, &klass) == 2 && object >= 0) {
            dump->references[object].push_back(number);
            reached[klass].insert(number);
        } else if (line[0] != 'R') {
            if (sscanf(line.c_str(), "B1%ld|%lx|", &number, &size) == 2)
                names.insert({number, line.substr(line.rfind('|') + 1)});
            inArray = false;
            object = line.compare(0, 3, "B0a") == 0 ? -1 : object;
        }
    }
    std::map<int64_t, int64_t> visited;
    for (const qorctl::DumpClass &entry : dump->summary.classes)
        visited[entry.number] = entry.objects;
    for (const auto &[of, numbers] : reached) {
        const std::string name = names[of];
        EXPECT_TRUE(of < 100 || name.empty() || name == "Ljava/lang/Class;" ||
                    visited[of] >= static_cast<int64_t>(numbers.size()))
            << "fewer objects of class " << of << " than are referred to";
        for (int64_t one : numbers)
            EXPECT_TRUE(of <= 0 || of > 99 || arrays.count(one)) << "array " << one << " was not visited";
    }
}

} // namespace

TextDump TextDump::Read(const std::string &path) {
    TextDump dump;
    dump.summary = qorctl::ReadTextDumpFile(path, SIZE_MAX);
    EXPECT_TRUE(dump.summary.seconds) << "no trailer";
    std::ostringstream all;
    all << std::ifstream(path).rdbuf();
    const std::string text = all.str();
    const size_t first = text.find('\n'), last = text.rfind('\n');
    dump.body = text.substr(first + 1, last - first);
    CheckReferences(&dump);
    return dump;
}

const qorctl::DumpClass &TextDump::Class(const std::string &name) const {
    static const qorctl::DumpClass none;
    for (const qorctl::DumpClass &entry : summary.classes)
        if (entry.name == name)
            return entry;
    return none;
}

int64_t TextDump::Arrays(const std::string &klass, int64_t elements) const {
    int64_t count = 0;
    for (const qorctl::DumpArray &array : summary.arrays)
        count += array.class_name == klass && array.elements == elements;
    return count;
}
