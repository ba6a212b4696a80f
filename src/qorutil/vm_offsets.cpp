#include "vm_offsets.h"

#include <algorithm>
#include <array>

const uint32_t *offsets;

namespace {

using Row = std::array<uint32_t, OFFSET_COUNT>;

// Builds 6, 9 and 10: 1.5.0_10 to _22. Twenty values a line.
// clang-format off
constexpr Row ROW_6 = {
    56, 0, 224, 212, 280, 288, 320, 32, 272, 216, 224, 28, 416, 240, 44, 128, 0, 64, 112, 248,
    40, 7, 64, 296, 62, 72, 240, 104, 424, 8, 24, 256, 56, 48, 48, 8, 24, 32, 16, 164,
    16, 84, 76, 80, 8, 16, 88, 120, 128, 72, 16, 600, 608, 616, 240, 240, 184, 56, 392, 264,
    0, 0, 0, 30, 31, 32, 33, 34, 35, 37, 40, 41, 42, 46, 42, 1, 20, 31, 34, 8,
    1, 30, 69, 49, 35, 46, 47, 59, 51, 11, 4, 4, 33, 0, 0, 1, 2, 1, 2, 3,
    0, 1, 2, 1, 3, 1, 3, 0, 1, 1, 1, 2, 1, 4, 3, 1, 0, 1, 0, 0,
    32, 0, 128, 0, 232, 320, 16, 288, 0, 0, 0, 0, 0, 6, 12, 14, 16, 17, 24, 25,
    26, 27, 28, 29, 30, 31, 34, 36, 32, 33, 49, 50, 3, 4, 5, 1, 2, 4, 3, 1,
    3, 5, 4, 2, 0, 2, 1, 93, 94, 33, 7, 38, 51, 35, 37, 38, 39, 40, 41, 42,
    43, 42, 32, 40, 48, 160, 160, 8, 16, 24, 45, 43, 44, 39, 47, 0, 0, 0, 0, 0,
};
// clang-format on

struct Difference {
    uint8_t index;
    uint32_t value;
};

constexpr Difference BUILD_8[] = {
    {63, 29}, {64, 30}, {65, 31}, {66, 32},  {67, 33},  {68, 34},  {69, 36},  {70, 39},  {71, 40},
    {72, 41}, {73, 45}, {76, 19}, {171, 37}, {190, 44}, {191, 42}, {192, 43}, {193, 38}, {194, 46},
};

// On top of those of build 8.
constexpr Difference BUILD_7[] = {
    {9, 208},  {10, 216}, {31, 248}, {51, 592}, {52, 600}, {53, 608}, {58, 384}, {138, 23},
    {139, 24}, {140, 25}, {141, 26}, {142, 27}, {143, 28}, {144, 29}, {145, 30}, {146, 33},
    {147, 35}, {148, 31}, {149, 32}, {150, 48}, {151, 49}, {172, 50}, {173, 34}, {174, 36},
    {175, 37}, {176, 38}, {177, 39}, {178, 40}, {179, 41}, {180, 42},
};

template <size_t N>
constexpr Row With(const Row &row, const Difference (&differences)[N]) {
    Row changed = row;
    for (const Difference &difference : differences)
        changed[difference.index] = difference.value;
    return changed;
}

constexpr Row ROW_8 = With(ROW_6, BUILD_8);
constexpr Row ROW_7 = With(ROW_8, BUILD_7);

struct Build {
    int32_t build;
    const Row *row;
};
constexpr Build BUILDS[] = {{6, &ROW_6}, {7, &ROW_7}, {8, &ROW_8}, {9, &ROW_6}, {10, &ROW_6}};

// By the state of an OSThread.
constexpr QorDirectState STATES[OS_STATES + 1] = {
    DIRECT_ALLOCATED,   DIRECT_INITIALIZED, DIRECT_RUNNABLE, DIRECT_LOCK,   DIRECT_CONDVAR_WAIT,
    DIRECT_OBJECT_WAIT, DIRECT_BREAKPOINT,  DIRECT_SLEEPING, DIRECT_ZOMBIE, DIRECT_UNKNOWN,
};

} // namespace

bool QorSelectOffsets(int32_t build) {
    offsets = nullptr;
    for (const Build &row : BUILDS)
        if (row.build == build)
            offsets = row.row->data();
    return offsets != nullptr;
}

QorDirectState QorStateOf(int32_t osState) {
    return STATES[std::clamp<int32_t>(osState, 0, OS_STATES)];
}
