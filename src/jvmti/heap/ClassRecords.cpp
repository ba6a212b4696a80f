#include "ClassRecords.h"

#include "ObjectTags.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/TagEnvironment.h"
#include "qorStrUtils.h"
#include "qorlog.h"

#include <cstdlib>

namespace {

constexpr jlong LEAST_CLASS_SIZE = 1, ASSUMED_CLASS_SIZE = 112;
constexpr int64_t NUMBER_SHIFT_LIMIT = 1LL << 32; // below: no tag of this dump

constexpr char PRIMITIVE_TYPES[] = "ZSDFJICB";

// The next free number of each kind.
struct ClassNumbers {
    int64_t primitiveArrays = 1, others = FIRST_CLASS_NUMBER;

    // 0 when the numbers have run out.
    int64_t Take(const char *signature) {
        if (signature[0] == '[' && signature[1] && strchr(PRIMITIVE_TYPES, signature[1]))
            return primitiveArrays++;
        return others < FIRST_OBJECT_NUMBER ? others++ : 0;
    }
};

void ReadSignature(jclass klass, QorTagClassEntry *entry) {
    char *signature = nullptr;
    const jvmtiError error = gbDumpEnv->GetClassSignature(klass, &signature, nullptr);
    if (error != JVMTI_ERROR_NONE)
        QORLOG(LOG_ERROR, "Get class signature Error%d", error);
    const bool known = error == JVMTI_ERROR_NONE && signature;
    if (!known)
        QORLOG(LOG_WARNING, "class signature NULL ");
    QorStrncpy(entry->signature, known ? signature : "NULL", DUMP_SIGNATURE_SIZE, DUMP_SIGNATURE_SIZE);
    if (known)
        gbDumpEnv->Deallocate(reinterpret_cast<unsigned char *>(signature));
}

jlong SizeOf(jclass klass) {
    jlong size = 0;
    const jvmtiError error = gbDumpEnv->GetObjectSize(klass, &size);
    if (error != JVMTI_ERROR_NONE)
        QORLOG(LOG_ERROR, "Failed to ghe object Size.%d", error);
    return size < LEAST_CLASS_SIZE ? ASSUMED_CLASS_SIZE : size;
}

void TagClass(jclass klass, ClassNumbers *numbers, QorTagClassEntry *entry) {
    ReadSignature(klass, entry);
    entry->visited = CLASS_NOT_VISITED;
    entry->klass = klass;
    entry->tag = numbers->Take(entry->signature);
    if (!entry->tag)
        return;
    entry->tag = QorMakeTag(entry->tag, SizeOf(klass), igbCurrentRun);
    jlong before = 0;
    jvmtiError error = gbDumpEnv->GetTag(klass, &before);
    if (error != JVMTI_ERROR_NONE)
        QORLOG(LOG_ERROR, "Error while getting tag %d", error);
    error = gbDumpEnv->SetTag(klass, entry->tag);
    if (error != JVMTI_ERROR_NONE)
        QORLOG(LOG_ERROR, "Error while tagging %d", error);
}

// Fields that the class declares itself, 0 for a class that isn't linked; *fields to be given back. Null
// `fields`: only their number.
jint ReadFields(jclass klass, jfieldID **fields) {
    jint count = 0;
    jfieldID *list = nullptr;
    if (gbDumpEnv->GetClassFields(klass, &count, &list) != JVMTI_ERROR_NONE) {
        count = 0;
        list = nullptr;
    }
    if (fields)
        *fields = list;
    else
        gbDumpEnv->Deallocate(reinterpret_cast<unsigned char *>(list));
    return count;
}

// Fields that all superclasses declare.
int32_t CountInheritedFields(jclass klass) {
    int32_t count = 0;
    jclass super = QorGetSuperclass(jvmtijni_env, klass);
    while (super) {
        count += ReadFields(super, nullptr);
        jclass next = QorGetSuperclass(jvmtijni_env, super);
        QorDeleteLocalRef(jvmtijni_env, super);
        super = next;
    }
    return count;
}

// "length|text" and the end of the line, after what is at `p`.
void WriteLengthAndText(char *p, const char *text) {
    const size_t length = strlen(text);
    p = QorPutChar(QorPutHex(p, length), '|');
    QorDumpCommit(&fp, p);
    QorDumpText(&fp, text, static_cast<int64_t>(length));
    QorDumpText(&fp, "\n", 1);
}

void WriteClassRecord(const QorTagClassEntry &entry) {
    const int64_t id = QorTagNumber(entry.tag);
    if (entry.visited == CLASS_NOT_VISITED) {
        char *p = QorPutText(QorDumpReserve(&fp, DUMP_LEAST_BUFFER), "B0a");
        p = QorPutChar(QorPutSigned(p, id), '|');
        p = QorPutChar(QorPutHex(p, strlen(entry.signature)), '|');
        QorDumpCommit(&fp, QorPutChar(QorPutSigned(p, id), '\n'));
    }
    char *p = QorPutText(QorDumpReserve(&fp, DUMP_LEAST_BUFFER), "B1");
    WriteLengthAndText(QorPutChar(QorPutSigned(p, id), '|'), entry.signature);
}

} // namespace

