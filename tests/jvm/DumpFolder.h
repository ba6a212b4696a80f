// A folder for dumps that goes with the test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

struct DumpFolder {
    DumpFolder() {
        char name[] = "/tmp/heap_testXXXXXX";
        path = mkdtemp(name);
    }
    ~DumpFolder() { std::filesystem::remove_all(path); }
    std::string operator()(const std::string &name) const { return (path / name).string(); }
    std::filesystem::path path;
};
