// A VM of the generation that the direct road reads, simulated: it lays out heap, classes, code and threads
// in memory as layout.h has them. What a test compares with comes from the descriptions here, never from that
// memory.
//
// One VM a process. Whoever changes or reads descriptions while other threads run holds vm.lock.
#pragma once

#include "memory.h"
#include "statics.h"

#include <atomic>
#include <deque>
#include <jni.h>
#include <map>
#include <mutex>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

namespace simvm {

enum class Collector { SERIAL, PARALLEL, CONCURRENT };

// What the VM was told of its heap's size, in bytes.
struct HeapFlags {
    int64_t heap = 128 << 20, perm = 64 << 20, young = 32 << 20;
    int64_t newRatio = 2, survivorRatio = 6;
};
struct Options {
    std::string library = {}; // path of the libjvm.so that holds the statics; empty: server's or client's
    bool isClient = false;
    std::string version = "1.5.0_22";
    Collector collector = Collector::SERIAL;
    HeapFlags flags;
    int32_t moved = 0;    // every member of JavaThread lies so many bytes higher: no listed build
    uint32_t shuffle = 0; // a seed: members lie in places that no build has
    Guarded guarded = Guarded::NOTHING;
    bool wide = false; // other classes than the VM's own lie 5 GB from those
};

struct Object;
// Of a field, an element or a local, as Java has it; the field says which of the three. All 0: not set.
struct Value {
    int64_t number = 0; // of Z, B, C, S, I and J
    double real = 0;    // of F and D
    Object *object = nullptr;