int32_t tag_all_classes() {
    QorFreeClassList();
    jint count = 0;
    jclass *classes = nullptr;
    const jvmtiError error = gbDumpEnv->GetLoadedClasses(&count, &classes);
    if (error != JVMTI_ERROR_NONE) {
        QORLOG(LOG_ERROR, "tag_all_classes, Error while Geting Loaded classes %d", error);
        return -1;
    }
    QorExpectLocalRefs(count);
    if (count <= 0) {
        QORLOG(LOG_ERROR, "tag_all_classes, Failed to get Loaded classes ");
    } else {
        objTagClass =
            static_cast<QorTagClassEntry *>(calloc(static_cast<size_t>(count), sizeof(QorTagClassEntry)));
        if (!objTagClass)
            QORLOG(LOG_ERROR, "tag_all_classes, Not enough memory to tag all classes");
    }
    if (objTagClass) {
        igbTagClassCount = count;
        ClassNumbers numbers;
        for (jint i = 0; i < count; i++)
            TagClass(classes[i], &numbers, &objTagClass[i]);
    }
    gbDumpEnv->Deallocate(reinterpret_cast<unsigned char *>(classes));
    return objTagClass ? 0 : -1;
}

void SetClassVisited(int64_t tag) {
    if (tag < NUMBER_SHIFT_LIMIT)
        return; // a search would cost a walk through all classes for each class with static fields
    for (int64_t i = 0; i < igbTagClassCount; i++)
        if (objTagClass[i].tag == tag)
            objTagClass[i].visited = static_cast<uint32_t>(i);
}

void QorWriteClassRecords() {
    for (int64_t i = 0; i < igbTagClassCount && !fp.error; i++) {
        const QorTagClassEntry &entry = objTagClass[i];
        if (!entry.tag)
            continue;
        WriteClassRecord(entry);
        QorDumpFields(entry.klass, entry.tag);
    }
}

int32_t QorDumpFields(jclass klass, int64_t tag) {
    if (!klass) {
        QORLOG(LOG_ERROR, "jcClass NULL");
        return -1;
    }
    jfieldID *fields = nullptr;
    const jint count = ReadFields(klass, &fields);
    const int32_t inherited = count > 0 ? CountInheritedFields(klass) : 0;
    for (jint i = 0; i < count; i++) {
        char *name = nullptr;
        const jvmtiError error = gbDumpEnv->GetFieldName(klass, fields[i], &name, nullptr, nullptr);
        char *p = QorPutText(QorDumpReserve(&fp, DUMP_LEAST_BUFFER), "B1");
        p = QorPutChar(QorPutSigned(p, QorTagNumber(tag)), 'a');
        p = QorPutChar(QorPutSigned(p, inherited + i), '|');
        WriteLengthAndText(p, error == JVMTI_ERROR_NONE && name ? name : "");
        gbDumpEnv->Deallocate(reinterpret_cast<unsigned char *>(name));
    }
    gbDumpEnv->Deallocate(reinterpret_cast<unsigned char *>(fields));
    return 0;
}

void QorFreeClassList() {
    free(objTagClass);
    objTagClass = nullptr;
    igbTagClassCount = 0;
}
