#include "MethodTable.h"

#include "jvmti/JniCalls.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/Session.h"
#include "jvmti/trycatch.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorsettings.h"
#include "qortiers.h"
#include "qorutil.h"

#include <cstring>

// A sample reads a hundred thousand frames of a few thousand methods, so the walk keeps what it learns of a
// method: a frame of a known method costs one probe of a hash table and a look at its last line. Failures are
// rare and not kept.

namespace {

constexpr uint32_t SLOT_BITS = 15;
constexpr uint32_t SLOT_COUNT = 1u << SLOT_BITS;
constexpr int32_t MAX_METHODS = SLOT_COUNT / 2;
constexpr int32_t TEXT_STORE_SIZE = 4 << 20;

struct KnownMethod {
    QorMethodFacts facts;
    bool hasFile; // file and lines have been asked for as well
    uint32_t slot;
};

struct MethodSlot {
    jmethodID id;
    KnownMethod *known; // null: free
};

// The table, in use from the first frame of a walk to QorDropMethodFacts.
MethodSlot slots[SLOT_COUNT];
KnownMethod knownMethods[MAX_METHODS];
int32_t knownCount;
char textStore[TEXT_STORE_SIZE];
int32_t textUsed;

// One method as the JVM reports it. A length of -1 says that the text was unavailable.
struct MethodReading {
    char method[NAME_SIZE], className[NAME_SIZE], fileName[NAME_SIZE];
    int32_t methodLength, classLength, fileLength;
    jvmtiError lineError;
    jint lineCount;
    jvmtiLineNumberEntry *lines;
} reading;

uint32_t SlotOf(jmethodID id) {
    const uint64_t key = reinterpret_cast<uint64_t>(id) >> 3;
    return static_cast<uint32_t>(key * 0x9e3779b97f4a7c15u >> (64 - SLOT_BITS));
}

// The slot that holds the method, or the free one where it belongs. The table is at most half full.
MethodSlot *FindSlot(jmethodID id) {
    uint32_t i = SlotOf(id);
    while (slots[i].known && slots[i].id != id)
        i = (i + 1) & (SLOT_COUNT - 1);
    return &slots[i];
}

void LogFailedCall(const char *format, jvmtiError error) {
    QORLOG(LOG_NOTE, format, JVMTI_ERROR_NONE, error);
    describe(error);
}

void Deallocate(void *memory) {
    jvmti->Deallocate(static_cast<unsigned char *>(memory));
}

jmethodID MethodAtIndex(const QorFrameHandle *frameHandle) {
    if (frameHandle->index < 0 || frameHandle->index >= frameHandle->count ||
        frameHandle->index > maxStackDepthQueried) {
        QORLOG(LOG_ERROR, "Invalid frame index %d", frameHandle->index);
        return nullptr;
    }
    return frameHandle->frames[frameHandle->index].method;
}

// The name's length, or -1. A method id can turn stale under a class unload, and some JVMs then fault.
int32_t ReadMethodName(jmethodID method, char *dest) {
    char *name = nullptr;
    volatile jvmtiError error = JVMTI_ERROR_INTERNAL;
    TRYCATCH_OPEN();
    if (tryState == TRY_RUNNING)
        error = jvmti->GetMethodName(method, &name, nullptr, nullptr);
    if (tryState == TRY_FAULTED) {
        tryState = TRY_OFF;
        QORLOG(LOG_ERROR, "SEGV in GetMethodName");
        return -1;
    }
    tryState = TRY_OFF;
    if (error != JVMTI_ERROR_NONE || !name)
        return -1;
    const int32_t length = QorCopyName(dest, name);
    Deallocate(name);
    return length;
}

// The class that declares the method, a local reference or null; false when the JVM refuses.
bool DeclaringClass(jmethodID method, jclass *klass) {
    *klass = nullptr;
    const jvmtiError error = jvmti->GetMethodDeclaringClass(method, klass);
    if (error != JVMTI_ERROR_NONE)
        LogFailedCall("  (GetMethodDeclaringClass) Error expected: %d, got: %d", error);
    return error == JVMTI_ERROR_NONE;
}

bool HasFrame(const QorLocalFrame &frame) {
    if (!frame.pushed)
        QorLogNoFrame(LOG_ERROR);
    return frame.pushed;
}

bool IsGone(jobject ref) {
    return !ref || QorIsSameObject(jvmtijni_env, ref, nullptr);
}

// The dotted name's length, or -1. The class may be in its initialiser: its signature and its source file can
// be read at any time, unlike its fields.
int32_t ReadClassName(jmethodID method, char *dest) {
    QorLocalFrame frame(jvmtijni_env, 1);
    jclass klass;
    if (!HasFrame(frame) || !DeclaringClass(method, &klass) || IsGone(klass))
        return -1;
    int32_t length = -1;
    char *signature = nullptr;
    const jvmtiError error = jvmti->GetClassSignature(klass, &signature, nullptr);
    if (error != JVMTI_ERROR_NONE) {
        LogFailedCall("  (GetClassSignature) Error expected: %d, got: %d", error);
    } else if (signature) {
        QorCopyName(dest, signature[0] == 'L' ? signature + 1 : signature);
        Slash2Dot(dest);
        length = static_cast<int32_t>(strlen(dest));
        Deallocate(signature);
    }
    QorDeleteLocalRef(jvmtijni_env, klass);
    return length;
}

// The file's length, 0 for a class without a source file, or -1.
int32_t ReadFileName(jmethodID method, char *dest) {
    QorLocalFrame frame(jvmtijni_env, 1);
    jclass klass;
    if (!HasFrame(frame) || !DeclaringClass(method, &klass))
        return -1;
    if (IsGone(klass)) {
        QORLOG(LOG_ERROR, "Declaring Class is NULL");
        return -1;
    }
    int32_t length = -1;
    char *name = nullptr;
    const jvmtiError error = jvmti->GetSourceFileName(klass, &name);
    if (error == JVMTI_ERROR_NONE && name) {
        length = QorCopyName(dest, name);
        Deallocate(name);
    } else if (error == JVMTI_ERROR_ABSENT_INFORMATION) {
        dest[0] = 0;
        length = 0;
    } else if (error != JVMTI_ERROR_NONE) {
        LogFailedCall("  (GetSourceFileName) Error expected: %d, got: %d", error);
    }
    QorDeleteLocalRef(jvmtijni_env, klass);
    return length;
}

bool MethodHasNoLines(jvmtiError error) {
    return error == JVMTI_ERROR_NATIVE_METHOD || error == JVMTI_ERROR_ABSENT_INFORMATION;
}

jvmtiError ReadLineTable(jmethodID method, jint *count, jvmtiLineNumberEntry **lines) {
    *count = 0;
    *lines = nullptr;
    const jvmtiError error = jvmti->GetLineNumberTable(method, count, lines);
    if (error != JVMTI_ERROR_NONE && !MethodHasNoLines(error))
        QORLOG(LOG_TRACE, "  (GetLineNumber for frame) Error expected: %d, got: %d", JVMTI_ERROR_NONE, error);
    return error;
}

// Reads a method into `reading`, as far as it is wanted. A method without a name is asked nothing more: its
// id may be stale.
void ReadMethod(jmethodID method, QorFrameDetail detail) {
    reading.method[0] = reading.className[0] = reading.fileName[0] = 0;
    reading.classLength = reading.fileLength = -1;
    reading.lineError = JVMTI_ERROR_ABSENT_INFORMATION;
    reading.lineCount = 0;
    reading.lines = nullptr;
    reading.methodLength = ReadMethodName(method, reading.method);
    if (reading.methodLength < 0)
        return;
    reading.classLength = ReadClassName(method, reading.className);
    if (detail == FRAME_METHOD_AND_CLASS)
        return;
    reading.fileLength = ReadFileName(method, reading.fileName);
    reading.lineError = ReadLineTable(method, &reading.lineCount, &reading.lines);
}

// Whether `reading` has all that was wanted of it.
bool ReadingIsComplete(QorFrameDetail detail) {
    if (reading.methodLength < 0 || reading.classLength < 0)
        return false;
    return detail == FRAME_METHOD_AND_CLASS ||
           (reading.fileLength >= 0 &&
            (reading.lineError == JVMTI_ERROR_NONE || MethodHasNoLines(reading.lineError)));
}

const char *StoreText(const char *text, int32_t length) {
    char *stored = textStore + textUsed;
    memcpy(stored, text, static_cast<size_t>(length) + 1);
    textUsed += length + 1;
    return stored;
}

// Keeps `reading` if it is complete and there is room; its line table then belongs to the kept facts.
KnownMethod *KeepReading(jmethodID method, QorFrameDetail detail, MethodSlot *slot) {
    if (!ReadingIsComplete(detail))
        return nullptr;
    const int32_t fileLength = reading.fileLength < 0 ? 0 : reading.fileLength;
    const int32_t size = reading.methodLength + reading.classLength + fileLength + 3;
    if (knownCount == MAX_METHODS || TEXT_STORE_SIZE - textUsed < size)
        return nullptr;
    KnownMethod *known = slot->known ? slot->known : &knownMethods[knownCount++];
    QorMethodFacts &facts = known->facts;
    facts.id = method;
    facts.method = StoreText(reading.method, reading.methodLength);
    facts.className = StoreText(reading.className, reading.classLength);
    facts.fileName = StoreText(reading.fileName, fileLength);
    facts.methodLength = reading.methodLength;
    facts.classLength = reading.classLength;
    facts.fileLength = fileLength;
    facts.callType = checkSystemCall(facts.className, facts.method) ? 0 : 1;
    facts.tiers = QorTierKindsOf(facts.className, facts.method);
    facts.lineCount = reading.lineCount;
    facts.lines = reading.lines;
    known->hasFile = detail == FRAME_WITH_FILE_AND_LINE;
    known->slot = static_cast<uint32_t>(slot - slots);
    *slot = {method, known};
    return known;
}

int32_t LineOf(const QorMethodFacts &facts, jlocation location) {
    return facts.lines ? QorMapLoc2Line(location, facts.lines, facts.lineCount) : 0;
}

// The record of a frame whose method could not be kept.
int32_t ReportReading(jlocation location, QorFrameDetail detail, QorFrameRecord *record) {
    record->method = reading.method;
    record->className = reading.className;
    record->fileName = reading.fileName;
    record->line = 0;
    if (reading.lines) {
        record->line = QorMapLoc2Line(location, reading.lines, reading.lineCount);
        Deallocate(reading.lines);
        reading.lines = nullptr;
    }
    QorGetMethodCallType(record, &record->callType);
    if (reading.methodLength < 0 || reading.classLength < 0)
        return -1;
    return detail == FRAME_WITH_FILE_AND_LINE && reading.fileLength < 0 ? -1 : 0;
}

} // namespace

