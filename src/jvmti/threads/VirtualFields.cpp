#include "VirtualFields.h"

#include "MountedThreads.h"
#include "QorOS.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/Session.h"
#include "qorlog.h"
#include "reply/qorformat.h"

#include <cstdio>
#include <cstring>

QorVirtualFields qorVirtual;

namespace {

constexpr jint FIRST_RELEASE = 21;

enum Need : bool { WHEN_MADE, ALWAYS };

struct FieldRow {
    jfieldID QorVirtualFields::*id;
    const char *name, *signature;
};

constexpr FieldRow OF_THREAD[] = {
    {&QorVirtualFields::tid, "tid", "J"},
    {&QorVirtualFields::name, "name", "Ljava/lang/String;"},
    {&QorVirtualFields::container, "container", "Ljdk/internal/vm/ThreadContainer;"},
    {&QorVirtualFields::scopes, "headStackableScopes", "Ljdk/internal/vm/StackableScope;"},
    {&QorVirtualFields::blocker, "parkBlocker", "Ljava/lang/Object;"},
};
constexpr FieldRow OF_VIRTUAL[] = {
    {&QorVirtualFields::state, "state", "I"},
    {&QorVirtualFields::carrier, "carrierThread", "Ljava/lang/Thread;"},
};
constexpr FieldRow OF_SCOPE[] = {
    {&QorVirtualFields::previousScope, "previous", "Ljdk/internal/vm/StackableScope;"},
};
constexpr FieldRow OF_CONTAINERS[] = {
    {&QorVirtualFields::rootContainer, "ROOT_CONTAINER", "Ljdk/internal/vm/ThreadContainers$RootContainer;"},
    {&QorVirtualFields::registry, "CONTAINER_REGISTRY", "Ljava/util/Set;"},
};
constexpr FieldRow OF_REFERENCE[] = {{&QorVirtualFields::referent, "referent", "Ljava/lang/Object;"}};
constexpr FieldRow OF_KEY_SET[] = {
    {&QorVirtualFields::map, "map", "Ljava/util/concurrent/ConcurrentHashMap;"},
};
constexpr FieldRow OF_MAP[] = {
    {&QorVirtualFields::table, "table", "[Ljava/util/concurrent/ConcurrentHashMap$Node;"},
    {&QorVirtualFields::baseCount, "baseCount", "J"},
    {&QorVirtualFields::counterCells, "counterCells",
     "[Ljava/util/concurrent/ConcurrentHashMap$CounterCell;"},
};
constexpr FieldRow OF_NODE[] = {
    {&QorVirtualFields::hash, "hash", "I"},
    {&QorVirtualFields::key, "key", "Ljava/lang/Object;"},
    {&QorVirtualFields::next, "next", "Ljava/util/concurrent/ConcurrentHashMap$Node;"},
};
constexpr FieldRow OF_FORWARDING_NODE[] = {
    {&QorVirtualFields::forwardTable, "nextTable", "[Ljava/util/concurrent/ConcurrentHashMap$Node;"},
};
constexpr FieldRow OF_TREE_BIN[] = {
    {&QorVirtualFields::binFirst, "first", "Ljava/util/concurrent/ConcurrentHashMap$TreeNode;"},
};
constexpr FieldRow OF_COUNTER_CELL[] = {{&QorVirtualFields::cellValue, "value", "J"}};
constexpr FieldRow OF_SHARED[] = {
    {&QorVirtualFields::sharedName, "name", "Ljava/lang/String;"},
    {&QorVirtualFields::sharedThreads, "virtualThreads", "Ljava/util/Set;"},
};
constexpr FieldRow OF_PER_TASK[] = {{&QorVirtualFields::perTaskThreads, "threads", "Ljava/util/Set;"}};
constexpr FieldRow OF_FLOCK_CONTAINER[] = {
    {&QorVirtualFields::flock, "flock", "Ljdk/internal/misc/ThreadFlock;"},
};
constexpr FieldRow OF_FLOCK[] = {
    {&QorVirtualFields::flockThreads, "threads", "Ljava/util/Set;"},
    {&QorVirtualFields::flockName, "name", "Ljava/lang/String;"},
};
constexpr FieldRow OF_TRACKING_ROOT[] = {{&QorVirtualFields::rootThreads, "VTHREADS", "Ljava/util/Set;"}};
constexpr FieldRow OF_COUNTING_ROOT[] = {
    {&QorVirtualFields::rootCount, "VTHREAD_COUNT", "Ljava/util/concurrent/atomic/LongAdder;"},
};
constexpr FieldRow OF_ADDER[] = {
    {&QorVirtualFields::adderBase, "base", "J"},
    {&QorVirtualFields::adderCells, "cells", "[Ljava/util/concurrent/atomic/Striped64$Cell;"},
};
constexpr FieldRow OF_ADDER_CELL[] = {{&QorVirtualFields::adderCellValue, "value", "J"}};
constexpr FieldRow OF_OWNABLE[] = {
    {&QorVirtualFields::owner, "exclusiveOwnerThread", "Ljava/lang/Thread;"},
};

struct JdkClass {
    const char *name;
    Need need;
    bool staticFields;
    jclass QorVirtualFields::*keep; // null: the fields alone are of use
    const FieldRow *fields;
    size_t count;
};

template <size_t N>
constexpr JdkClass Row(const char *name, Need need, const FieldRow (&fields)[N],
                       jclass QorVirtualFields::*keep = nullptr, bool staticFields = false) {
    return {name, need, staticFields, keep, fields, N};
}

constexpr JdkClass CLASSES[] = {
    Row("java/lang/VirtualThread", ALWAYS, OF_VIRTUAL, &QorVirtualFields::thread),
    Row("java/lang/Thread", ALWAYS, OF_THREAD),
    Row("jdk/internal/vm/StackableScope", ALWAYS, OF_SCOPE),
    Row("jdk/internal/vm/ThreadContainers", ALWAYS, OF_CONTAINERS, &QorVirtualFields::containers, true),
    Row("java/lang/ref/Reference", ALWAYS, OF_REFERENCE, &QorVirtualFields::reference),
    Row("java/util/concurrent/ConcurrentHashMap$CollectionView", ALWAYS, OF_KEY_SET,
        &QorVirtualFields::keySet),
    Row("java/util/concurrent/ConcurrentHashMap", ALWAYS, OF_MAP),
    Row("java/util/concurrent/ConcurrentHashMap$Node", ALWAYS, OF_NODE),
    Row("java/util/concurrent/ConcurrentHashMap$ForwardingNode", WHEN_MADE, OF_FORWARDING_NODE,
        &QorVirtualFields::forwardingNode),
    Row("java/util/concurrent/ConcurrentHashMap$TreeBin", WHEN_MADE, OF_TREE_BIN, &QorVirtualFields::treeBin),
    Row("java/util/concurrent/ConcurrentHashMap$CounterCell", WHEN_MADE, OF_COUNTER_CELL),
    Row("jdk/internal/vm/SharedThreadContainer", WHEN_MADE, OF_SHARED, &QorVirtualFields::shared),
    Row("java/util/concurrent/ThreadPerTaskExecutor", WHEN_MADE, OF_PER_TASK, &QorVirtualFields::perTask),
    Row("jdk/internal/misc/ThreadFlock$ThreadContainerImpl", WHEN_MADE, OF_FLOCK_CONTAINER,
        &QorVirtualFields::flockContainer),
    Row("jdk/internal/misc/ThreadFlock", WHEN_MADE, OF_FLOCK),
    Row("jdk/internal/vm/ThreadContainers$RootContainer$TrackingRootContainer", WHEN_MADE, OF_TRACKING_ROOT,
        &QorVirtualFields::trackingRoot, true),
    Row("jdk/internal/vm/ThreadContainers$RootContainer$CountingRootContainer", WHEN_MADE, OF_COUNTING_ROOT,
        &QorVirtualFields::countingRoot, true),
    Row("java/util/concurrent/atomic/Striped64", WHEN_MADE, OF_ADDER),
    Row("java/util/concurrent/atomic/Striped64$Cell", WHEN_MADE, OF_ADDER_CELL),
    Row("java/util/concurrent/locks/AbstractOwnableSynchronizer", WHEN_MADE, OF_OWNABLE),
};
constexpr size_t CLASS_COUNT = sizeof CLASSES / sizeof CLASSES[0];

bool found[CLASS_COUNT];
char offReason[160];

// Finds a class of the boot loader without initialising it; JNI's own FindClass would.
constexpr char FIND_BOOT_CLASS[] = "JVM_FindClassFromBootLoader";
using FindBootClass = jclass(JNICALL *)(JNIEnv *env, const char *name);
FindBootClass findBootClass;

void TurnOff(const char *what, const char *name) {
    snprintf(offReason, sizeof offReason, "%s%s", what, name);
    QORLOG(LOG_WARNING, "Virtual threads aren't shown: %s", offReason);
}

bool OpenClassLookUp() {
    if (findBootClass)
        return true;
    void *library = nullptr;
    if (QorLoadLibrary(&library, gbQorJVMLibName) != 0)
        return false;
    findBootClass = reinterpret_cast<FindBootClass>(QorFindSymbol(library, FIND_BOOT_CLASS));
    QorCloseLibrary(library);
    return findBootClass != nullptr;
}

bool FindFields(const JdkClass &row, jclass klass) {
    for (size_t i = 0; i < row.count; i++) {
        const FieldRow &field = row.fields[i];
        jfieldID &id = qorVirtual.*field.id;
        id = (row.staticFields ? QorGetStaticFieldID : QorGetFieldID)(jvmtijni_env, klass, field.name,
                                                                      field.signature);
        if (id)
            continue;
        TurnOff("no field ", field.name);
        return false;
    }
    return true;
}

// Looks at one class. Its fields are found in one go, so one that failed isn't asked again.
QorVirtualState LookUp(const JdkClass &row, bool *isFound) {
    const QorLocalFrame frame(jvmtijni_env, 2);
    if (!frame.pushed)
        return VIRTUAL_NONE_YET; // no memory: next time
    jclass klass = QorFindBootClass(row.name);
    if (!klass) {
        TurnOff("no class ", row.name);
        return VIRTUAL_OFF;
    }
    if (!QorIsClassInitialized(klass))
        return row.need == ALWAYS ? VIRTUAL_NONE_YET : VIRTUAL_READY;
    if (!FindFields(row, klass))
        return VIRTUAL_OFF;
    if (row.keep)
        qorVirtual.*row.keep = static_cast<jclass>(QorNewGlobalRef(jvmtijni_env, klass));
    if (row.keep && !(qorVirtual.*row.keep))
        return VIRTUAL_NONE_YET; // the same
    *isFound = true;
    return VIRTUAL_READY;
}

} // namespace

