#include "text_dump.h"

#include "address_dump.h"
#include "base/failure.h"
#include "base/starts_with.h"
#include "dump_lines.h"
#include "wire/records.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <unordered_map>

namespace qorctl {

const DumpRootName DUMP_ROOT_NAMES[ROOT_KINDS] = {
    {"threads", "Threads"},
    {"stack_locals", "Locals on stacks"},
    {"jni_locals", "Locals of natives"},
    {"jni_globals", "JNI globals"},
    {"monitors", "Monitors in use"},
    {"system_classes", "System classes"},
    {"other", "Other"},
};

namespace {

constexpr std::string_view HEADER_START = "heap_id=";
constexpr std::string_view ANY_HPROF = "JAVA PROFILE ";
constexpr std::string_view TRAILER_START = " Finished ", TRAILER_END = " secs";
constexpr std::string_view LOCAL_MARK = "|Thread-";
constexpr size_t LONGEST_HEADER = 64;  // fields
constexpr size_t LONGEST_NAME = 65535; // of a class or a field, in bytes
// Those of the format and as many of classes that found none left or came late.
constexpr size_t MOST_CLASS_NUMBERS = 200000;
constexpr int64_t LEAST_OBJECT_SIZE = 16; // to rank what has no size

struct ClassFigures {
    std::string name;
    int64_t objects = 0;
    int64_t size = 0;                    // of each object that isn't an array
    int64_t arrays = 0, array_bytes = 0; // those with a header
};

class DumpReader {
public:
    explicit DumpReader(FILE *file, size_t largest_arrays)
        : lines_(file), ranking_(largest_arrays), largest_arrays_(largest_arrays) {}

    DumpSummary Read() {
        if (ReadHeader())
            return ReadAddressDump(&lines_, largest_arrays_, std::move(summary_));
        std::string_view line;
        while (lines_.Next(&line)) {
            if (summary_.seconds)
                Wrong();
            ReadLine(line);
        }
        EndRoots();
        Finish();
        return std::move(summary_);
    }

private:
    [[noreturn]] void Wrong() const { lines_.Wrong(); }
    int64_t Number(std::string_view text) const { return lines_.Number(text); }
    int64_t Hex(std::string_view text) const { return lines_.Hex(text); }

    ClassFigures &Figures(int64_t number) {
        ClassFigures &figures = classes_[number];
        if (classes_.size() > MOST_CLASS_NUMBERS)
            throw Failure(fmt::format("line {}: more than {} class numbers, a dump has fewer",
                                      lines_.number(), MOST_CLASS_NUMBERS),
                          "the file was changed or is of another kind; make a new dump");
        return figures;
    }

    // True for a dump by address, whose header names each space.
    bool ReadHeader() {
        enum { ID, TIME, HOST, JVM_ID, VENDOR, VERSION, SPACES, SPACE, MAX, USED };
        std::string_view line;
        if (!lines_.Next(&line))
            throw Failure("the file is empty",
                          "the dump failed, or has not been written yet; make a new one");
        if (StartsWith(line, ANY_HPROF))
            throw Failure("this is a dump in Hprof form",
                          "give it to a heap analyser; --read takes text dumps");
        std::vector<std::string_view> field = Split(line, '|');
        if (line.substr(0, HEADER_START.size()) != HEADER_START || field.size() <= USED ||
            field.size() > LONGEST_HEADER)
            throw Failure("this isn't a text dump", "give a file that 'qorctl dump PID NAME' has written");
        if (!ReadNumber(field[ID].substr(HEADER_START.size()), &summary_.heap_id))
            Wrong();
        summary_.time = field[TIME];
        summary_.host = field[HOST];
        summary_.vendor = field[VENDOR];
        summary_.version = field[VERSION];
        for (size_t space = SPACE; space + USED - SPACE < field.size(); space += USED - SPACE + 1) {
            summary_.max_kib += Number(field[space + MAX - SPACE]);
            summary_.used_kib += Number(field[space + USED - SPACE]);
        }
        summary_.by_address = field[SPACES] != "1";
        return summary_.by_address;
    }

    void ReadLine(std::string_view line) {
        if (line.empty())
            Wrong();
        switch (line[0]) {
        case 'R':
            EndRoots();
            ++summary_.references;
            return;
        case 'S':
            ReadRootOrClass(line.substr(1));
            return;
        case 'A':
            EndRoots();
            ReadHeaderOfObject(line.substr(1));
            return;
        case 'B':
            EndRoots();
            ReadClass(line.substr(1));
            return;
        default:
            summary_.seconds = DumpTrailer(line);
            if (!summary_.seconds)
                Wrong();
        }
    }

    // "SBa" is a system class among the roots, and after them the class of the object that comes next.
    void ReadRootOrClass(std::string_view line) {
        if (line.substr(0, 2) == "Ba") {
            line.remove_prefix(2);
            int64_t number = Number(Piece(&line));
            if (in_roots_)
                waiting_.push_back(number);
            else
                ++Figures(number).objects;
            return;
        }
        DumpRoot kind = KindOf(line);
        ++summary_.roots[kind];
        if (!in_roots_)
            return; // a virtual thread's local, which comes with its thread
        summary_.roots[ROOT_CLASS] += static_cast<int64_t>(waiting_.size());
        waiting_.clear();
        other_seen_ |= kind == ROOT_OTHER;
    }

    DumpRoot KindOf(std::string_view line) const {
        char sign = line.empty() ? 0 : line[0];
        switch (sign) {
        case 'f':
            return ROOT_THREAD;
        case 'a':
            return ROOT_STACK;
        case 'c':
            return line.find(LOCAL_MARK) == line.npos ? ROOT_JNI_GLOBAL : ROOT_JNI_LOCAL;
        case 's':
            return ROOT_MONITOR;
        case 'A':
            return ROOT_OTHER;
        default:
            Wrong();
        }
    }