void QorDropMethodFacts() {
    for (int32_t i = 0; i < knownCount; i++) {
        if (knownMethods[i].facts.lines)
            Deallocate(knownMethods[i].facts.lines);
        slots[knownMethods[i].slot] = {nullptr, nullptr};
    }
    knownCount = 0;
    textUsed = 0;
}

int32_t QorCopyName(char *dest, const char *src) {
    return QorCopyText(dest, src, NAME_SIZE, BLANK_MARKS);
}

int32_t QorReadFrame(QorFrameHandle *frameHandle, QorFrameDetail detail, QorFrameRecord *record) {
    record->frameIndex = frameHandle->index;
    jmethodID method = MethodAtIndex(frameHandle);
    if (!method) {
        *record = {frameHandle->index, 0, "", "", "", 0, 0, nullptr};
        QorGetMethodCallType(record, &record->callType);
        return -1;
    }
    const jlocation location = frameHandle->frames[frameHandle->index].location;
    record->methodId = reinterpret_cast<int64_t>(method);
    MethodSlot *slot = FindSlot(method);
    KnownMethod *known = slot->known;
    if (!known || (detail == FRAME_WITH_FILE_AND_LINE && !known->hasFile)) {
        ReadMethod(method, detail);
        known = KeepReading(method, detail, slot);
        if (!known) {
            record->facts = nullptr;
            return ReportReading(location, detail, record);
        }
    }
    const QorMethodFacts *facts = &known->facts;
    record->method = facts->method;
    record->className = facts->className;
    record->fileName = facts->fileName;
    record->callType = facts->callType;
    record->facts = facts;
    record->line = LineOf(*facts, location);
    return 0;
}

