// A heap of known content: random objects between stretches in which nobody finds one, and the figures that
// follow from the description.
#pragma once

#include "simvm.h"

namespace simvm {

// ---- content
// -----------------------------------------------------------------------------------------------

// Puts pieces into the spaces, one after the other; the same seed makes the same content. A piece is the
// space's letter (O: of both kinds of old), a word and an amount:
//   objects      so many random ones
//   stale        so many bytes of what was there once
//   no-klass     an object of so many bytes without a klass word, as one that is being allocated
//   link         the same whose klass word is a link to another object
//   half-array   the same that has a klass and as yet a wild length
//   forwarded    an object whose mark is where it went; it still counts
//   odd-array    of so many elements, of a kind whose header isn't a multiple of 8
//   vm-kinds     what only the VM makes, one of each; for perm
//   across       an array that begins so many bytes before the space's top and ends after it
//   last         top is so many bytes below the space's end; from there down a last object
//   chunk        in spaces with free lists: a free one of so many words
//   wrong-chunk  the same: a stretch of 64 bytes that is a free chunk of so many words, no size that can be
void FillHeap(const char *pieces, uint32_t seed);
// All of the above at every place that a reader might trip over; "full" spaces end at the end of their
// mapping. The from space stays empty.
extern const char TRICKY_HEAP[], FULL_HEAP[];

// ---- figures
// -----------------------------------------------------------------------------------------------

struct Count {
    int64_t objects = 0, bytes = 0;
};
struct Census {
    Count all;
    // By the second character of an object's record: 1 symbol, 2 method, F constMethod, 3 pool, 4 pool cache,
    // 8 instance, [ array, * compiledICHolder, H methodData; klasses: A of the VM's own, B of instances, C,
    // D, E of arrays.
    std::map<char, Count> types;
    std::map<std::string, Count> classes; // of instances and arrays, with slashes
    int64_t skippedBytes = 0, skippedRuns = 0;
};
Census CensusOf(const HeapSpace &space);
std::unordered_map<Word, char> KindLetters(); // those letters by an object's klass

struct SpaceUse {
    const HeapSpace *space;
    std::string name;
    int64_t used, capacity; // bytes
    int32_t percent;
};
// Perm, old, eden, from by their addresses.
std::vector<SpaceUse> UseOfSpaces();
// What every address of a dump is counted from.
Word RecordBase();
// As one line of JSON.
std::string HeapLine();

// ---- memory
// ------------------------------------------------------------------------------------------------

constexpr Word SMALLEST_CHUNK = 3; // in words, with its link and size

uint32_t &SizeAt(const HeapSpace &space, Word oop);
void WriteChunk(Word at, Word words);
void SetCollections(const CollectionFigures &figures);

} // namespace simvm