int32_t QorJvmRelease() {
    jint version = 0;
    if (!jvmti || jvmti->GetVersionNumber(&version) != JVMTI_ERROR_NONE)
        return 0;
    return (version & JVMTI_VERSION_MASK_MAJOR) >> JVMTI_VERSION_SHIFT_MAJOR;
}

jclass QorFindBootClass(const char *name) {
    jclass klass = OpenClassLookUp() ? findBootClass(jvmtijni_env, name) : nullptr;
    return QorClearException(jvmtijni_env) ? nullptr : klass;
}

QorVirtualState QorLookUpVirtual() {
    if (offReason[0])
        return VIRTUAL_OFF;
    if (!jvmtijni_env || QorJvmRelease() < FIRST_RELEASE) {
        snprintf(offReason, sizeof offReason, "%s", NO_VIRTUAL_THREADS);
        return VIRTUAL_OFF;
    }
    if (!QorCanSeeMounted()) {
        TurnOff(QorWhyMountedAreUnseen(), "");
        return VIRTUAL_OFF;
    }
    if (!OpenClassLookUp()) {
        TurnOff("no symbol ", FIND_BOOT_CLASS);
        return VIRTUAL_OFF;
    }
    for (size_t i = 0; i < CLASS_COUNT; i++) {
        const QorVirtualState state = found[i] ? VIRTUAL_READY : LookUp(CLASSES[i], &found[i]);
        if (state != VIRTUAL_READY)
            return state;
    }
    return VIRTUAL_READY;
}

const char *QorVirtualOffReason() {
    return offReason;
}

void QorDropVirtualFields() {
    for (size_t i = 0; i < CLASS_COUNT; i++) {
        if (found[i] && CLASSES[i].keep)
            QorDeleteGlobalRef(jvmtijni_env, qorVirtual.*CLASSES[i].keep);
        found[i] = false;
    }
    qorVirtual = {};
    offReason[0] = 0;
}

bool QorIsVirtualThread(jobject thread) {
    return thread && qorVirtual.thread && jvmtijni_env->IsInstanceOf(thread, qorVirtual.thread);
}

jobject QorOwnerOfBlocker(jobject blocker) {
    if (!blocker || !qorVirtual.owner || !jvmtijni_env->IsInstanceOf(blocker, ownableClass))
        return nullptr;
    return QorGetObjectField(jvmtijni_env, blocker, qorVirtual.owner);
}
