// Names in a JVM: of threads, classes and methods, and the lines of methods. They are all that is printed of
// the target's memory; values of locals and fields never are.
//
// A collection may move an object while it is read, so an object's class and place are read again after it: a
// name that can't be vouched for is empty, never wrong.
#pragma once

#include "vm_table.h"

namespace qorctl::outside {

struct Frame {
    std::string method; // "java.lang.Thread.run"
    std::string file;   // empty when the class doesn't name it
    int line = -1;
    bool native = false;
    std::string code; // "C1", "C2", "C2 osr"; empty when interpreted
    bool inlined = false;
};

// "java.lang.Thread.run(Thread.java:840)", as the JVM itself writes a frame.
std::string FrameText(const Frame &frame);

class VmObjects {
public:
    VmObjects(Memory &memory, const VmTable &table, const VmSymbols &symbols);

    int Jdk() const { return jdk_; }

    // The Java name of a thread; empty when it can't be read now.
    std::string ThreadName(Address thread);

    // The class of the object that a monitor belongs to; empty when it can't be read now.
    std::string MonitorClass(Address monitor);

    // Describes a method and the line of a bytecode in it (-1: none). False when that isn't a method.
    bool Describe(Address method, int bci, Frame *frame);

    // The bytecode index of an interpreter's pointer into a method, -1 when it points elsewhere.
    int BytecodeIndex(Address method, Address pointer);

    // The class of an object, "java.lang.Thread"; empty when it can't be read.
    std::string ClassName(Address object);

    // The object that a field at `at` refers to, now; 0 when there is none or it can't be read.
    Address Reference(Address at);

    // Drops what is known of methods: another look begins, and classes may have gone meanwhile.
    void Forget() { methods_.clear(); }

private:
    struct MethodText {
        std::string name, file;
        bool native = false;
    };
    int FieldOffset(Address klass, const char *name);
    int FieldOffsetInShorts(Address klass, const char *name);
    int FieldOffsetInStream(Address klass, const char *name);
    void ReadFlags();
    std::string SymbolText(Address symbol);
    std::string PoolText(Address pool, unsigned index);
    std::string SourceFile(Address pool, Address holder);
    const MethodText *FindMethod(Address method, Address const_method);
    int Line(Address const_method, int bci);
    Address KlassOf(Address object);
    Address Plain(Address value) const;
    Address FromHandle(Address at);
    std::string StringText(Address object);
    std::string Characters(Address value, bool latin1);

    Memory &memory_;
    const VmTable &table_;
    int jdk_ = 0;
    Address oop_base_ = 0, klass_base_ = 0, string_klass_ = 0;
    int oop_shift_ = 0, klass_shift_ = 0;
    bool compressed_oops_ = false, compressed_klass_ = false, compact_headers_ = false, coloured_ = false;
    int name_offset_ = -1, value_offset_ = -1, coder_offset_ = -1;
    std::unordered_map<Address, MethodText> methods_;
};

} // namespace qorctl::outside
