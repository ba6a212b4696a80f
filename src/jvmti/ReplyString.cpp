#include "ReplyString.h"

#include "JniCalls.h"

#include <cstdint>
#include <cstdlib>
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

bool IsFourByteForm(const char *at) {
    return (at[0] & 0xf8) == 0xf0 && (at[1] & 0xc0) == 0x80 && (at[2] & 0xc0) == 0x80 &&
           (at[3] & 0xc0) == 0x80;
}

// One half of a surrogate pair.
char *PutHalf(char *to, uint32_t half) {
    *to++ = static_cast<char>(0xe0 | (half >> 12));
    *to++ = static_cast<char>(0x80 | ((half >> 6) & 0x3f));
    *to++ = static_cast<char>(0x80 | (half & 0x3f));
    return to;
}

// The text with each character of four bytes as its pair of surrogates, six bytes. Null without memory.
char *CopyInPairs(const char *text, size_t length) {
    auto *copy = static_cast<char *>(malloc(length + length / 2 + 1));
    char *to = copy;
    while (copy && *text) {
        if (!IsFourByteForm(text)) {
            *to++ = *text++;
            continue;
        }
        const uint32_t c = static_cast<uint32_t>((text[0] & 0x07) << 18 | (text[1] & 0x3f) << 12 |
                                                 (text[2] & 0x3f) << 6 | (text[3] & 0x3f)) -
                           0x10000;
        to = PutHalf(PutHalf(to, 0xd800 | ((c >> 10) & 0x3ff)), 0xdc00 | (c & 0x3ff));
        text += 4;
    }
    if (copy)
        *to = 0;
    return copy;
}

jstring NewStringInPairs(JNIEnv *env, const char *text, size_t length) {
    char *copy = CopyInPairs(text, length);
    jstring string = copy ? QorNewStringUTF(env, copy) : nullptr;
    free(copy);
    return string;
}

// Whether characters beyond the first 65,536 are in the text as in UTF-8. The JVM's own form has none.
bool HasFourByteForms(const char *text, size_t length) {
    for (size_t i = 0; i < length; i++)
        if (IsFourByteForm(text + i))
            return true;
    return false;
}

} // namespace

jstring QorNewReplyString(JNIEnv *env, const char *text) {
    const size_t length = strlen(text);
    if (length >= LONG_TEXT && length <= INT32_MAX && IsAscii(text, length))
        if (jstring string = NewStringByBytes(env, text, length))
            return string;
    return HasFourByteForms(text, length) ? NewStringInPairs(env, text, length) : QorNewStringUTF(env, text);
}
