#include "DumpReaders.h"

#include <cstring>
#include <fstream>
#include <regex>
#include <sstream>

namespace {

std::string ReadFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

// One text dump on its way through the lines.
struct TextReader {
    TextDump &dump;
    std::set<int64_t> met;                        // numbers that a root or a reference has led to
    std::map<int64_t, std::set<int64_t>> reached; // objects that fields refer to, by class
    std::set<int64_t> namedLater;                 // class numbers; the class records come at the end
    TextDump::Array *array = nullptr;
    int64_t instance = -1, klass = -1;
    bool sawOther = false; // the last roots of the walk's first part

    void Fail(const std::string &line, const char *why) {
        if (dump.error.empty())
            dump.error = std::string(why) + ": " + line;
    }

    // What a reference or a root leads to.
    void Meet(int64_t number) {
        if (number > 99999)
            met.insert(number);
        else
            namedLater.insert(number);
    }

    void Root(const std::string &line) {
        int64_t number = 0;
        if (sscanf(line.c_str(), "SBa%ld|", &number) == 1) {
            Meet(number); // beyond the class numbers: a class that was not listed, such as int.class
            if (dump.roots && sawOther)
                dump.instances[number]++;
            else
                dump.roots++;
            return;
        }
        static const std::regex root(
            "S(A|f|s)([0-9]+)\\|\\||Sc([0-9]+)\\||S[ac]([0-9]+)\\|([0-9]+\\|)?Thread--?[0-9]+_[^|]*\\|");
        std::smatch found;
        if (!std::regex_match(line, found, root))
            return Fail(line, "no root");
        dump.roots++;
        dump.locals += found[4].matched;
        if (found[1] == "A") {
            sawOther = true;
            dump.instances.clear();
        }
        for (int group : {2, 3, 4})
            if (found[group].matched)
                Meet(std::stoll(found[group]));
    }

    void ArrayHeader(const std::string &line) {
        TextDump::Array a = {0, 0, 0, 0, -1};
        char count[32] = "";
        if (sscanf(line.c_str(), "A[%31[0-9a-f]|%ld|%lx|%ld", count, &a.number, &a.size, &a.klass) != 4)
            return Fail(line, "no array");
        a.count = std::stoll(count, nullptr, 16);
        const bool ofObjects = strlen(count) == 10;
        a.elements = ofObjects ? 0 : -1;
        if (ofObjects != (a.klass > 99))
            Fail(line, "class and form of the array");
        dump.arrays.push_back(a);
        array = ofObjects ? &dump.arrays.back() : nullptr;
        instance = klass = -1;
    }

    void Instance(const std::string &line) {
        int64_t size = 0, itsClass = 0;
        if (sscanf(line.c_str(), "A8%ld|%lx|%ld", &instance, &size, &itsClass) != 3)
            return Fail(line, "no instance");
        dump.classOf[instance] = itsClass;
        array = nullptr;
        klass = -1;
    }

    void Reference(const std::string &line) {
        int64_t object = 0, itsClass = 0, owner = 0;
        int index = 0;
        const int fields = sscanf(line.c_str(), "R%ld|%ld|%lda%d", &object, &itsClass, &owner, &index);
        if (fields == 1 && array)
            array->elements++;
        else if (fields >= 3 && instance >= 0)
            dump.references[instance].push_back(object), reached[itsClass].insert(object);
        else if (fields != 4 || klass < 0 || owner != klass)
            Fail(line, "no reference that fits what stands above it");
        Meet(object);
    }

    void ClassRecord(const std::string &line) {
        int64_t id = 0, length = 0;
        int index = 0, used = 0;
        if (sscanf(line.c_str(), "B1%ld|%lx|%n", &id, &length, &used) == 2 && used > 0) {
            dump.classNames[id] = line.substr(static_cast<size_t>(used));
        } else if (sscanf(line.c_str(), "B1%lda%d|%lx|%n", &id, &index, &length, &used) == 3 && used > 0) {
            dump.fields[dump.classNames[id]].push_back(std::to_string(index) + " " +
                                                       line.substr(static_cast<size_t>(used)));
        } else {
            return Fail(line, "no class record");
        }
        if (static_cast<int64_t>(line.size()) - used != length)
            Fail(line, "length of the name");
    }

    void Line(const std::string &line) {
        int64_t size = 0, same = 0;
        if (line[0] == 'S')
            Root(line);
        else if (line.compare(0, 2, "A[") == 0)
            ArrayHeader(line);
        else if (line.compare(0, 2, "A8") == 0)
            Instance(line);
        else if (line[0] == 'R')
            Reference(line);
        else if (line.compare(0, 2, "B1") == 0)
            ClassRecord(line);
        else if (sscanf(line.c_str(), "B0a%ld|%lx|%ld", &klass, &size, &same) == 3 && klass == same)
            instance = -1, array = nullptr;
        else
            Fail(line, "no record");
    }

    // Whatever a reference leads to has been visited: an array of primitives has its record, anything else
    // refers to its class. Classes are visited in another way.
    void CheckVisits() {
        std::set<int64_t> visited;
        for (const TextDump::Array &a : dump.arrays)
            visited.insert(a.number);
        for (const auto &row : reached) {
            const std::string name = dump.classNames[row.first];
            if (row.first > 99 && name != "Ljava/lang/Class;" && name != "" &&
                dump.instances[row.first] < static_cast<int64_t>(row.second.size()))
                Fail(name, "fewer objects of the class visited than referred to");
            for (int64_t number : row.second)
                if (row.first > 0 && row.first < 100 && !visited.count(number))
                    Fail(std::to_string(number), "an array that was not visited");
        }
    }

