#include "scope_values.h"

#include "qorutil/vm_reader.h"

namespace {

constexpr int32_t MAX_STREAM = 1 << 20, MAX_INTEGER_BYTES = 5;
constexpr int32_t LAST_BYTE_ZERO = 192;

constexpr uint64_t LOCATION_UNIT = 4; // bytes

// Integers after each tag.
constexpr int32_t TAG_LENGTHS[] = {1, 1, 1, 2, 2};

// The word of a location.
enum : int32_t {
    LOCATION_OFFSET = 0xfff,
    LOCATION_TYPE_SHIFT = 12,
    LOCATION_TYPE = 7,
    LOCATION_IN_REGISTER = 1 << 15,
    LOCATION_INVALID = 7,
};

uint64_t StackPlace(int32_t location, uint64_t sp) {
    const auto type = location >> LOCATION_TYPE_SHIFT & LOCATION_TYPE;
    if ((location & LOCATION_IN_REGISTER) || type == LOCATION_INVALID)
        return 0;
    return sp + static_cast<uint64_t>(location & LOCATION_OFFSET) * LOCATION_UNIT;
}

} // namespace

bool get_int_from_compressed_stream(uint64_t data, int32_t *position, int32_t *value) {
    int64_t sum = 0;
    for (int32_t i = 0; i < MAX_INTEGER_BYTES; i++) {
        uint8_t byte = 0;
        if (*position < 0 || *position >= MAX_STREAM ||
            !QorPeekValue(data + static_cast<uint64_t>(*position), &byte))
            return false;
        ++*position;
        const int64_t unit = int64_t(1) << (7 * i);
        if (byte < 128) {
            sum += byte * unit;
            continue;
        }
        *value = static_cast<int32_t>(sum + (byte - LAST_BYTE_ZERO) * unit);
        return true;
    }
    return false;
}

bool QorReadScopeValue(uint64_t stream, int32_t *position, uint64_t sp, QorScopeValue *out) {
    int32_t tag = -1;
    *out = {};
    if (!get_int_from_compressed_stream(stream, position, &tag) || tag < TAG_LOCATION || tag > TAG_DOUBLE)
        return false;
    out->tag = static_cast<QorValueTag>(tag);
    if (!get_int_from_compressed_stream(stream, position, &out->first))
        return false;
    if (tag == TAG_LOCATION)
        out->place = StackPlace(out->first, sp);
    return TAG_LENGTHS[tag] == 1 || get_int_from_compressed_stream(stream, position, &out->second);
}
