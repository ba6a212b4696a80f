// Memory that betrays: what isn't written is poison, and members may lie in other places than layout.h has
// them.
#pragma once

#include "layout.h"
#include "statics.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <deque>
#include <functional>
#include <jni.h>
#include <list>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <unistd.h>
#include <unordered_map>
#include <vector>

namespace simvm {

constexpr uint8_t POISON = 0x5b;
constexpr Word POISON_WORD = 0x5b5b5b5b5b5b5b5b; // odd, not null and no address

[[noreturn]] void Fail(const char *what);

// Poisoned memory of the VM's own, 16-aligned.
Word Allocate(size_t bytes);
// A mapping of its own, poisoned or untouched; with protection bits beyond reading and writing.
Word Map(size_t bytes, bool poison, int protection = 0);

// How far each member lies from where layout.h has it, in this build, by its place there.
template <class S>
inline int16_t placeShift[1024];

template <class S, class T>
size_t Place(T S::*member) {
    alignas(16) static char any[sizeof(S)];
    const size_t place = reinterpret_cast<char *>(&(reinterpret_cast<S *>(any)->*member)) - any;
    return place + placeShift<S>[place];
}

template <class T>
__attribute__((always_inline)) inline T &As(Word address) {
    return *reinterpret_cast<T *>(address);
}

// A structure in memory of its own, with so many bytes after it.
template <class S>
S *Make(size_t more = 0) {
    return &As<S>(Allocate(sizeof(S) + more));
}

// The member of the structure at that address.
template <class S, class T>
T &At(Word address, T S::*member) {
    return As<T>(address + Place(member));
}

// A VM of the generation that the direct road reads, simulated: it lays out heap, classes, code and threads
// in memory as layout.h has them. What a test compares with comes from the descriptions here, never from that
// memory.
//
// One VM a process. Whoever changes or reads descriptions while other threads run holds vm.lock.

enum class Collector { SERIAL, PARALLEL, CONCURRENT };

// What the VM was told of its heap's size, in bytes.
struct HeapFlags {
    int64_t heap = 128 << 20, perm = 64 << 20, young = 32 << 20;
    int64_t newRatio = 2, survivorRatio = 6;
};
struct Options {
    bool isClient = false;
    std::string version = "1.5.0_22";
    Collector collector = Collector::SERIAL;
    HeapFlags flags;
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
    Word mirror;      // of its java.lang.Class; a JNI reference is where this word is
    std::string name; // with slashes
    Class *super;
    std::vector<Field> fields; // its own
    Word klass, pool;
    int32_t bytes; // of an instance
    int32_t poolUsed = 1;
    std::string source = {}; // file
};
struct MethodLine {
    int32_t bci, line;
};
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
    Word address = 0; // follows the object when it moves; a JNI reference is where this word is
    int64_t bytes = 0;
    char space = 0;
    Class *type = nullptr;          // null: its values aren't described
    std::vector<Value> values = {}; // an array's elements, or the fields as FieldsOf lists them
    std::string text = {};          // of a text or a byte[] that JNI keeps beside the heap
};
struct HeapSpace {
    char letter;    // P, O (C: the concurrent collector's), E, F, T
    Word structure; // the VM's description of it
    Word bottom, top, end;
    Word sizes;                    // for each of its words how many words the object has that begins there
    Word *written;                 // its top in that structure
    Word chunkWords, indexedWords; // free ones below top: in the dictionary, in lists by size
};
struct CollectionFigures {
    int32_t minor = 0, major = 0;
    int64_t minorTime = 0, majorTime = 0;
};
struct ThreadInfo {
    std::string name;
    Word address, osThread;
    Object *object; // java.lang.Thread
    int32_t kernelId = 0;
    bool exceptionPending = false;

    JavaThread &Java() const { return As<JavaThread>(address); }
    OSThread &Os() const { return As<OSThread>(osThread); }
};

using Locked = std::lock_guard<std::recursive_mutex>;
struct Vm {
    Options options;
    Statics statics;
    std::recursive_mutex lock;
    std::map<std::string, Word> symbols;
    std::map<std::string, Class> classes;
    std::deque<MethodInfo> methods;
    std::list<Object> objects;
    HeapSpace perm, old, eden, from, to;
    Word kindKlass[VTABLE_COUNT]; // the klasses of the VM's own kinds of objects
    CollectedHeap *heap;
    Word *survivors;     // where the young generation has its from and to spaces
    Object *threadGroup; // of all threads
    CollectionFigures collections;
    std::vector<ThreadInfo *> threads; // in the order of the VM's list
};
extern Vm vm;

// Lays out the VM: statics, virtual tables, spaces, the VM's own klasses and java.lang's. Ends the process on
// failure.
void Boot(const Options &options);
Word HeadOf(VtableKind kind); // of its virtual table

// ---- classes and objects
// -----------------------------------------------------------------------------------

Word Intern(const std::string &text); // a symbol
// Seven bits a byte from the lowest; the last byte holds a signed rest, counted from 192.
void PutCompressed(std::string *out, int32_t value);
// Defines it, if it isn't yet. A line of words: "NAME [< SUPER] field,SIGNATURE *static,SIGNATURE ...".
Class *DefineClass(const std::string &line);
Class *ArrayClass(const std::string &signature); // "[I", "[[Ljava/lang/Object;"
Class *FindClass(const std::string &name);       // null: not defined
// Something else than an end mark follows a static one's lines.
MethodInfo *DefineMethod(const std::string &holder, const std::string &name, const std::string &signature,
                         std::vector<MethodLine> lines, int32_t flags);

