// The memory of one JVM as far as a walk of all its threads reads it, and its symbols: noted while a live one
// is read, kept in a file, walked on any machine.
#pragma once

#include "outside/stack_walk.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <map>
#include <string>

namespace recorded {

using namespace qorctl::outside;

constexpr Address PAGE = 4096;

struct Image {
    VmSymbols symbols;
    std::map<Address, std::array<char, PAGE>> pages; // what wasn't read of one is 0

    // Calls `use` for each part of a range that is in one page: its page, the offset in it, the part's start
    // and size. Stops with false when `use` does.
    template <class Use>
    static bool EachPart(Address from, size_t size, Use use) {
        for (size_t done = 0; done < size;) {
            const Address offset = (from + done) % PAGE;
            const size_t part = std::min<size_t>(size - done, PAGE - offset);
            if (!use(from + done - offset, offset, done, part))
                return false;
            done += part;
        }
        return true;
    }

    bool Copy(Address from, void *to, size_t size) const {
        return EachPart(from, size, [&](Address page, Address offset, size_t done, size_t part) {
            const auto found = pages.find(page);
            if (found != pages.end())
                memcpy(static_cast<char *>(to) + done, found->second.data() + offset, part);
            return found != pages.end();
        });
    }

    void Note(Address from, const void *bytes, size_t size) {
        EachPart(from, size, [&](Address page, Address offset, size_t done, size_t part) {
            memcpy(pages[page].data() + offset, static_cast<const char *>(bytes) + done, part);
            return true;
        });
    }

    void Save(const char *path) const {
        std::ofstream out(path, std::ios::binary);
        for (const auto &[name, at] : symbols.objects)
            out << "symbol " << at << ' ' << name << '\n';
        for (const auto &[at, name] : symbols.vtables)
            out << "vtable " << at << ' ' << name << '\n';
        for (const auto &[at, bytes] : pages)
            (out << "page " << at << '\n').write(bytes.data(), PAGE);
    }

    bool Load(const char *path) {
        std::ifstream in(path, std::ios::binary);
        Address at = 0;
        for (std::string kind, name; in >> kind >> at;) {
            if (kind == "page") {
                in.ignore();
                in.read(pages[at].data(), PAGE);
            } else if (in >> name) {
                kind == "symbol" ? void(symbols.objects[name] = at) : void(symbols.vtables[at] = name);
            }
        }
        symbols.has_symtab = !symbols.vtables.empty();
        return !pages.empty();
    }
};

// A live process that is noted as it is read.
class Recorder : public ProcessMemory {
public:
    Recorder(pid_t pid, Image &image) : ProcessMemory(pid), image_(image) {}

protected:
    bool Fetch(Address from, void *to, size_t size) override {
        const bool fetched = ProcessMemory::Fetch(from, to, size);
        if (fetched)
            image_.Note(from, to, size);
        return fetched;
    }

private:
    Image &image_;
};

class ImageMemory : public Memory {
public:
    explicit ImageMemory(const Image &image) : image_(image) {}

protected:
    bool Fetch(Address from, void *to, size_t size) override { return image_.Copy(from, to, size); }

private:
    const Image &image_;
};

// All threads and their frames below them, as text. `most` threads are enough.
inline std::string WalkAll(Memory &memory, const VmSymbols &symbols, const VmTable &table, size_t most) {
    VmObjects objects(memory, table, symbols);
    CodeCache code(memory, table, objects);
    StackWalker walker(memory, table, symbols, objects, code);
    std::string text;
    for (const Address at : ReadThreadList(memory, table)) {
        ThreadFacts facts;
        if (most-- == 0)
            break;
        if (!ReadThread(memory, table, symbols, at, &facts))
            continue;
        text += objects.ThreadName(at) + '\n';
        for (const Frame &frame : walker.FromAnchor(facts).frames)
            text += "\tat " + FrameText(frame) + '\n';
    }
    return text;
}

} // namespace recorded
