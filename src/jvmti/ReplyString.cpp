#include "ReplyString.h"

#include "JniCalls.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr size_t LONG_TEXT = 4096; // below it the way by bytes has no advantage

bool IsAscii(const char *text, size_t length) {
    unsigned char seen = 0;
    for (size_t i = 0; i < length; i++)
        seen |= static_cast<unsigned char>(text[i]);
    return seen < 0x80;
}

// new String(bytes, 0): one character for each byte, the upper half of each 0.
jstring NewAsciiString(JNIEnv *env, jbyteArray bytes) {
    jclass klass = QorFindClass(env, "java/lang/String");
    if (!klass)
        return nullptr;
    jstring string = nullptr;
    if (jmethodID constructor = QorGetMethodID(env, klass, "<init>", "([BI)V"))
        string = static_cast<jstring>(env->NewObject(klass, constructor, bytes, 0));
    QorClearException(env);
    QorDeleteLocalRef(env, klass);
    return string;
}

jstring NewStringByBytes(JNIEnv *env, const char *text, size_t length) {
    jbyteArray bytes = env->NewByteArray(static_cast<jsize>(length));
    QorClearException(env);
    if (!bytes)
        return nullptr;
    env->SetByteArrayRegion(bytes, 0, static_cast<jsize>(length), reinterpret_cast<const jbyte *>(text));
    jstring string = NewAsciiString(env, bytes);
    QorDeleteLocalRef(env, bytes);
    return string;
}

} // namespace

jstring QorNewReplyString(JNIEnv *env, const char *text) {
    const size_t length = strlen(text);
    if (length >= LONG_TEXT && length <= INT32_MAX && IsAscii(text, length))
        if (jstring string = NewStringByBytes(env, text, length))
            return string;
    return QorNewStringUTF(env, text);
}
