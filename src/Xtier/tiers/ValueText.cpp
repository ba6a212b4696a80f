#include "ValueText.h"

#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/Session.h"
#include "qorStrUtils.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr jsize CHUNK_CHARS = 512;
constexpr int32_t BYTES_PER_CHAR = 3; // the most that a char takes in modified UTF-8
// Appends what fits of the chars from `start` on. False when some did not fit or is unavailable.
bool AppendChars(jstring str, jsize start, jsize count, char *dest, int32_t *used, int32_t capacity) {
    char chunk[CHUNK_CHARS * BYTES_PER_CHAR + 1] = {}; // not every JVM terminates what it copies
    jvmtijni_env->GetStringUTFRegion(str, start, count, chunk);
    if (QorClearException(jvmtijni_env))
        return false;
    const auto length = static_cast<int32_t>(strnlen(chunk, sizeof chunk - 1));
    const int32_t copied = std::min(length, capacity - 1 - *used);
    memcpy(dest + *used, chunk, static_cast<size_t>(copied));
    *used += copied;
    return copied == length;
}

} // namespace

int32_t QorCopyStringText(jstring str, char *dest, int32_t capacity, bool *cut) {
    dest[0] = 0;
    *cut = false;
    if (!str)
        return 0;
    if (QorIsSameObject(jvmtijni_env, str, nullptr))
        return -1;
    const jsize length = jvmtijni_env->GetStringLength(str);
    if (QorClearException(jvmtijni_env))
        return 0;
    int32_t used = 0;
    for (jsize start = 0; start < length && !*cut; start += CHUNK_CHARS)
        *cut = !AppendChars(str, start, std::min(length - start, CHUNK_CHARS), dest, &used, capacity);
    dest[used] = 0;
    if (*cut)
        QorDropPartialCharacter(dest, used);
    return 0;
}

int32_t QorReadValueText(jstring str, char *dest, int32_t capacity) {
    bool cut = false;
    const int32_t result = QorCopyStringText(str, dest, capacity, &cut);
    QorBlankSeparators(dest);
    return result;
}

int32_t QorReadStringField(jobject object, const char *field, char *dest, int32_t capacity) {
    jobject text = nullptr;
    dest[0] = 0;
    if (QorGetObjField(object, field, "Ljava/lang/String;", &text) < 0)
        return -1;
    QorReadValueText(static_cast<jstring>(text), dest, capacity);
    QorDeleteLocalRef(jvmtijni_env, text);
    return 0;
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
    QorReplaceForeignBytes(dest);
    QorBlankSeparators(dest);
}

namespace {

// Puts at most three stars in the place of [start, end); returns where the text goes on.
char *Hide(char *start, char *end) {
    constexpr char STARS[] = "***";
    const size_t stars = std::min(static_cast<size_t>(end - start), sizeof STARS - 1);
    memcpy(start, STARS, stars);
    memmove(start + stars, end, strlen(end) + 1);
    return start + stars;
}

// "://user:secret@host" and "user/secret@host"; a user alone stays. Elsewhere than in JDBC, whose passwords
// may have slashes, the first slash after the host begins a path, where "@" is just a character.
void HideBeforeHost(char *url) {
    const bool isJdbc = strncmp(url, "jdbc:", 5) == 0;
    char *const found = strstr(url, "://");
    const bool hasScheme = found && found < url + strcspn(url, "?;");
    char *const user = hasScheme ? found + 3 : url;
    const char *const behind = hasScheme && !isJdbc ? "/?#;" : "?;";
    char *const at = url[0] == '/' ? nullptr : static_cast<char *>(memrchr(user, '@', strcspn(user, behind)));
    char *const end =
        at ? static_cast<char *>(memchr(user, hasScheme ? ':' : '/', static_cast<size_t>(at - user)))
           : nullptr;
    if (end)
        Hide(end + 1, at);
}

// Where a property's value ends: at the URL's own separator, as it may hold the other one, within
// "(name=value)" also at the parenthesis or a comma, and for "{value}" at the brace.
char *EndOfValue(const char *url, char *value) {
    const auto *open = static_cast<const char *>(memrchr(url, '(', static_cast<size_t>(value - url)));
    const bool isInside = open && !memchr(open, ')', static_cast<size_t>(value - open));
    char *const brace = value[0] == '{' ? strchr(value, '}') : nullptr;
    if (brace)
        return brace + 1;
    return value + strcspn(value, isInside ? "&;,)" : url[strcspn(url, "?;")] == ';' ? ";" : "&");
}

void HideProperties(char *url, const char *name) {
    for (char *at = url; (at = strcasestr(at, name));) {
        at += strlen(name);
        at += strspn(at, "0123456789"); // one of several
        if (*at == '=') {
            at++;
            at = Hide(at, EndOfValue(url, at));
        }
    }
}

} // namespace

void QorHidePasswords(char *url) {
    HideBeforeHost(url);
    for (const char *name : {"password", "passwd", "pwd", "secret", "token"})
        HideProperties(url, name);
}
