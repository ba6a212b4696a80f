#include "text_dump.h"

#include "failure.h"
#include "records.h"

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
constexpr std::string_view HPROF_MAGIC = "JAVA PROFILE ";
constexpr std::string_view TRAILER_START = " Finished ", TRAILER_END = " secs";
constexpr std::string_view LOCAL_MARK = "|Thread-";
constexpr size_t READ_SIZE = 1 << 20;
constexpr size_t LONGEST_NAME = 65535; // of a class or a field, in bytes
constexpr size_t LONGEST_LINE = 1 << 18;
// Those of the format and as many of classes that found none left or came late.
constexpr size_t MOST_CLASS_NUMBERS = 200000;
constexpr int64_t LEAST_OBJECT_SIZE = 16; // to rank what has no size

// Lines of a file, whatever its size, with a buffer of one block and the longest line.
class LineReader {
public:
    explicit LineReader(FILE *file) : file_(file) {}

    // The next line without its end. False at the file's end; what stands there without an end is a line too.
    bool Next(std::string_view *line) {
        for (;;) {
            size_t end = buffer_.find('\n', searched_);
            if (end != buffer_.npos || (at_end_ && start_ < buffer_.size())) {
                end = std::min(end, buffer_.size());
                *line = std::string_view(buffer_).substr(start_, end - start_);
                start_ = searched_ = std::min(end + 1, buffer_.size());
                ++number_;
                return true;
            }
            if (at_end_)
                return false;
            Fill();
        }
    }

    int64_t number() const { return number_; }

private:
    void Fill() {
        buffer_.erase(0, start_);
        start_ = 0;
        searched_ = buffer_.size();
        if (buffer_.size() > LONGEST_LINE)
            throw Failure(fmt::format("line {} has no end", number_ + 1), "this is no text dump");
        size_t had = buffer_.size();
        buffer_.resize(had + READ_SIZE);
        size_t got = fread(&buffer_[had], 1, READ_SIZE, file_);
        buffer_.resize(had + got);
        if (ferror(file_))
            throw Failure(fmt::format("the dump can't be read: {}", strerror(errno)), "check the disk");
        at_end_ = got == 0;
    }

    FILE *file_;
    std::string buffer_;
    size_t start_ = 0, searched_ = 0;
    int64_t number_ = 0;
    bool at_end_ = false;
};

bool ReadHex(std::string_view text, int64_t *value) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value, 16);
    return error == std::errc() && end == text.data() + text.size() && *value >= 0;
}

// Cuts the piece in front of the next bar, or all that is left, off `text`.
std::string_view Piece(std::string_view *text) {
    size_t bar = text->find('|');
    std::string_view piece = text->substr(0, bar);
    text->remove_prefix(bar == text->npos ? text->size() : bar + 1);
    return piece;
}

struct ClassFigures {
    std::string name;
    int64_t objects = 0;
    int64_t size = 0;                    // of each object that is no array
    int64_t arrays = 0, array_bytes = 0; // those with a header
};

// Keeps the largest arrays.
class ArrayRanking {
public:
    explicit ArrayRanking(size_t limit) : limit_(limit) {}

    void Add(const DumpArray &array) {
        if (limit_ == 0 || (arrays_.size() == limit_ && !Larger(array, arrays_.front())))
            return;
        if (arrays_.size() == limit_) {
            std::pop_heap(arrays_.begin(), arrays_.end(), Larger);
            arrays_.pop_back();
        }
        arrays_.push_back(array);
        std::push_heap(arrays_.begin(), arrays_.end(), Larger);
    }

    std::vector<DumpArray> Take() {
        std::sort_heap(arrays_.begin(), arrays_.end(), Larger);
        return std::move(arrays_);
    }

private:
    static bool Larger(const DumpArray &a, const DumpArray &b) {
        return a.bytes != b.bytes ? a.bytes > b.bytes : a.object < b.object;
    }

    size_t limit_;
    std::vector<DumpArray> arrays_; // the smallest in front
};

class DumpReader {
public:
    DumpReader(FILE *file, size_t largest_arrays) : lines_(file), ranking_(largest_arrays) {}

    DumpSummary Read() {
        ReadHeader();
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
    [[noreturn]] void Wrong() const {
        throw Failure(fmt::format("line {} of the dump has an unknown form", lines_.number()),
                      "the file was changed or is of another kind; make a new dump");
    }

    int64_t Number(std::string_view text) const {
        int64_t value = 0;
        if (!ReadNumber(text, &value))
            Wrong();
        return value;
    }

    int64_t Hex(std::string_view text) const {
        int64_t value = 0;
        if (!ReadHex(text, &value))
            Wrong();
        return value;
    }

    ClassFigures &Figures(int64_t number) {
        ClassFigures &figures = classes_[number];
        if (classes_.size() > MOST_CLASS_NUMBERS)
            throw Failure(fmt::format("line {}: more than {} class numbers, a dump has fewer",
                                      lines_.number(), MOST_CLASS_NUMBERS),
                          "the file was changed or is of another kind; make a new dump");
        return figures;
    }

    void ReadHeader() {
        constexpr size_t FIELDS = 10;
        enum { ID, TIME, HOST, JVM_ID, VENDOR, VERSION, SPACES, SPACE, MAX, USED };
        std::string_view line;
        if (!lines_.Next(&line))
            throw Failure("the file is empty",
                          "the dump failed, or has not been written yet; make a new one");
        if (line.substr(0, HPROF_MAGIC.size()) == HPROF_MAGIC)
            throw Failure("this is a dump in Hprof form",
                          "give it to a heap analyser; --read takes text dumps");
        std::vector<std::string_view> field = Split(line, '|');
        if (line.substr(0, HEADER_START.size()) != HEADER_START || field.size() != FIELDS)
            throw Failure("this is no text dump", "give a file that 'qorctl dump PID NAME' has written");
        if (!ReadNumber(field[ID].substr(HEADER_START.size()), &summary_.heap_id))
            Wrong();
        summary_.time = field[TIME];
        summary_.host = field[HOST];
        summary_.vendor = field[VENDOR];
        summary_.version = field[VERSION];
        summary_.max_kib = Number(field[MAX]);
        summary_.used_kib = Number(field[USED]);
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

    // "SBa" is a system class among the roots, and behind them the class of the object that comes next.
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

    // The walk reports roots of the kind "other" last. So the classes behind the last one of them are those
    // of objects; without one, only the line right in front of the first object's record is.
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
    // its fields. A name may hold a line end: its length tells.
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