int32_t QorGetMethodInfo(const QorFrameHandle *frameHandle, char *dest) {
    jmethodID method = MethodAtIndex(frameHandle);
    return method && ReadMethodName(method, dest) >= 0 ? 0 : -1;
}

int32_t QorGetClassInfo(const QorFrameHandle *frameHandle, char *dest) {
    jmethodID method = MethodAtIndex(frameHandle);
    return method && ReadClassName(method, dest) >= 0 ? 0 : -1;
}

int32_t QorGetFileName(const QorFrameHandle *frameHandle, char *dest) {
    jmethodID method = MethodAtIndex(frameHandle);
    return method && ReadFileName(method, dest) >= 0 ? 0 : -1;
}

int32_t QorGetLineNumber(const QorFrameHandle *frameHandle) {
    jmethodID method = MethodAtIndex(frameHandle);
    if (!method)
        return 0;
    jint count;
    jvmtiLineNumberEntry *lines;
    if (ReadLineTable(method, &count, &lines) != JVMTI_ERROR_NONE)
        return 0;
    const int32_t line = QorMapLoc2Line(frameHandle->frames[frameHandle->index].location, lines, count);
    Deallocate(lines);
    return line;
}

int32_t QorMapLoc2Line(jlocation location, const jvmtiLineNumberEntry *table, jint count) {
    if (!table || count <= 0)
        return -1;
    jint position = 0;
    for (jint step = count / 2; step > 0; step /= 2) {
        if (location > table[position + step].start_location) {
            position += step;
        } else if (location == table[position + step].start_location) {
            position += step;
            break;
        }
    }
    int32_t line = -1;
    for (; position < count && table[position].start_location <= location; position++)
        line = table[position].line_number;
    return line;
}

void Slash2Dot(char *text) {
    for (char *p = text; *p != 0; p++) {
        if (*p == '/')
            *p = '.';
        else if (*p == ';')
            *p = p[1] == 0 ? '\0' : ' ';
    }
}

void QorGetMethodCallType(const QorFrameRecord *frame, int32_t *out) {
    if (frame)
        *out = checkSystemCall(frame->className, frame->method) ? 0 : 1;
}
