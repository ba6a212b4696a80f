#include "Enrichment.h"

#include "AnswerMerge.h"

#include "jvmti/JavaClasses.h"
#include "jvmti/JniCalls.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "reply/qortext.h"
#include "reply/records.h"
#include "thread_e2e_info.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

std::atomic<int32_t> flagcompiled_java_code;

namespace {

constexpr jint FRAME_CAPACITY = 23; // 7 in use at a time, and what JNI's own checks want to spare
constexpr int32_t TEXTS_PER_THREAD = 10;

struct JavaArguments {
    jobjectArray threads;
    jobjectArray strings;
    jlongArray ids;
    jstring minusOne, zero; // nearly every number is one of these
    jstring lastNumber;     // another one, with its value: depths are alike
    int32_t lastValue;
    jobjectArray found; // the threads by block, null where the blocks have references
    jint count;         // threads that went in
};

jstring MakeText(JNIEnv *env, const char *text) {
    jstring made = env->NewStringUTF(text);
    QorDescribeException(env);
    return made;
}

void Store(JNIEnv *env, const JavaArguments &to, int32_t number, jstring text) {
    env->SetObjectArrayElement(to.strings, to.count * TEXTS_PER_THREAD + number, text);
}

// Puts text `number` of the current thread. The array is made of empty texts.
void PutText(JNIEnv *env, const JavaArguments &to, int32_t number, const char *text) {
    if (!text[0])
        return;
    jstring made = MakeText(env, text);
    Store(env, to, number, made);
    QorDeleteLocalRef(env, made);
}

void PutNumber(JNIEnv *env, JavaArguments *to, int32_t number, int32_t value) {
    if (value == -1 || value == 0) {
        Store(env, *to, number, value ? to->minusOne : to->zero);
        return;
    }
    if (!to->lastNumber || to->lastValue != value) {
        char storage[24];
        QorText text;
        QorTextStart(&text, storage, sizeof storage);
        QorTextAppendNumber(&text, value);
        QorDeleteLocalRef(env, to->lastNumber);
        to->lastNumber = MakeText(env, storage);
        to->lastValue = value;
    }
    Store(env, *to, number, to->lastNumber);
}

int32_t YesNoOrUnknown(int32_t value) {
    return value == 0 || value == 1 ? value : -1;
}

void PutTexts(JNIEnv *env, JavaArguments *to, const QorE2EBlock &block) {
    PutNumber(env, to, 0, block.frameCount);
    PutNumber(env, to, 1, YesNoOrUnknown(block.stuckAndHogger[0]));
    PutNumber(env, to, 2, YesNoOrUnknown(block.stuckAndHogger[1]));
    PutText(env, *to, 3, block.ioFile);
    PutText(env, *to, 4, block.applicationName);
    PutText(env, *to, 5, block.moduleName);
    PutText(env, *to, 6, block.wmName);
    PutText(env, *to, 7, block.sessionId);
    PutNumber(env, to, 8, block.networkPort);
    PutText(env, *to, 9, block.networkHost);
}

// Whether the thread of this block, the list's `index`th, went in.
bool PutThread(JNIEnv *env, const JavaArguments &to, const QorE2EBlock &block, jsize index) {
    jobject element = to.found ? QorGetObjectArrayElement(env, to.found, index) : nullptr;
    if (!block.directRef && !element) {
        QORLOG(LOG_ERROR, "Thread object NULL");
        return false;
    }
    jobject thread = element ? element : block.threadRef;
    if (!thread)
        return false;
    env->SetObjectArrayElement(to.threads, to.count, thread);
    const bool put = !QorDescribeException(env);
    QorDeleteLocalRef(env, element);
    return put;
}

jobjectArray MakeArray(JNIEnv *env, jsize count, jclass klass, jobject element) {
    jobjectArray made = env->NewObjectArray(count, klass, element);
    QorDescribeException(env);
    return made;
}

// The arrays for `count` threads, or false.
bool MakeArrays(JNIEnv *env, jsize count, JavaArguments *made) {
    jstring empty = MakeText(env, "");
    made->minusOne = MakeText(env, "-1");
    made->zero = MakeText(env, "0");
    made->threads = MakeArray(env, count, jobjclass, nullptr);
    made->strings = MakeArray(env, count * TEXTS_PER_THREAD, jstringclass, empty);
    made->ids = env->NewLongArray(count);
    QorDescribeException(env);
    if (empty && made->minusOne && made->zero && made->threads && made->strings && made->ids)
        return true;
    QORLOG(LOG_ERROR, "checkAndAppendInfo : Not able to allocate memory for thread_array");
    return false;
}

// Hands the threads over, packed: one that can't go leaves no gap, and the arrays' rest stays null.
void PutThreads(JNIEnv *env, jsize blocks, jlong *ids, JavaArguments *to) {
    jsize index = 0;
    for (QorE2EBlock *block = thread_e2e_info; block; block = block->next) {
        block->valid = PutThread(env, *to, *block, index++);
        if (!block->valid)
            continue;
        ids[to->count] = block->osThreadId;
        PutTexts(env, to, *block);
        to->count++;
    }
    for (jsize i = to->count * TEXTS_PER_THREAD; i < blocks * TEXTS_PER_THREAD; i++)
        env->SetObjectArrayElement(to->strings, i, nullptr);
    if (to->count < blocks)
        env->SetObjectArrayElement(to->threads, to->count, nullptr);
    env->SetLongArrayRegion(to->ids, 0, blocks, ids);
    QorDescribeException(env);
}

bool GatherArguments(JNIEnv *env, QorThreadFinder find, JavaArguments *arguments) {
    *arguments = {};
    jsize blocks = 0;
    for (const QorE2EBlock *block = thread_e2e_info; block; block = block->next)
        blocks++;
    if (!blocks) {
        QORLOG(LOG_DETAIL, "checkAndAppendInfo : no active threads");
        return false;
    }
    if (find && !(arguments->found = find(env, thread_e2e_info)))
        return false;
    auto *ids = static_cast<jlong *>(calloc(static_cast<size_t>(blocks), sizeof(jlong)));
    if (!ids) {
        QORLOG(LOG_ERROR, "Malloc Failed.Not able to allocate memory");
        return false;
    }
    const bool made = MakeArrays(env, blocks, arguments);
    if (made)
        PutThreads(env, blocks, ids, arguments);
    free(ids);
    return made;
}

// The answer, or null.
jstring CallJava(JNIEnv *env, const JavaArguments &arguments, bool systemData) {
    flagcompiled_java_code = 1;
    jstring answer = nullptr;
    jmethodID method = env->GetStaticMethodID(
        e2eclass, "cjavacalls", "([Ljava/lang/Object;[J[Ljava/lang/String;III)Ljava/lang/String;");
    if (!QorDescribeException(env) && method) {
        answer = static_cast<jstring>(
            env->CallStaticObjectMethod(e2eclass, method, arguments.threads, arguments.ids, arguments.strings,
                                        arguments.count, jint{systemData}, jint{qorIsPollOrTrace}));
        if (QorDescribeException(env))
            answer = nullptr;
    }
    flagcompiled_java_code = 0;
    return answer;
}

// The timing line, which a reply of the direct road has already. Cut off for the merge, it comes last again.
struct TimingLine {
    char text[sizeof TITLE_TIME_SPENT + 32] = "";

