// A folder that lives as long as the test that made it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

struct Folder {
    Folder() {
        char name[] = "/tmp/qor-test-XXXXXX";
        path = mkdtemp(name);
    }
    ~Folder() { std::filesystem::remove_all(path); }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;

    std::string In(const std::string &name) const { return (path / name).string(); }

    // Writes a file, and makes the folders above it.
    std::string Fill(const std::string &name, const std::string &text) const {
        std::filesystem::create_directories((path / name).parent_path());
        std::ofstream(path / name, std::ios::binary) << text;
        return In(name);
    }
    std::string Content(const std::string &name) const {
        std::ostringstream all;
        all << std::ifstream(path / name).rdbuf();
        return all.str();
    }

    std::filesystem::path path;
};
