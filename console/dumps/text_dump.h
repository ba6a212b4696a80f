// A text heap dump, read back: what is in it by class, its largest arrays, its roots.
//
// The file is a stream of references in the order of the JVM's walk: roots first, then each object with its
// class ("SBa"), the header of its fields or elements ("A8", "A[") and its references ("R"), then the names
// of the classes, then the trailer. It is read once from front to back; what is kept grows with the number of
// classes, never with that of objects.
//
// The file has the size of an object only where it has references to others, or is an array. Objects of a
// class are of one size, so one such header has it for all; a class of which no object refers to anything
// stays without.
//
// A JVM that is read by address has another form; see address_dump.h.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qorctl {

struct DumpClass {
    int64_t number = 0;
    std::string name; // as Java has it; empty for a class that was loaded while the dump was made
    int64_t objects = 0;
    int64_t bytes = 0;      // of the objects whose size is known
    bool bytes_all = false; // the sizes of all of them are
};

struct DumpArray {
    int64_t object = 0, class_number = 0; // by address: the object's, and that of its class's name
    std::string class_name;
    int64_t elements = 0; // those that are not null, in an array of objects
    int64_t bytes = 0;
};

enum DumpRoot {
    ROOT_THREAD,
    ROOT_STACK,
    ROOT_JNI_LOCAL,
    ROOT_JNI_GLOBAL,
    ROOT_MONITOR,
    ROOT_CLASS,
    ROOT_OTHER,
    ROOT_KINDS
};

struct DumpRootName {
    const char *key;   // in JSON
    const char *label; // for people
};
extern const DumpRootName DUMP_ROOT_NAMES[ROOT_KINDS];

struct DumpSummary {
    uint64_t heap_id = 0;
    std::string time; // as the header has it
    std::string host, vendor, version;
    int64_t max_kib = 0, used_kib = 0;
    std::vector<DumpClass> classes; // those with objects, largest first
    std::vector<DumpArray> arrays;  // the largest, largest first
    int64_t roots[ROOT_KINDS] = {};
    int64_t objects = 0, bytes = 0, references = 0;
    int64_t named_classes = 0;
    bool by_address = false;        // of a JVM that is read by address, whose form is another
    std::optional<int64_t> seconds; // from the trailer; nothing when the file ends without one
};

// Reads a dump up to its end. Throws a Failure for a file that isn't one, or that breaks its form.
DumpSummary ReadTextDump(FILE *file, size_t largest_arrays);

// The same of a file by its path.
DumpSummary ReadTextDumpFile(const std::string &path, size_t largest_arrays);

// The heap id in the header of a dump; nothing when `head` isn't the start of one.
std::optional<uint64_t> DumpHeadId(std::string_view head);

// The seconds of a trailer at the very end of `tail`.
std::optional<int64_t> DumpTrailer(std::string_view tail);

} // namespace qorctl
