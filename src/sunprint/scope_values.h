// What the compiler has noted of a frame is in a stream of compressed integers; a value of the frame, such as
// a local variable or a lock's object, is a tag and what belongs to it.
//
// Nothing here allocates, logs or calls the JVM: a thread may be held. Worker.
#pragma once

#include <cstdint>

// Reads one integer at `data` + *position and moves on. Bytes with the top bit clear give seven bits each,
// the lowest first; the byte with it ends the integer and gives its own value less 192. False, with *position
// undefined, for one of more than five bytes, for bytes that can't be read, and outside the first megabyte.
bool get_int_from_compressed_stream(uint64_t data, int32_t *position, int32_t *value);

enum QorValueTag : int32_t { TAG_LOCATION, TAG_INT, TAG_OOP, TAG_LONG, TAG_DOUBLE };

struct QorScopeValue {
    QorValueTag tag;
    uint64_t place; // of TAG_LOCATION: its address on the stack; 0 when it is in a register or nowhere
    int32_t first; // the number, the lower half of a long or a double, the object's index in the code's table
    int32_t second; // the upper half
};

// Reads the value at *position of a frame whose stack begins at `sp`. False for an unknown tag: what follows
// can't be read then.
bool QorReadScopeValue(uint64_t stream, int32_t *position, uint64_t sp, QorScopeValue *out);