    void Finish() {
        for (int64_t number : namedLater)
            if (!dump.classNames.count(number))
                Fail(std::to_string(number), "no class of this number");
        CheckVisits();
        dump.objects = static_cast<int64_t>(met.size());
    }
};

uint64_t BigEndian(const char *p, int bytes) {
    uint64_t value = 0;
    for (int i = 0; i < bytes; i++)
        value = value << 8 | static_cast<unsigned char>(p[i]);
    return value;
}

constexpr int TYPE_SIZES[] = {0, 0, 8, 0, 1, 2, 4, 8, 1, 2, 4, 8}; // by the format's type codes

// A cursor over an Hprof file with 8-byte identifiers.
struct HprofReader {
    HprofDump &dump;
    const char *p, *end;
    std::map<uint64_t, std::string> strings, classes;
    std::map<uint64_t, int64_t> instances, elements;

    uint64_t Take(int bytes) {
        if (end - p < bytes) {
            dump.error = "the file ends within a record";
            p = end;
            return 0;
        }
        p += bytes;
        return BigEndian(p - bytes, bytes);
    }
    void Skip(uint64_t bytes) {
        if (static_cast<uint64_t>(end - p) < bytes)
            dump.error = "the file ends within a record", p = end;
        else
            p += bytes;
    }

    void ClassDump() {
        Skip(8 + 4 + 6 * 8 + 4);
        for (uint64_t n = Take(2); n > 0; n--) {
            Skip(2);
            Skip(static_cast<uint64_t>(TYPE_SIZES[Take(1) % 12]));
        }
        for (uint64_t n = Take(2); n > 0; n--) {
            Skip(8);
            Skip(static_cast<uint64_t>(TYPE_SIZES[Take(1) % 12]));
        }
        Skip(Take(2) * 9);
    }

    void Segment(const char *segmentEnd) {
        while (p < segmentEnd && dump.error.empty()) {
            const int tag = static_cast<int>(Take(1));
            switch (tag) {
            case 0xff:
            case 0x05:
            case 0x07:
                Skip(8);
                break;
            case 0x01:
                Skip(16);
                break;
            case 0x02:
            case 0x03:
            case 0x08:
                Skip(16);
                break;
            case 0x04:
            case 0x06:
                Skip(12);
                break;
            case 0x20:
                ClassDump();
                break;
            case 0x21: {
                Skip(12);
                instances[Take(8)]++;
                Skip(Take(4));
                break;
            }
            case 0x22: {
                Skip(12);
                const uint64_t count = Take(4), klass = Take(8);
                for (uint64_t i = 0; i < count; i++)
                    elements[klass] += Take(8) != 0;
                break;
            }
            case 0x23: {
                Skip(12);
                const uint64_t count = Take(4), type = Take(1);
                dump.primitiveArrays[{static_cast<int>(type), static_cast<int64_t>(count)}]++;
                Skip(count * static_cast<uint64_t>(TYPE_SIZES[type % 12]));
                break;
            }
            default:
                dump.error = "unknown sub-record " + std::to_string(tag);
            }
        }
    }

    void All() {
        while (p < end && dump.error.empty()) {
            const uint64_t tag = Take(1);
            Skip(4);
            const uint64_t length = Take(4);
            const char *next = p + length;
            if (tag == 0x01) {
                const uint64_t id = Take(8);
                strings[id] = std::string(p, next);
            } else if (tag == 0x02) {
                Skip(4);
                const uint64_t id = Take(8);
                Skip(4);
                classes[id] = strings[Take(8)];
            } else if (tag == 0x0c || tag == 0x1c) {
                Segment(next);
            }
            p = next;
        }
    }
};

} // namespace

TextDump TextDump::Read(const std::string &path) {
    TextDump dump;
    const std::string text = ReadFile(path);
    const size_t first = text.find('\n'), last = text.rfind('\n');
    if (first == std::string::npos) {
        dump.error = "no header";
        return dump;
    }
    dump.header = text.substr(0, first);
    dump.trailer = text.substr(last + 1);
    dump.body = text.substr(first + 1, last - first);
    std::istringstream in(dump.body);
    TextReader reader{dump, {}, {}, {}};
    for (std::string line; std::getline(in, line);)
        reader.Line(line);
    reader.Finish();
    return dump;
}

int64_t TextDump::ClassNumber(const std::string &signature) const {
    for (const auto &row : classNames)
        if (row.second == signature)
            return row.first;
    return -1;
}

int64_t TextDump::InstancesOf(const std::string &signature) const {
    const auto found = instances.find(ClassNumber(signature));
    return found == instances.end() ? 0 : found->second;
}

HprofDump HprofDump::Read(const std::string &path) {
    HprofDump dump;
    const std::string file = ReadFile(path);
    constexpr char MAGIC[] = "JAVA PROFILE 1.0.2";
    if (file.compare(0, sizeof MAGIC, MAGIC, sizeof MAGIC) != 0) {
        dump.error = "no magic";
        return dump;
    }
    HprofReader reader{dump, file.data() + sizeof MAGIC, file.data() + file.size(), {}, {}, {}, {}};
    if (reader.Take(4) != 8)
        dump.error = "identifiers of another size";
    reader.Skip(8);
    reader.All();
    for (const auto &row : reader.instances)
        dump.instances[reader.classes[row.first]] += row.second;
    for (const auto &row : reader.elements)
        dump.elements[reader.classes[row.first]] += row.second;
    return dump;
}
