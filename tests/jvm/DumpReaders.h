// Readers of the two kinds of heap dump, for tests that compare them.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

// A text dump, taken apart line by line. `error` names the first line that no record has, or the first number
// that nothing in the file leads to, or the first class with references to
// more objects than the walk has visited.
struct TextDump {
    static TextDump Read(const std::string &path);

    std::string error, header, trailer, body; // body: all between header and trailer
    std::map<int64_t, std::string> classNames;
    std::map<std::string, std::vector<std::string>> fields; // of each class: "index name"
    std::map<int64_t, int64_t> instances;                   // by class number, from the object phase
    struct Array {
        int64_t count, number, size, klass;
        int64_t elements; // lines under it; -1 for an array of primitives
    };
    std::vector<Array> arrays;
    std::map<int64_t, std::vector<int64_t>> references; // from an instance, in order
    std::map<int64_t, int64_t> classOf;                 // of objects that stand as referrers
    int64_t objects = 0, roots = 0, locals = 0;

    int64_t ClassNumber(const std::string &signature) const;
    int64_t InstancesOf(const std::string &signature) const;
};

// Figures of an Hprof dump, by class name in the JVM's form ("a/B", "[La/B;").
struct HprofDump {
    static HprofDump Read(const std::string &path);

    std::string error;
    std::map<std::string, int64_t> instances;
    std::map<std::string, int64_t> elements;                    // non-null ones of all its object arrays
    std::map<std::pair<int, int64_t>, int64_t> primitiveArrays; // number by type code and length
};
