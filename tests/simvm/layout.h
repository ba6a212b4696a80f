// How the simulated VM's structures lie in memory: 64-bit words named by what they hold, in the order of the
// VM's classes. Written from the meaning of each field; what nobody reads is a gap and stays poison. Builds
// differ in a few words: members marked `since08`, `since10` don't exist in earlier ones, and what follows
// lies a word lower.
#pragma once

#include <cstddef>
#include <cstdint>

namespace simvm {

using Word = uint64_t;

// ---- objects of the heap
// -----------------------------------------------------------------------------------

struct Oop {
    Word mark, klass;
};
struct JavaArray {
    Word mark, klass;
    int32_t length, unused;
    // elements
};
#pragma pack(push, 1)
struct Symbol {
    Word mark, klass;
    uint16_t length;
    // bytes
};
#pragma pack(pop)

struct Method {
    Word mark, klass, constMethod, constants, gap0;
    int32_t gap1, accessFlags, gap2;
    uint16_t gap3[2], maxLocals, parameterSize; // in slots, long and double two
    int32_t gap4;
    Word gap5[3];
};
struct ConstMethod {
    Word mark, klass, gap0[5];
    int32_t gap1;
    uint16_t gap2, codeSize, nameIndex, signatureIndex, gap3[2];
    // bytecodes, line table
};
struct ConstantPool {
    Word mark, klass, gap0[3], holder;
    int32_t length, gap1;
    // entries
};

// A klass: the header of an object, then the Klass part. One shape serves instances' and arrays' klasses.
struct Klass {
    Word mark, klass;
    Word vtable; // here the Klass part begins
    int32_t layoutHelper, gap0;
    Word gap1[10], javaMirror, super, name, gap2[8], since08;
    // of instances
    Word gap3[3], fields, constants, gap4[2];
    Word arrayHeaderSize; // of arrays
    Word sourceFile, gap5[16], oopMapCache;
    // statics
};

// Virtual functions of a Klass, from the table's head on. The predicates are asked for by the agent.
struct KlassVtable {
    Word gap0[19], since10, oopSize, gap1[9];
    Word instance, instanceRef, array, objArray, symbol, klass, isThread;
    Word method, constMethod, methodData, constantPool, constantPoolCache, typeArray;
    Word arrayKlass, objArrayKlass, typeArrayKlass, compiledICHolder, instanceKlass;
};

// ---- threads
// -----------------------------------------------------------------------------------------------

struct JavaThread {
    Word vtable, pendingException, gap0[6], activeHandles, gap1[19], osThread, gap2, handleArea, gap3[3];
    Word next, threadObj;
    Word anchorSp, anchorPc, anchorGap[2], anchorFp; // the last Java frame
    Word gap4;
    Word jniEnv; // a JNIEnv points here: the word holds the function table's address
    Word gap5[3], vmResult, vmResult2, gap6, monitorChunks, gap7, asyncException;
    int32_t state, gap8;
    Word safepointState, gap9[5], exceptionOop, gap10[9], privilegedStack, gap11[30];
};
struct OSThread {
    Word gap[2];
    int32_t state, gap0[2]; // sleeping, waiting for a monitor, ...
#pragma pack(push, 1)
    int32_t kernelId;
    Word pthreadId; // right after the kernel id
#pragma pack(pop)
    Word gap1[30];
};
struct SafepointState {
    Word gap[4], codeCopy, gap1[2];
};
struct CodeCopy { // what a thread runs of compiled code while it is brought to a safepoint
    Word start;
    int32_t size, gap0;
    Word gap1, realStart;
};
struct CallWrapper { // of one call from the VM into Java: the anchor that was in force
    Word gap0[4], anchorSp, gap1[3], anchorFp;
};
struct HandleBlock {
    Word handles[32];
    int32_t top, gap;
    Word next;
};

// An interpreted frame; the words below its frame pointer, from the lowest. Monitors follow below.
struct InterpretedFrame {
    Word monitorTop, bcp, locals, cache, profile, method, senderSp;
    Word fp, returnPc; // fp points at the first of these
};
struct Monitor {
    Word displacedHeader, object;
};
// A class's cache of which locals are objects. Its entries lie 16 bytes apart: one's mask is where the next
// one has its method.
struct OopMapCache {
    Word gap, entries;
};
struct OopMapEntry {
    Word method, gap;
    uint32_t mask; // a bit a local, from the lowest
};

// ---- code
// --------------------------------------------------------------------------------------------------

struct CodeHeap { // the memory and its segment map, both reserved spaces of one shape
    Word lowBoundary, highBoundary, low, high, gap0[12], mapLow, gap1[13];
    int32_t gap2[2], log2SegmentSize, gap3;
};
struct HeapBlock { // before each blob
    Word segments;
    uint8_t used, padding[7];
};
struct Blob {
    Word vtable, name;
    int32_t size, codeOffset, gap0[3];
    int32_t oopsOffset, oopCount, frameWords; // counted from the blob's start
    int32_t linkOffset, gap1;
    Word oopMaps;
    // of compiled methods
    Word gap2[5];
    int32_t scopesOffset, gap3;
    Word gap4[16], pcDescCache, gap5[2];
};
struct BlobVtable {
    Word BufferBlob, nmethod, RuntimeStub, I2CAdapter, C2IAdapter, OSRAdapter, gap[6], gap1;
};
struct PcDesc {
    int32_t pcOffset, scopeOffset;
};
struct OopMapSet {
    int32_t count, capacity;
    Word maps;
};
struct OopMap {
    int32_t pcOffset, values, bytes, gap;
    Word data;
};
struct StubQueue { // the interpreter's
    Word vtable, start;
    int32_t gap, size;
};

// ---- heap
// --------------------------------------------------------------------------------------------------

struct CollectedHeap {
    Word gap0[4];
    int32_t collecting, collections; // of all kinds
    Word gap1[4], perm, gap2[5];
    Word young, old; // old: the concurrent collector's generation as well
};
struct PermGenerations { // what the heap's `perm` points to
    Word gap[2], generation;
};
struct Generation {
    Word gap0[23];
    int32_t collections, gap4;
    Word accumulatedTime, gap1[4];
    Word cmsSpace; // the concurrent collector's
    Word space;    // of one contiguous space
};
struct YoungGeneration {
    Word gap0[23];
    int32_t collections, gap4;
    Word accumulatedTime, gap1[49], since08, young[3]; // eden, from, to
};
struct ParallelGeneration {
    Word gap0[4], young[3], gap1[13];
    Word space; // of old and perm
};
struct Space {
    Word vtable, bottom, end, parallelTop, gap[7], top, gap1[24];
    Word indexedFreeWords, gap2[3], dictionary; // the concurrent collector's
};
struct FreeListDictionary {
    Word vtable, gap, freeWords;
};

// ---- numbers that structures hold
// --------------------------------------------------------------------------

enum ThreadState : int32_t { IN_NATIVE = 4, IN_VM = 6, IN_JAVA = 8, BLOCKED = 10 };
enum OsState : int32_t {
    OS_INITIALIZED = 1,
    OS_RUNNABLE,
    OS_MONITOR_WAIT,
    OS_OBJECT_WAIT = 5,
    OS_SLEEPING = 7,
    OS_ZOMBIE
};
enum MethodFlags : int32_t { METHOD_STATIC = 8, METHOD_NATIVE = 0x100 };
enum ScopeTag { SCOPE_LOCATION, SCOPE_INT, SCOPE_OOP, SCOPE_LONG, SCOPE_DOUBLE };
enum LocationType {
    LOCATION_NORMAL,
    LOCATION_OOP,
    LOCATION_LONG = 3,
    LOCATION_DOUBLE = 5,
    LOCATION_INVALID = 7
};
constexpr int32_t LOCATION_IN_REGISTER = 1 << 15;
constexpr int32_t FRAME_POINTER_REGISTER = 22; // in the VM's numbering
constexpr Word VTABLE_HEAD = 16;               // an object points this far into its table's symbol
constexpr Word UNMARKED = 1;
constexpr int32_t NO_OFFSET = -1; // ends a chain of scopes; no values

// Layouts of what holds references for the VM: of threads, then of the VM as a whole.

struct HandleArea { // of a thread that runs in the VM
    Word first, last;
    Word used; // up to here, in the last chunk
};
struct HandleChunk {
    Word gap, next;
    int64_t bytes; // of what follows: handles
};
struct MonitorChunk { // of frames that are being replaced
    Word gap;
    int32_t words, gap1; // from this one on
    Word next;
    // monitors
};
struct PrivilegedElement { // of a thread's privileged calls
    Word klass, context, method, next;
};

struct ObjectMonitor { // 64 to a block; the first of a block links the blocks
    Word gap0, object, gap1, next, gap2[4];
};
struct VmOperation { // waits for the VM thread
    Word gap0[4], next, gap1;
};
struct VmQueue {
    Word lengths[4], queues[2]; // by priority
};
struct VmTable {
    int32_t size, gap;
    Word buckets; // of pointers to entries
};
struct DictionaryEntry {
    Word hash, next, loader, domains, klass;
};
struct DomainEntry {
    Word next, domain;
};
struct PlaceholderEntry {
    Word next, klass, loader;
};
struct ConstraintEntry {
    Word hash, next, klass, room;
    int32_t loaderCount, gap;
    Word loaders;
};

} // namespace simvm
