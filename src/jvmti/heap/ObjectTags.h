// What a dump writes into an object's tag: a number in the high word, the object's size in the low one.
//
// The sign of the low word is the parity of the run: sizes are positive in run 1 and negated in run 0. A tag
// of the other sign was left by an earlier dump and counts as none.
#pragma once

#include <cstdint>

enum : int64_t {
    FIRST_CLASS_NUMBER = 100,     // below: the classes of primitive arrays, from 1
    FIRST_OBJECT_NUMBER = 100000, // below: classes
    LARGEST_NUMBER = INT32_MAX,
};

// Sizes of 2 GiB and more would turn the sign over; they are held at the greatest positive one.
inline int32_t QorTagSize(int64_t size) {
    return size > INT32_MAX ? INT32_MAX : static_cast<int32_t>(size);
}

// `size` is at least 0.
inline int64_t QorMakeTag(int64_t number, int64_t size, int32_t run) {
    const int32_t word = run ? QorTagSize(size) : -QorTagSize(size);
    return static_cast<int64_t>(static_cast<uint64_t>(number) << 32 | static_cast<uint32_t>(word));
}

inline bool QorTagIsStale(int64_t tag, int32_t run) {
    return (static_cast<int32_t>(tag) < 0) == (run != 0);
}

inline int64_t QorTagNumber(int64_t tag) {
    return tag >> 32;
}

// Number and size of a tag, 0 and 0 for none.
inline void QorGetJObjectProp(int64_t tag, int64_t *number, int32_t *size) {
    const int32_t word = static_cast<int32_t>(tag);
    *number = QorTagNumber(tag);
    *size = word < 0 ? -word : word;
}
