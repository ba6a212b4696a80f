// The JVM's packed integers: 1 to 5 bytes, each but the last at least 192. From JDK 20 on no byte of them is
// 0.
#pragma once

#include "process_memory.h"

namespace qorctl::outside {

class PackedReader {
public:
    PackedReader(Memory &memory, Address at, int jdk)
        : memory_(memory), at_(at), excluded_(jdk >= 20 ? 1 : 0) {}

    uint32_t Next() {
        uint32_t sum = 0;
        for (int i = 0; i < 5; ++i) {
            const uint8_t byte = Byte();
            sum += (uint32_t(byte) - excluded_) << (6 * i);
            if (byte < 192)
                break;
        }
        return sum;
    }
    int32_t NextSigned() {
        const uint32_t value = Next();
        return static_cast<int32_t>(value >> 1 ^ (0u - (value & 1)));
    }
    uint8_t Byte() { return memory_.At<uint8_t>(at_++); }

private:
    Memory &memory_;
    Address at_;
    uint32_t excluded_;
};

} // namespace qorctl::outside
