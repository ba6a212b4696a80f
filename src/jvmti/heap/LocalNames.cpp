#include "LocalNames.h"

#include "DumpState.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/TagEnvironment.h"
#include "jvmti/threads/MethodTable.h"
#include "jvmti/threads/ThreadSystem.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorsettings.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr jint PAGE_FRAMES = 1024; // frames asked for at a time; the JVM sets memory aside for each
constexpr uint32_t FIRST_CAPACITY = 1024;

struct MethodName {
    jmethodID method; // null: a free place
    uint32_t offset;  // into `texts`
    int32_t length;   // 0: no name
};

// A hash table with open places, at most half full, and the names' texts.
MethodName *names;
uint32_t capacity, used;
char *texts;
size_t textSize, textUsed;

uint32_t PlaceOf(jmethodID method, uint32_t size) {
    const uint64_t key = reinterpret_cast<uint64_t>(method) >> 3;
    return static_cast<uint32_t>(key * 0x9e3779b97f4a7c15u >> 32) & (size - 1);
}

// The method's place, or the free one where it belongs.
MethodName *Find(MethodName *table, uint32_t size, jmethodID method) {
    uint32_t i = PlaceOf(method, size);
    while (table[i].method && table[i].method != method)
        i = (i + 1) & (size - 1);
    return &table[i];
}

bool Grow() {
    const uint32_t larger = capacity ? capacity * 2 : FIRST_CAPACITY;
    auto *table = static_cast<MethodName *>(calloc(larger, sizeof(MethodName)));
    if (!table)
        return false;
    for (uint32_t i = 0; i < capacity; i++)
        if (names[i].method)
            *Find(table, larger, names[i].method) = names[i];
    free(names);
    names = table;
    capacity = larger;
    return true;
}

void AddMethods(const jvmtiFrameInfo *frames, jint count) {
    for (jint i = 0; i < count; i++) {
        if (!frames[i].method || (used * 2 >= capacity && !Grow()))
            continue;
        MethodName *name = Find(names, capacity, frames[i].method);
        if (name->method)
            continue;
        name->method = frames[i].method;
        used++;
    }
}

// The frames of a stack that is deeper than a page.
void AddDeepFrames(jthread thread) {
    jvmtiFrameInfo page[PAGE_FRAMES];
    jint count = PAGE_FRAMES;
    for (jint start = PAGE_FRAMES; count == PAGE_FRAMES; start += PAGE_FRAMES) {
        count = 0;
        if (gbDumpEnv->GetStackTrace(thread, start, PAGE_FRAMES, page, &count) == JVMTI_ERROR_NONE)
            AddMethods(page, count);
    }
}

void AddAllStacks() {
    jvmtiStackInfo *stacks = nullptr;
    jint count = 0;
    const jvmtiError error = gbDumpEnv->GetAllStackTraces(PAGE_FRAMES, &stacks, &count);
    if (error != JVMTI_ERROR_NONE) {
        QORLOG(LOG_ERROR, "Heap dump: no stacks, so locals have no names: error %d", error);
        return;
    }
    QorExpectLocalRefs(count);
    for (jint i = 0; i < count; i++) {
        AddMethods(stacks[i].frame_buffer, stacks[i].frame_count);
        if (stacks[i].frame_count == PAGE_FRAMES)
            AddDeepFrames(stacks[i].thread);
        QorDeleteLocalRef(jvmtijni_env, stacks[i].thread);
    }
    gbDumpEnv->Deallocate(reinterpret_cast<unsigned char *>(stacks));
}

// Copies a text of the JVM's, without what would end a line of the dump: a class file may hold any character
// in a name. The length.
int32_t TakeText(char *dest, char *source) {
    const int32_t length = QorCopyText(dest, source, NAME_SIZE, BLANK_MARKS | BLANK_LINE_ENDS);
    gbDumpEnv->Deallocate(reinterpret_cast<unsigned char *>(source));
    return length;
}

// The declaring class with its separator into `dest`, "" when it is unavailable. The length.
int32_t ReadClassPart(jmethodID method, char *dest) {
    jclass klass = nullptr;
    char *signature = nullptr;
    dest[0] = 0;
    if (gbDumpEnv->GetMethodDeclaringClass(method, &klass) != JVMTI_ERROR_NONE)
        return 0;
    const jvmtiError error = gbDumpEnv->GetClassSignature(klass, &signature, nullptr);
    QorDeleteLocalRef(jvmtijni_env, klass);
    if (error != JVMTI_ERROR_NONE || !signature)
        return 0;
    TakeText(dest, signature);
    Slash2Dot(dest);
    const size_t length = strlen(dest);
    memcpy(dest + length, "::", 3);
    return static_cast<int32_t>(length) + 2;
}

void ReadName(MethodName *name) {
    char text[2 * NAME_SIZE + 2];
    char *methodName = nullptr;
    const bool hasName =
        gbDumpEnv->GetMethodName(name->method, &methodName, nullptr, nullptr) == JVMTI_ERROR_NONE &&
        methodName;
    int32_t length = ReadClassPart(name->method, text);
    if (hasName)
        length += TakeText(text + length, methodName);
    const size_t end = textUsed + static_cast<size_t>(length);
    if (end > textSize) {
        const size_t larger = 2 * end;
        char *grown = static_cast<char *>(realloc(texts, larger));
        if (!grown)
            return;
        texts = grown;
        textSize = larger;
    }
    if (length)
        memcpy(texts + textUsed, text, static_cast<size_t>(length));
    name->offset = static_cast<uint32_t>(textUsed);
    name->length = length;
    textUsed = end;
}

} // namespace

void QorCollectLocalNames() {
    if (gbIbmJvm) // there, locals are written without their method
        return;
    AddAllStacks();
    for (uint32_t i = 0; i < capacity; i++)
        if (names[i].method)
            ReadName(&names[i]);
}

const char *QorFindLocalName(jmethodID method, int32_t *length) {
    if (!method || !capacity)
        return nullptr;
    const MethodName *name = Find(names, capacity, method);
    *length = name->length;
    return name->length ? texts + name->offset : nullptr;
}

void QorDropLocalNames() {
    free(names);
    free(texts);
    names = nullptr;
    texts = nullptr;
    capacity = used = 0;
    textSize = textUsed = 0;
}
