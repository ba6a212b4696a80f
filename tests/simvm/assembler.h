// As much of x86-64 as simulated frames need. r15: JavaThread, r14: Control.
#pragma once

#include "memory.h"

#include <initializer_list>
#include <string>

namespace simvm {

struct Assembler {
    std::string code;
    size_t pcAt = 0,
           pc = 0; // where the absolute address of a place in the code goes, and that place; 0: nowhere

    void Bytes(std::initializer_list<int> bytes) {
        for (int byte : bytes)
            code.push_back(char(byte));
    }
    template <class T>
    void Value(T value) {
        code.append(reinterpret_cast<char *>(&value), sizeof value);
    }
    size_t Here() const { return code.size(); }

    void LoadRax(Word value) { Bytes({0x48, 0xb8}), Value(value); }
    void PushWord(Word value) { LoadRax(value), Bytes({0x50}); }
    void LoadRaxFrom(const void *cell) { // the word there when it runs
        LoadRax(reinterpret_cast<Word>(cell)), Bytes({0x48, 0x8b, 0x00});
    }
    void Call(Word target) { LoadRax(target), Bytes({0xff, 0xd0}); }
    void SubRsp(int words) { Bytes({0x48, 0x81, 0xec}), Value(int32_t(8 * words)); }
    void AddRsp(int words) { Bytes({0x48, 0x81, 0xc4}), Value(int32_t(8 * words)); }
    void StoreRax(int slot) { Bytes({0x48, 0x89, 0x84, 0x24}), Value(int32_t(8 * slot)); } // [rsp + slot]
    void StoreRbp(int slot) { Bytes({0x48, 0x89, 0xac, 0x24}), Value(int32_t(8 * slot)); }
    void LoadRbp(int slot) { Bytes({0x48, 0x8b, 0xac, 0x24}), Value(int32_t(8 * slot)); }
    void LoadRbpValue(Word value) { Bytes({0x48, 0xbd}), Value(value); }

    void LoadRbpAddress(int slot) { Bytes({0x48, 0x8d, 0xac, 0x24}), Value(int32_t(8 * slot)); }

    // Members of the JavaThread.
    void StoreRaxInThread(size_t place) { Bytes({0x49, 0x89, 0x87}), Value(int32_t(place)); }
    void StoreRbpInThread(size_t place) { Bytes({0x49, 0x89, 0xaf}), Value(int32_t(place)); }
    void StoreWordInThread(size_t place, int32_t value) {
        Bytes({0x49, 0xc7, 0x87}), Value(int32_t(place)), Value(value);
    }
    void StoreIntInThread(size_t place, int32_t value) {
        Bytes({0x41, 0xc7, 0x87}), Value(int32_t(place)), Value(value);
    }

    // A short jump back to a place, or on to one that Land fixes.
    void JumpBack(int opcode, size_t to) { Bytes({opcode, int(to) - int(Here()) - 2}); }
    size_t JumpOn(int opcode) { return Bytes({opcode, 0}), Here(); }
    void Land(size_t jump) { code[jump - 1] = char(Here() - jump); }
};

constexpr int JUMP = 0xeb, JUMP_EQUAL = 0x74, JUMP_UNEQUAL = 0x75;

} // namespace simvm