HeapSpace &SpaceOf(char letter);
bool HasFreeLists(const HeapSpace &space);
int64_t WordsOf(Word oop); // of what begins there; 0: nothing. As the VM's own function: safe anywhere
Word AllocateObject(HeapSpace *space, int64_t bytes);
Word NewVmObject(VtableKind kind, int64_t bytes); // of a kind that only the VM makes
void SetTop(HeapSpace *space, Word top);          // with what is free above
void Forget(const Object *object);                // dead; the next collection takes its memory
using Fields = std::vector<std::pair<std::string, Value>>;
Object *New(const std::string &className, const Fields &fields = {}, char space = 'E');
Object *NewArray(const std::string &signature, const std::vector<Value> &elements, char space = 'E');
Object *NewChars(const std::string &text, char space = 'E'); // char[], one character a byte
Object *NewString(const std::string &text, char space = 'E');
// Of an instance, super classes' first.
std::vector<const Field *> FieldsOf(const Class *type);
// A field or a static, in memory and in the description. A name is that of the class nearest.
void Set(Object *object, const std::string &field, Value value);
void SetStatic(Class *type, const std::string &field, Value value);
Value Get(const Object *object, const std::string &field);
// Writes the value where a field of that signature has its place.
void WriteValue(Word place, const std::string &signature, const Value &value);

// ---- threads
// -----------------------------------------------------------------------------------------------

// A JavaThread with its OSThread and java.lang.Thread object, not yet in the list. State: initialized.
ThreadInfo *NewThread(const std::string &name);
void LinkThread(ThreadInfo *thread); // at the head of the list, as the calling thread's own
void UnlinkThread(ThreadInfo *thread);
ThreadInfo *Self();                  // of the calling thread; without one the process ends
void FreeThread(ThreadInfo *thread); // its memory goes to the next one
void SetStates(ThreadInfo *thread, ThreadState state, OsState osState);

// ---- JNI
// ---------------------------------------------------------------------------------------------------

JNIEnv *EnvOf(ThreadInfo *thread); // inside its JavaThread
// What a native method is given, and what it has returned. Texts live as long as the calling thread is in
// native methods: until EndLocals.
template <class T = jobject>
T HandleOf(Object *object) {
    return static_cast<T>(reinterpret_cast<jobject>(object));
}
inline Object *ObjectOf(jobject handle) {
    return reinterpret_cast<Object *>(handle);
}
jstring NewText(const std::string &text);
void EndLocals();

// What the Java side is called with, for the threads of a reply.
struct JavaCall {
    const Object *threads, *texts; // arrays; ten texts a thread
    int count, withSystem;
};
// Loads the classes that the agent calls. `answer`: the text that the Java side returns; null: it throws.
void DefineJavaSide(std::function<std::string(const JavaCall &)> answer);

// A heap of known content: random objects between stretches in which nobody finds one, and the figures that
// follow from the description.

// ---- content
// -----------------------------------------------------------------------------------------------

// Puts pieces into the spaces, one after the other; the same seed makes the same content. A piece is the
// space's letter (O: of both kinds of old), a word and an amount:
//   objects      so many random ones
//   stale        so many bytes of what was there once
//   no-klass     an object of so many bytes without a klass word, as one that is being allocated
//   link         the same whose klass word is a link to another object
//   half-array   the same that has a klass and as yet a wild length
//   vm-kinds     what only the VM makes, one of each; for perm
//   across       an array that begins so many bytes before the space's top and ends after it
//   chunk        in spaces with free lists: a free one of so many words
//   wrong-chunk  the same: a stretch of 64 bytes that is a free chunk of so many words, no size that can be
void FillHeap(const char *pieces, uint32_t seed);
// All of the above at every place that a reader might trip over. The from space stays empty.
extern const char TRICKY_HEAP[];

// ---- figures
// -----------------------------------------------------------------------------------------------

struct Count {
    int64_t objects = 0, bytes = 0;
    void operator+=(const Count &other) { objects += other.objects, bytes += other.bytes; }
};
struct Census {
    Count all;
    // By the second character of an object's record, its letter: 1 symbol, 2 method, F constMethod, 3 pool, 4
    // pool cache, 8 instance, [ array, * compiledICHolder, H methodData; klasses: A of the VM's own, B of
    // instances, C, D, E of arrays.
    std::map<char, Count> types;
    std::map<std::string, Count> classes; // of instances and arrays, with slashes
};
Census CensusOf(const HeapSpace &space);
// Calls it for each object.
using ObjectVisit = std::function<void(Word at, Word klass, char letter, int64_t bytes)>;
void VisitObjects(const HeapSpace &space, const ObjectVisit &visit);

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

// ---- memory
// ------------------------------------------------------------------------------------------------

Word FreeAbove(const HeapSpace &space); // words of the chunk above top; a smaller rest is none
void SetCollections(const CollectionFigures &figures);

} // namespace simvm