    TimingLine() {
        if (QorOnJvmtiRoad())
            return;
        const size_t length = strlen(pagebuf);
        char *from = pagebuf + length - std::min(length, sizeof text - 1);
        if (char *line = strstr(from, TITLE_TIME_SPENT)) {
            snprintf(text, sizeof text, "%s", line);
            *line = 0;
        }
    }
    ~TimingLine() {
        QorText reply;
        QorTextContinue(&reply, pagebuf, PAGEBUF_SIZE);
        QorTextAppend(&reply, text);
    }
    TimingLine(const TimingLine &) = delete;
    TimingLine &operator=(const TimingLine &) = delete;
};

// Readers of a poll without stacks don't expect an answer in its rows, unless they ask for it.
bool CanMerge() {
    return !(reqid & QORREQ_POLL_DETAILS) || figures_wanted || strstr(pagebuf, TITLE_THREAD_DETAILS);
}

void AskAndMerge(JNIEnv *env, QorThreadFinder find) {
    const QorLocalFrame frame(env, FRAME_CAPACITY);
    if (!frame.pushed) {
        QORLOG(LOG_ERROR, "checkAndAppendInfo : Out of Memory when PushLocalFrame");
        return;
    }
    const bool systemData = get_system_data && (reqid & QORREQ_SAMPLING);
    if (!systemData && !CanMerge())
        return;
    JavaArguments arguments;
    if (!GatherArguments(env, find, &arguments))
        return;
    jstring answer = CallJava(env, arguments, systemData);
    if (!answer)
        return;
    const char *text = env->GetStringUTFChars(answer, nullptr);
    QorDescribeException(env);
    QorMergeAnswer(text, systemData);
    if (text)
        env->ReleaseStringUTFChars(answer, text);
}

} // namespace

void checkAndAppendInfo(JNIEnv *env, QorThreadFinder find) {
    if ((reqid & QORREQ_THREAD_DATA) && e2eclass && jobjclass && jstringclass) {
        pagebuf[PAGEBUF_SIZE - 1] = 0;
        const TimingLine timing;
        AskAndMerge(env, find);
        QORLOG(QorTracedAt(), "checkAppendInfo:Cleaning up before returning");
    }
    release_thread_e2e_info(env);
}
