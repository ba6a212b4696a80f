#include "ValueText.h"

#include "JniCalls.h"
#include "Session.h"
#include "qorStrUtils.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr jsize CHUNK_CHARS = 512;
constexpr int32_t BYTES_PER_CHAR = 3; // the most that a char takes in modified UTF-8

// Some chars of a string, terminated. False when they are unavailable.
bool ReadChunk(JNIEnv *env, jstring str, jsize start, jsize count,
               char (&chunk)[CHUNK_CHARS * BYTES_PER_CHAR + 1]) {
    memset(chunk, 0, sizeof chunk); // not every JVM terminates what it copies
    env->GetStringUTFRegion(str, start, count, chunk);
    return !QorClearException(env);
}

} // namespace

int32_t QorReadString(JNIEnv *env, jstring str, char *dest, int32_t capacity, uint32_t blanked, bool *cut) {
    if (!str || capacity < 1 || QorIsSameObject(env, str, nullptr))
        return -1;
    const jsize length = env->GetStringLength(str);
    if (QorClearException(env))
        return -1;
    int32_t used = 0;
    bool isCut = false;
    for (jsize start = 0; start < length && !isCut; start += CHUNK_CHARS) {
        char chunk[CHUNK_CHARS * BYTES_PER_CHAR + 1];
        const bool isRead = ReadChunk(env, str, start, std::min(length - start, CHUNK_CHARS), chunk);
        if (!isRead && start == 0)
            return -1;
        const auto bytes = isRead ? static_cast<int32_t>(strnlen(chunk, sizeof chunk - 1)) : 0;
        const int32_t copied = std::min(bytes, capacity - 1 - used);
        memcpy(dest + used, chunk, static_cast<size_t>(copied));
        used += copied;
        isCut = !isRead || copied < bytes;
    }
    dest[used] = 0;
    if (isCut)
        QorDropPartialCharacter(dest, used);
    if (cut)
        *cut = isCut;
    return QorBlank(dest, blanked);
}

void QorReadByteText(jbyteArray bytes, int32_t offset, int32_t length, char *dest, int32_t capacity) {
    dest[0] = 0;
    if (offset < 0 || length < 1 ||
        static_cast<int64_t>(offset) + length > QorGetArrayLength(jvmtijni_env, bytes))
        return;
    const int32_t count = std::min(length, capacity - 1);
    jvmtijni_env->GetByteArrayRegion(bytes, offset, count, reinterpret_cast<jbyte *>(dest));
    if (QorClearException(jvmtijni_env)) {
        dest[0] = 0;
        return;
    }
    std::replace(dest, dest + count, '\0', '?');
    dest[count] = 0;
    if (count < length)
        QorDropPartialCharacter(dest, count);
    QorMakeFit(dest);
}
