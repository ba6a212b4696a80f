#include "DumpReaders.h"

#include <fstream>
#include <gtest/gtest.h>
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

constexpr int TYPE_SIZES[] = {0, 0, 8, 0, 1, 2, 4, 8, 1, 2, 4, 8}; // by the format's type codes

// A cursor over an Hprof file with 8-byte identifiers.
struct HprofReader {
    HprofDump &dump;
    const char *p, *end;
    std::map<uint64_t, std::string> strings, classes;
    std::map<uint64_t, int64_t> instances, elements;

    void Skip(uint64_t bytes) {
        ASSERT_GE(static_cast<uint64_t>(end - p), bytes) << "the file ends within a record";
        p += bytes;
    }
    uint64_t Take(int bytes) {
        uint64_t value = 0;
        for (const char *last = p + bytes; p < last && p < end; p++)
            value = value << 8 | static_cast<unsigned char>(*p);
        return value;
    }

    void Fields(uint64_t count, uint64_t name) {
        for (; count > 0; count--) {
            Skip(name);
            Skip(static_cast<uint64_t>(TYPE_SIZES[Take(1) % 12]));
        }
    }

    // A sub-record of a heap segment.
    void Record(uint64_t tag) {
        if (tag == 0xff || tag == 0x05 || tag == 0x07) {
            Skip(8);
        } else if (tag == 0x04 || tag == 0x06) {
            Skip(12);
        } else if (tag >= 0x01 && tag <= 0x08) {
            Skip(16);
        } else if (tag == 0x20) { // a class
            Skip(8 + 4 + 6 * 8 + 4);
            Fields(Take(2), 2);
            Fields(Take(2), 8);
            Skip(Take(2) * 9);
        } else if (tag == 0x21) {
            Skip(12);
            instances[Take(8)]++;
            Skip(Take(4));
        } else if (tag == 0x22) {
            Skip(12);
            const uint64_t count = Take(4), klass = Take(8);
            for (uint64_t i = 0; i < count; i++)
                elements[klass] += Take(8) != 0;
        } else {
            ASSERT_EQ(tag, 0x23u) << "unknown sub-record";
            Skip(12);
            const uint64_t count = Take(4), type = Take(1);
            dump.primitiveArrays[{static_cast<int>(type), static_cast<int64_t>(count)}]++;
            Skip(count * static_cast<uint64_t>(TYPE_SIZES[type % 12]));
        }
    }

    void All() {
        while (p < end && !testing::Test::HasFatalFailure()) {
            const uint64_t tag = Take(1);
            Skip(4);
            const char *next = p + 4;
            next += Take(4);
            if (tag == 0x01) {
                const uint64_t id = Take(8);
                strings[id] = std::string(p, next);
            } else if (tag == 0x02) {
                Skip(4);
                const uint64_t id = Take(8);
                Skip(4);
                classes[id] = strings[Take(8)];
            } else if (tag == 0x0c || tag == 0x1c) {
                while (p < next && !testing::Test::HasFatalFailure())
                    Record(Take(1));
            }
            p = next;
        }
    }
};

} // namespace

std::string FileText(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

TextDump TextDump::Read(const std::string &path) {
    TextDump dump;
    dump.summary = qorctl::ReadTextDumpFile(path, SIZE_MAX);
    EXPECT_TRUE(dump.summary.seconds) << "no trailer";
    const std::string text = FileText(path);
    const size_t first = text.find('\n'), last = text.rfind('\n');
    dump.header = text.substr(0, first);
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

HprofDump HprofDump::Read(const std::string &path) {
    HprofDump dump;
    const std::string text = FileText(path);
    constexpr char MAGIC[] = "JAVA PROFILE 1.0.2";
    EXPECT_EQ(text.compare(0, sizeof MAGIC, MAGIC, sizeof MAGIC), 0);
    HprofReader reader{dump, text.data() + sizeof MAGIC, text.data() + text.size(), {}, {}, {}, {}};
    EXPECT_EQ(reader.Take(4), 8u) << "identifiers of another size";
    reader.Take(8);
    reader.All();
    for (const auto &row : reader.instances)
        dump.instances[reader.classes[row.first]] += row.second;
    for (const auto &row : reader.elements)
        dump.elements[reader.classes[row.first]] += row.second;
    return dump;
}
