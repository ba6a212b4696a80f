// Text dumps as the console reads them, and what a test asks of one.
#pragma once

#include "dumps/text_dump.h"

#include <map>
#include <string>
#include <vector>

// The console's reader throws for any line out of form. Read() fails the test when a reference leads to what
// the dump doesn't have.
struct TextDump {
    static TextDump Read(const std::string &path);

    const qorctl::DumpClass &
    Class(const std::string &name) const; // by Java's name; an empty one when it is missing
    int64_t Arrays(const std::string &klass, int64_t elements) const;

    qorctl::DumpSummary summary;
    std::string body;                                   // all between header and trailer
    std::map<int64_t, std::vector<int64_t>> references; // of objects with fields, in order
    std::map<int64_t, int64_t> classOf;                 // of those objects: class numbers
};
