#include "address_dump.h"

#include "wire/records.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

namespace qorctl {

namespace {

constexpr std::string_view SPACES = "PCOEF", REFERENCES = "ILR";
constexpr std::string_view CLASS_STRUCTURES = "zABCGHIL"; // the JVM's own classes, its dictionary of all
constexpr std::string_view OF_FRAMES = "-2";

// Objects of the JVM's own, by the letter of their type.
struct OwnKind {
    char letter;
    const char *name;
};
constexpr OwnKind OWN_KINDS[] = {{'1', "(symbols)"},        {'2', "(methods)"},        {'F', "(method code)"},
                                 {'3', "(constant pools)"}, {'4', "(constant pools)"}, {'A', "(classes)"},
                                 {'B', "(classes)"},        {'C', "(classes)"},        {'D', "(classes)"},
                                 {'E', "(classes)"}};

bool Has(std::string_view letters, char letter) {
    return letters.find(letter) != letters.npos;
}

class AddressDumpReader {
public:
    AddressDumpReader(LineReader *lines, size_t largest_arrays, DumpSummary summary)
        : lines_(lines), ranking_(largest_arrays), summary_(std::move(summary)) {}

    DumpSummary Read() {
        std::string_view line;
        while (lines_->Next(&line)) {
            if (summary_.seconds || line.empty())
                lines_->Wrong();
            ReadLine(line);
        }
        Finish();
        return std::move(summary_);
    }

private:
    void ReadLine(std::string_view line) {
        char first = line[0], second = line.size() > 1 ? line[1] : 0;
        if (first == 'S')
            ++summary_.roots[KindOf(second, line)];
        else if (Has(REFERENCES, first))
            ++summary_.references;
        else if (Has(SPACES, first))
            ReadObject(second, line.substr(std::min<size_t>(2, line.size())));
        else if (!(summary_.seconds = DumpTrailer(line)))
            lines_->Wrong();
    }

    // Handles of threads come first, those of the whole JVM after its own classes.
    DumpRoot KindOf(char letter, std::string_view line) {
        if (Has(CLASS_STRUCTURES, letter)) {
            threads_are_over_ = true;
            return ROOT_CLASS;
        }
        switch (letter) {
        case 'a':
            return line.substr(line.rfind('|') + 1) == OF_FRAMES ? ROOT_STACK : ROOT_THREAD;
        case 'd':
            return threads_are_over_ ? ROOT_JNI_GLOBAL : ROOT_JNI_LOCAL;
        case 's':
            return ROOT_MONITOR;
        default:
            return ROOT_OTHER;
        }
    }

    // "address|size|..." of an object, "length|address|size|..." of an array.
    void ReadObject(char type, std::string_view line) {
        DumpArray array;
        if (type == '[')
            array.elements = lines_->Hex(Piece(&line));
        array.object = lines_->Hex(Piece(&line));
        array.bytes = lines_->Hex(Piece(&line));
        ++summary_.objects;
        summary_.bytes += array.bytes;
        if (type == '1')
            names_[array.object] = line;
        if (type != '8' && type != '[') {
            Count(&own_[type], array.bytes);
            return;
        }
        array.class_number = lines_->Hex(line);
        Count(&classes_[array.class_number], array.bytes);
        if (type == '[')
            ranking_.Add(array);
    }

    static void Count(DumpClass *entry, int64_t bytes) {
        ++entry->objects;
        entry->bytes += bytes;
        entry->bytes_all = true;
    }

    // Class names lack what a signature has around them.
    std::string NameAt(int64_t address) const {
        auto found = names_.find(address);
        if (found == names_.end())
            return "";
        const std::string &name = found->second;
        return JavaName(!name.empty() && name[0] == '[' ? name : "L" + name + ";");
    }

    void Finish() {
        for (auto &[number, entry] : classes_) {
            entry.number = number;
            entry.name = NameAt(number);
            summary_.named_classes += !entry.name.empty();
            summary_.classes.push_back(entry);
        }
        std::unordered_map<std::string, DumpClass> own;
        for (const auto &[letter, entry] : own_) {
            auto kind = std::find_if(std::begin(OWN_KINDS), std::end(OWN_KINDS),
                                     [letter = letter](const OwnKind &row) { return row.letter == letter; });
            DumpClass &sum = own[kind == std::end(OWN_KINDS) ? "(other)" : kind->name];
            sum.objects += entry.objects;
            sum.bytes += entry.bytes;
            sum.bytes_all = true;
        }
        for (auto &[name, entry] : own) {
            entry.name = name;
            summary_.classes.push_back(entry);
        }
        std::sort(summary_.classes.begin(), summary_.classes.end(),
                  [](const DumpClass &a, const DumpClass &b) {
                      return a.bytes != b.bytes ? a.bytes > b.bytes : a.name < b.name;
                  });
        summary_.arrays = ranking_.Take();
        for (DumpArray &array : summary_.arrays)
            array.class_name = NameAt(array.class_number);
    }

    LineReader *lines_;
    ArrayRanking ranking_;
    DumpSummary summary_;
    std::unordered_map<int64_t, DumpClass> classes_; // by the address of the name
    std::unordered_map<char, DumpClass> own_;
    std::unordered_map<int64_t, std::string> names_;
    bool threads_are_over_ = false;
};

} // namespace

DumpSummary ReadAddressDump(LineReader *lines, size_t largest_arrays, DumpSummary summary) {
    return AddressDumpReader(lines, largest_arrays, std::move(summary)).Read();
}

} // namespace qorctl