    Value() = default;
    Value(Object *to) : object(to) {}
    template <class T, class = std::enable_if_t<std::is_arithmetic_v<T>>>
    Value(T value) : number(int64_t(value)), real(double(value)) {}
};
struct Field {
    std::string name, signature;
    bool isStatic;
    int32_t offset;   // from the object, or from the klass
    Value value = {}; // of a static
};
struct Class {
    std::string name; // with slashes
    Class *super;
    std::vector<Field> fields; // its own
    Word klass, pool;
    int32_t bytes; // of an instance
    int32_t poolUsed, poolRoom = 0;
    std::string source = {}; // file; empty: not known
};
struct MethodLine {
    int32_t bci, line;
};
// What follows a method's lines: the end mark, or something else. A method without lines has something else
// there as well.
enum class LineEnd { MARKED, UNMARKED };
struct MethodInfo {
    Class *holder;
    std::string name, signature;
    int32_t flags, codeSize;
    std::vector<MethodLine> lines;
    Word oop;
    int32_t locals = -1; // slots, once a frame of it has been described
};
// Of a method's arguments, in their order.
std::vector<std::string> ArgumentsOf(const MethodInfo &method);
struct Object {
    Word address; // follows the object when it moves
    Word klass;
    int64_t bytes;
    char space;
    Class *type = nullptr;          // null: its values aren't described
    std::vector<Value> values = {}; // an array's elements, or the fields as FieldsOf lists them
};
struct HeapSpace {
    char letter;    // P, O (C: the concurrent collector's), E, F, T
    Word structure; // the VM's description of it
    Word bottom, top, end;
    Word sizes;                    // for each of its words how many words the object has that begins there
    Word chunkWords, indexedWords; // free ones below top: in the dictionary, in lists by size
};
struct CollectionFigures {
    int32_t minor = 0, major = 0;
    int64_t minorTime = 0, majorTime = 0;
};
// A stretch of a space that holds no object.
struct Gap {
    int64_t bytes;
    bool chunk; // a free one, which a reader steps over; else one where it finds nothing
};
struct ThreadInfo {
    std::string name;
    Word address = 0, osThread = 0; // JavaThread, OSThread
    Object *object = nullptr;       // java.lang.Thread
    int32_t kernelId = 0;
    Word handles = 0; // HandleBlock
    bool exceptionPending = false;
    std::vector<Object *> objects; // that die with it
};

struct Vm {
    Options options;
    Statics statics;
    std::recursive_mutex lock;
    std::map<std::string, Word> symbols;
    std::map<std::string, Class> classes;
    std::deque<MethodInfo> methods;
    std::deque<Object> objects;      // of eden, from and old
    std::vector<Object *> forgotten; // of these, to be used again
    std::map<Word, Gap> gaps;        // that were planted, by address
    HeapSpace perm, old, eden, from, to;
    Word kindKlass[VTABLE_COUNT]; // the klasses of the VM's own kinds of objects
    Word heap;                    // CollectedHeap
    Object *threadGroup;          // of all threads
    CollectionFigures collections;
    std::vector<ThreadInfo *> threads; // in the order of the VM's list
};
extern Vm vm;

// Lays out the VM: statics, virtual tables, spaces, the VM's own klasses and java.lang's. Ends the process on
// failure.
void Boot(const Options &options);
// The agent's table of places as this build has them: index as the agent's `offsets`, unit bytes or words by
// index. For builds whose places are shuffled.
void TellPlaces(uint32_t out[200]);

// ---- classes and objects
// -----------------------------------------------------------------------------------

Word Intern(const std::string &text); // a symbol
// Seven bits a byte from the lowest; the last byte holds a signed rest, counted from 192.
void PutCompressed(std::string *out, int32_t value);
Class *DefineClass(const std::string &name, const std::string &super, std::vector<Field> fields = {});
// A line of words: "NAME [< SUPER] [?] field,SIGNATURE *static,SIGNATURE ...". "?": its source file isn't
// known.
Class *DefineClass(const std::string &line);
Class *ArrayClass(const std::string &signature); // "[I", "[[Ljava/lang/Object;"
Class *FindClass(const std::string &name);       // null: not defined
// A method of codeSize bytecodes.
MethodInfo *DefineMethod(const std::string &holder, const std::string &name, const std::string &signature,
                         std::vector<MethodLine> lines, int32_t flags = 0, int32_t codeSize = 64,
                         LineEnd end = LineEnd::MARKED);

constexpr Word WIDE_GAP = 5ul << 30; // in perm, of a VM with wide addresses: never touched

HeapSpace &SpaceOf(char letter);
bool HasFreeLists(const HeapSpace &space);
int64_t WordsOf(Word oop); // of what begins there; 0: nothing. As the VM's own function: safe anywhere
Word AllocateObject(HeapSpace *space, int64_t bytes, Guarded structure = Guarded::NOTHING);
void SetTop(HeapSpace *space, Word top); // with what is free above
void Forget(Object *object);             // dead; the next collection takes its memory
Object *NewObject(const std::string &className, char space = 'E');
Object *NewChars(const std::string &text, char space = 'E'); // char[], one character a byte
Object *NewString(const std::string &text, char space = 'E');
Object *NewArray(const std::string &signature, int32_t length, char space = 'E');
// Of an instance, super classes' first.
std::vector<const Field *> FieldsOf(const Class *type);
// A field, a static or an element, in memory and in the description. A name is that of the class nearest.
void Set(Object *object, const std::string &field, Value value);
void SetStatic(Class *type, const std::string &field, Value value);
void SetElement(Object *array, int32_t index, Value value);
Value Get(const Object *object, const std::string &field);
int32_t SizeOf(const std::string &signature); // bytes of a field or an element
// Writes the value where a field of that signature has its place.
void WriteValue(Word place, const std::string &signature, const Value &value);

// ---- threads
// -----------------------------------------------------------------------------------------------

// A JavaThread with its OSThread and java.lang.Thread object, not yet in the list. State: initialized.
ThreadInfo *NewThread(const std::string &name);
void LinkThread(ThreadInfo *thread); // at the head of the list, as the calling thread's own
void UnlinkThread(ThreadInfo *thread);
void FreeThread(ThreadInfo *thread); // its memory goes to the next one
void SetStates(ThreadInfo *thread, ThreadState state, OsState osState);

// ---- JNI
// ---------------------------------------------------------------------------------------------------

JNIEnv *EnvOf(ThreadInfo *thread); // inside its JavaThread
// A handle to the object, or to text that isn't in the heap; they live as long as the thread.
jobject NewHandle(ThreadInfo *thread, Object *object);
jstring NewText(const std::string &text);
const std::string &TextOf(jstring text);
void FreeText(jstring text);

} // namespace simvm