    // The walk reports roots of the kind "other" last. So the classes after the last one of them are those
    // of objects; without one, only the line right before the first object's record is.
    void EndRoots() {
        if (!in_roots_)
            return;
        in_roots_ = false;
        size_t of_objects = other_seen_ ? waiting_.size() : std::min<size_t>(waiting_.size(), 1);
        summary_.roots[ROOT_CLASS] += static_cast<int64_t>(waiting_.size() - of_objects);
        for (size_t i = waiting_.size() - of_objects; i < waiting_.size(); ++i)
            ++Figures(waiting_[i]).objects;
        waiting_ = {};
    }

    // "8number|size|class" of an object with fields, "[count|number|size|class" of an array.
    void ReadHeaderOfObject(std::string_view line) {
        char sign = line.empty() ? 0 : line[0];
        if (sign != '8' && sign != '[')
            Wrong();
        line.remove_prefix(1);
        DumpArray array;
        if (sign == '[')
            array.elements = Hex(Piece(&line));
        array.object = Number(Piece(&line));
        array.bytes = Hex(Piece(&line));
        array.class_number = Number(line);
        ClassFigures &figures = Figures(array.class_number);
        if (sign == '8') {
            figures.size = array.bytes;
            return;
        }
        ++figures.arrays;
        figures.array_bytes += array.bytes;
        ranking_.Add(array);
    }

    // "1number|length|signature" names a class; "0a..." and "1number" + "a" + "index|..." are its statics and
    // its fields. A name may hold a line end: its length decides.
    void ReadClass(std::string_view line) {
        if (line.empty() || (line[0] != '0' && line[0] != '1'))
            Wrong();
        if (line[0] == '0')
            return;
        line.remove_prefix(1);
        std::string_view id = Piece(&line);
        bool field = id.find('a') != id.npos;
        int64_t number = field ? 0 : Number(id);
        size_t length = static_cast<size_t>(Hex(Piece(&line)));
        if (length > LONGEST_NAME)
            Wrong();
        std::string name(line); // reading on gives up the line
        while (name.size() < length && lines_.Next(&line))
            name.append(1, '\n').append(line);
        if (name.size() != length)
            Wrong();
        if (field)
            return;
        ++summary_.named_classes;
        Figures(number).name = JavaName(name);
    }

    void Finish() {
        for (auto &[number, figures] : classes_) {
            if (figures.objects == 0 && figures.arrays == 0)
                continue;
            DumpClass entry;
            entry.number = number;
            entry.name = figures.name;
            entry.objects = std::max(figures.objects, figures.arrays);
            bool array = figures.arrays > 0;
            entry.bytes = array ? figures.array_bytes : figures.objects * figures.size;
            entry.bytes_all = array ? figures.arrays >= entry.objects : figures.size > 0;
            summary_.objects += entry.objects;
            summary_.bytes += entry.bytes;
            summary_.classes.push_back(std::move(entry));
        }
        std::sort(summary_.classes.begin(), summary_.classes.end(),
                  [](const DumpClass &a, const DumpClass &b) {
                      int64_t x = Rank(a), y = Rank(b);
                      return x != y ? x > y : a.number < b.number;
                  });
        summary_.arrays = ranking_.Take();
        for (DumpArray &array : summary_.arrays)
            array.class_name = classes_[array.class_number].name;
    }

    static int64_t Rank(const DumpClass &entry) {
        return std::max(entry.bytes, entry.objects * LEAST_OBJECT_SIZE);
    }

    LineReader lines_;
    ArrayRanking ranking_;
    size_t largest_arrays_;
    DumpSummary summary_;
    std::unordered_map<int64_t, ClassFigures> classes_;
    std::vector<int64_t> waiting_; // "SBa" since the last root of another kind
    bool in_roots_ = true, other_seen_ = false;
};

} // namespace

DumpSummary ReadTextDump(FILE *file, size_t largest_arrays) {
    return DumpReader(file, largest_arrays).Read();
}

DumpSummary ReadTextDumpFile(const std::string &path, size_t largest_arrays) {
    std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(path.c_str(), "rbe"), fclose);
    if (!file)
        throw Failure(fmt::format("can't read {}: {}", path, strerror(errno)),
                      "give the path as seen from here; dumps are readable by the JVM's user and root alone");
    return ReadTextDump(file.get(), largest_arrays);
}

std::optional<uint64_t> DumpHeadId(std::string_view head) {
    uint64_t id = 0;
    size_t bar = head.find('|');
    if (bar == head.npos || head.substr(0, HEADER_START.size()) != HEADER_START ||
        !ReadNumber(head.substr(HEADER_START.size(), bar - HEADER_START.size()), &id))
        return std::nullopt;
    return id;
}

std::optional<int64_t> DumpTrailer(std::string_view tail) {
    int64_t seconds = 0;
    if (!tail.empty() && tail.back() == '\n')
        tail.remove_suffix(1);
    size_t start = tail.rfind(TRAILER_START);
    if (start == tail.npos || (start > 0 && tail[start - 1] != '\n'))
        return std::nullopt;
    tail.remove_prefix(start + TRAILER_START.size());
    if (tail.size() <= TRAILER_END.size() || tail.substr(tail.size() - TRAILER_END.size()) != TRAILER_END ||
        !ReadNumber(tail.substr(0, tail.size() - TRAILER_END.size()), &seconds))
        return std::nullopt;
    return seconds;
}

} // namespace qorctl
