#include "direct_threads.h"

#include "reply/qorformat.h"
#include "reply/utf16_text.h"

#include "Xtier/thread_e2e_info.h"
#include "jvmti/JniCalls.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr jint MAX_THREADS = 8191, ROOM_FOR_NEW = 64; // threads may be starting
constexpr int32_t MAX_GROUPS = 50;                    // from a thread's group to the outermost
constexpr jint FRAME_CAPACITY = 16;

struct Wanted {
    const QorE2EBlock *block;
    jsize index; // in the list
};

// The blocks by rising JavaThread address.
struct WantedThreads {
    Wanted *rows;
    jsize count;
};

bool IsBefore(const Wanted &row, uint64_t address) {
    return row.block->javaThread < address;
}

WantedThreads SortBlocks(const QorE2EBlock *list) {
    WantedThreads all = {};
    jsize count = 0;
    for (const QorE2EBlock *block = list; block; block = block->next)
        count++;
    all.rows = static_cast<Wanted *>(calloc(static_cast<size_t>(std::max(count, 1)), sizeof *all.rows));
    for (const QorE2EBlock *block = list; block && all.rows; block = block->next, all.count++)
        all.rows[all.count] = {block, all.count};
    std::sort(all.rows, all.rows + all.count,
              [](const Wanted &a, const Wanted &b) { return a.block->javaThread < b.block->javaThread; });
    return all;
}

struct ThreadIds {
    jclass thread;
    jfieldID address, name;
    jmethodID group;
};

bool FindIds(JNIEnv *env, ThreadIds *ids) {
    ids->thread = QorFindClass(env, "java/lang/Thread");
    if (!ids->thread)
        return false;
    ids->address = QorGetFieldID(env, ids->thread, "eetop", "J");
    ids->name = QorGetFieldID(env, ids->thread, "name", "[C");
    ids->group = QorGetMethodID(env, ids->thread, "getThreadGroup", "()Ljava/lang/ThreadGroup;");
    return ids->address && ids->name && ids->group;
}

// The group that all others are in, or null.
jobject OutermostGroup(JNIEnv *env, const ThreadIds &ids) {
    jmethodID current = QorGetStaticMethodID(env, ids.thread, "currentThread", "()Ljava/lang/Thread;");
    jobject self = current ? QorCallStaticObjectMethod(env, ids.thread, current) : nullptr;
    jobject group = self ? QorCallObjectMethod(env, self, ids.group) : nullptr;
    jclass groups = QorFindClass(env, "java/lang/ThreadGroup");
    jmethodID parent =
        groups ? QorGetMethodID(env, groups, "getParent", "()Ljava/lang/ThreadGroup;") : nullptr;
    for (int32_t i = 0; group && parent && i < MAX_GROUPS; i++) {
        jobject outer = QorCallObjectMethod(env, group, parent);
        if (!outer)
            return group;
        QorDeleteLocalRef(env, group);
        group = outer;
    }
    return nullptr;
}

// The threads of a group and of those in it, with nulls at the end; or null.
jobjectArray ThreadsIn(JNIEnv *env, const ThreadIds &ids, jobject group, jint *count) {
    jclass groups = QorFindClass(env, "java/lang/ThreadGroup");
    jmethodID active = groups ? QorGetMethodID(env, groups, "activeCount", "()I") : nullptr;
    jmethodID enumerate =
        groups ? QorGetMethodID(env, groups, "enumerate", "([Ljava/lang/Thread;)I") : nullptr;
    if (!active || !enumerate)
        return nullptr;
    const jint room =
        std::clamp(QorCallIntMethod(env, group, active), 0, MAX_THREADS - ROOM_FOR_NEW) + ROOM_FOR_NEW;
    jobjectArray threads = env->NewObjectArray(room, ids.thread, nullptr);
    if (QorClearException(env) || !threads)
        return nullptr;
    *count = env->CallIntMethod(group, enumerate, threads);
    if (QorClearException(env))
        return nullptr;
    *count = std::clamp(*count, 0, room);
    return threads;
}

// The thread's name as a sample has it.
void NameOf(JNIEnv *env, const ThreadIds &ids, jobject thread, char *out, int32_t size) {
    jchar chars[VM_TEXT_CHARS];
    out[0] = 0;
    auto name = static_cast<jcharArray>(QorGetObjectField(env, thread, ids.name));
    const jsize count = name ? QorGetArrayLength(env, name) : 0;
    if (count > 0 && count <= VM_TEXT_CHARS) {
        env->GetCharArrayRegion(name, 0, count, chars);
        if (!QorClearException(env)) {
            QorUtf16Text text;
            QorUtf16Start(&text, out, size);
            QorUtf16Append(&text, chars, count);
            QorUtf16End(&text);
        }
    }
    QorDeleteLocalRef(env, name);
    if (!out[0])
        snprintf(out, static_cast<size_t>(size), "%s", null_str);
    std::replace(out, out + strlen(out), '|', ' ');
}

// Stores the thread for each block that means it. A JavaThread's memory may be another thread's by now, which
// then has another name.
void StoreThread(JNIEnv *env, const ThreadIds &ids, const WantedThreads &wanted, jobject thread,
                 jobjectArray found) {
    const auto address = static_cast<uint64_t>(QorGetLongField(env, thread, ids.address));
    const Wanted *end = wanted.rows + wanted.count;
    const Wanted *row = address ? std::lower_bound<const Wanted *>(wanted.rows, end, address, IsBefore) : end;
    if (row == end || row->block->javaThread != address)
        return;
    char name[VM_TEXT_SIZE];
    NameOf(env, ids, thread, name, sizeof name);
    for (; row != end && row->block->javaThread == address; row++)
        if (strncmp(name, row->block->name, sizeof row->block->name - 1) == 0) {
            env->SetObjectArrayElement(found, row->index, thread);
            QorClearException(env);
        }
}

jobjectArray FindThreads(JNIEnv *env, const WantedThreads &wanted) {
    ThreadIds ids = {};
    jint count = 0;
    if (!FindIds(env, &ids))
        return nullptr;
    jobject group = OutermostGroup(env, ids);
    jobjectArray threads = group ? ThreadsIn(env, ids, group, &count) : nullptr;
    jobjectArray found = threads ? env->NewObjectArray(wanted.count, ids.thread, nullptr) : nullptr;
    if (QorClearException(env) || !found)
        return nullptr;
    for (jint i = 0; i < count; i++) {
        jobject thread = QorGetObjectArrayElement(env, threads, i);
        if (thread)
            StoreThread(env, ids, wanted, thread, found);
        QorDeleteLocalRef(env, thread);
    }
    return found;
}

} // namespace

jobjectArray QorFindDirectThreads(JNIEnv *env, const QorE2EBlock *list) {
    WantedThreads wanted = SortBlocks(list);
    jobjectArray found = nullptr;
    if (wanted.count && QorPushLocalFrame(env, FRAME_CAPACITY) == 0)
        found = static_cast<jobjectArray>(QorPopLocalFrame(env, FindThreads(env, wanted)));
    free(wanted.rows);
    return found;
}
