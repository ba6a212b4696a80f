// Which piece of generated code an address is in, and which methods it stands for.
#pragma once

#include "vm_objects.h"

namespace qorctl::outside {

struct CodeBlob {
    Address start = 0, code = 0, code_end = 0;
    std::string name;
    int64_t frame_words = 0;
    int64_t frame_complete = 0; // offset of the code from which on its frame is there
    bool compiled = false;      // from a method
    bool interpreter = false;
};

class CodeCache {
public:
    CodeCache(Memory &memory, const VmTable &table, VmObjects &objects);

    // The piece that an address is in; nothing when it isn't in generated code.
    std::optional<CodeBlob> Find(Address pc);

    // Appends the frames of compiled code at `pc`, innermost first: the method, and what was inlined into it
    // there.
    void AppendFrames(const CodeBlob &blob, Address pc, std::vector<Frame> *frames);

    // Whether this is where Java code returns to that was called from native code.
    bool IsCallReturn(Address pc) const { return call_return_ != 0 && pc == call_return_; }

private:
    struct Heap {
        Address low, high, segments;
        int log;
    };
    struct Scopes {
        Address pcs = 0, pcs_end = 0, data = 0, metadata = 0;
    };
    void AddHeap(Address heap);
    std::optional<Address> FindBlock(const Heap &heap, Address pc);
    CodeBlob ReadBlob(Address start, Address pc);
    Scopes FindScopes(Address nmethod);
    int FindScope(const CodeBlob &blob, const Scopes &scopes, Address pc);
    bool AppendInlined(const CodeBlob &blob, Address pc, const std::string &kind, Address outer,
                       std::vector<Frame> *frames);

    Memory &memory_;
    const VmTable &table_;
    VmObjects &objects_;
    std::vector<Heap> heaps_;
    Address interpreter_ = 0, interpreter_end_ = 0, call_return_ = 0;
};

} // namespace qorctl::outside
