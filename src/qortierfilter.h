// A quick no to the question whether the rules of qortiers.h have anything for a class, which is the answer
// for nearly all: one pass over its name and a few bits of memory.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

// Names and starts of names, by two bits each of a set.
struct QorTierFilter {
    uint64_t bits[1024];
    bool lengths[256]; // of the starts
    bool hasLongStart; // one that is longer: every name passes

    void Clear() { memset(this, 0, sizeof *this); }

    void AddName(std::string_view name) {
        const uint32_t hash = HashOf(name);
        for (const uint32_t bit : {hash & 0xffffU, hash >> 16})
            bits[bit / 64] |= 1ULL << bit % 64;
    }

    void AddStart(std::string_view start) {
        AddName(start);
        if (start.size() < sizeof lengths)
            lengths[start.size()] = true;
        else
            hasLongStart = true;
    }

    // False: it is none of the names, and begins with none of the starts.
    bool MayHave(std::string_view name) const {
        uint32_t hash = SEED;
        size_t length = 0;
        for (const char c : name) {
            if (length < sizeof lengths && lengths[length] && Has(hash))
                return true;
            hash = Next(hash, c);
            length++;
        }
        return hasLongStart || Has(hash);
    }

private:
    static constexpr uint32_t SEED = 2166136261U, FACTOR = 16777619U; // FNV-1a

    static uint32_t Next(uint32_t hash, char c) { return (hash ^ static_cast<unsigned char>(c)) * FACTOR; }

    static uint32_t HashOf(std::string_view text) {
        uint32_t hash = SEED;
        for (const char c : text)
            hash = Next(hash, c);
        return hash;
    }

    bool Has(uint32_t hash) const {
        const uint32_t low = hash & 0xffffU, high = hash >> 16;
        return (bits[low / 64] >> low % 64 & 1) && (bits[high / 64] >> high % 64 & 1);
    }
};
