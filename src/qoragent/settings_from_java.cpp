#include "settings_from_java.h"

#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorsettings.h"

#include "jvmti/JniCalls.h"

#include <cstring>
#include <dlfcn.h>
#include <link.h>

char LOG_FILE[4096];

namespace {

constexpr int STREAM_NAME_LENGTH = 6; // "stdout" and "stderr" are known by their first bytes
constexpr int QUOTA_OFF = 0, QUOTA_FREE = 100;

// The file of an earlier start, if it was replaced: a Java thread may still be writing its line, so it is
// closed one start later.
FILE *replacedLog;
char openLogPath[sizeof LOG_FILE]; // of the file that fpLogFile is; empty for the standard streams

void StoreLevel(int32_t level) {
    gbiOptimizationLevel = level;
    gbQorSkipLocal = level == 3 || level == 9;
    if (level == 9)
        QORLOG(LOG_NOTE, "BCI Mode is enabled. All Local would be fetched through BCI");
    else if (level == 3)
        QORLOG(LOG_NOTE, "QORD agent is running in No local Mode.");
    else
        QORLOG(LOG_DETAIL, "BCI Mode is Not enabled. All Local would be fetched through jvmti/re");
}

// Address of the library's first code byte, or 0.
unsigned long FirstCodeAddress() {
    Dl_info self;
    if (!dladdr(reinterpret_cast<void *>(&FirstCodeAddress), &self))
        return 0;
    const auto *base = static_cast<const char *>(self.dli_fbase);
    const auto *header = reinterpret_cast<const ElfW(Ehdr) *>(base);
    const auto *segment = reinterpret_cast<const ElfW(Phdr) *>(base + header->e_phoff);
    for (int i = 0; i < header->e_phnum; i++, segment++)
        if (segment->p_type == PT_LOAD && (segment->p_flags & PF_X))
            return reinterpret_cast<unsigned long>(base) + segment->p_vaddr;
    return 0;
}

void SwitchLog(FILE *to, const char *path) {
    FILE *was = openLogPath[0] ? fpLogFile : nullptr;
    fpLogFile = to;
    if (replacedLog)
        fclose(replacedLog);
    replacedLog = was;
    QorStrncpy(openLogPath, path, sizeof openLogPath, sizeof openLogPath);
    openLogPath[0] = path[0];
}

void LogToStdout() {
    SwitchLog(stdout, "");
    QORLOG(LOG_DETAIL, "Log File is stdout");
}

void LogToFile(const char *path) {
    if (openLogPath[0] && strcmp(openLogPath, path) == 0)
        return; // the same file goes on
    FILE *file = fopen(path, "ae");
    if (!file) {
        SwitchLog(stdout, "");
        QORLOG(LOG_NOTE, "Failed to open the log fille. Setting defualt to STDOUT");
        return;
    }
    SwitchLog(file, path);
    QORLOG(LOG_NOTE, "Log File is %s", path);
}

} // namespace

bool QorCopyJavaString(JNIEnv *env, jstring source, char *dest, int32_t size) {
    if (!source)
        return false;
    const char *chars = QorGetStringUTFChars(env, source, nullptr);
    if (!chars)
        return false;
    dest[0] = 0;
    QorStrncpy(dest, chars, size, static_cast<int32_t>(strnlen(chars, static_cast<size_t>(size))));
    QorReleaseStringUTFChars(env, source, chars);
    return true;
}

void QorStoreNumbers(const QorStartArguments *arguments) {
    qorloglevel = arguments->logLevel;
    qormaxbackoff = arguments->maxBackoff;
    StoreLevel(arguments->optimizationLevel);

    qor_max_timeout = arguments->maxTimeout;
    jvm_sighandler_chain = arguments->signalChain;
    qorLockInfoLevel = arguments->lockInfoLevel;
    qorDBQuery = arguments->dbQuery;
    maxStackDepthQueried = arguments->depthQueried;
    maxStackDepthRecorded = arguments->depthRecorded;

    gbSqlQueryLength = arguments->sqlLength;
    if (gbSqlQueryLength > QOR_MAX_SQL_QUERY_SIZE) {
        QORLOG(LOG_NOTE,
               "SqlQuery Size is more than MAX_SQL_QUERY_SIZE, Sql Query Size %d, QOR_MAX_SQL_QUERY_SIZE %d. "
               "Resetting it to QOR_MAX_SQL_QUERY_SIZE",
               gbSqlQueryLength, QOR_MAX_SQL_QUERY_SIZE);
        gbSqlQueryLength = QOR_MAX_SQL_QUERY_SIZE;
    }
    qorGetLocalObjectsQuotaPct = arguments->localsQuota;
    if (qorGetLocalObjectsQuotaPct == QUOTA_OFF)
        QORLOG(LOG_NOTE, "No local variables will be obtained because it is disabled in web.xml.");
    else if (qorGetLocalObjectsQuotaPct == QUOTA_FREE)
        QORLOG(LOG_NOTE, "Get local objects cost will not be controlled.");
}

void QorStoreJvmTexts(JNIEnv *env, const QorStartArguments *arguments) {
    QorCopyJavaString(env, arguments->version, vers, VERSION_SIZE);
    QorCopyJavaString(env, arguments->vendor, vend, VENDOR_SIZE);
    gbIbmJvm = strstr(vend, "IBM") != nullptr;
    os_name[0] = 0;
    QorCopyJavaString(env, arguments->osName, os_name, OS_NAME_SIZE);
    gbNimbJvm = IsNimbJvm(os_name);
    QorStrncat(os_name, " (64 bit)", OS_NAME_SIZE);
}

void QorOpenLog(JNIEnv *env, jstring destination) {
    if (!QorCopyJavaString(env, destination, LOG_FILE, sizeof LOG_FILE))
        QorStrncpy(LOG_FILE, "stdout", sizeof LOG_FILE, STREAM_NAME_LENGTH);
    if (strncmp(LOG_FILE, "stdout", STREAM_NAME_LENGTH) == 0) {
        LogToStdout();
    } else if (strncmp(LOG_FILE, "stderr", STREAM_NAME_LENGTH) == 0) {
        SwitchLog(nullptr, ""); // the first line makes it stderr
        QORLOG(LOG_NOTE, "Log File is stderr");
    } else {
        LogToFile(LOG_FILE);
    }
    QORLOG(LOG_DETAIL, "libqoragent text start addr: 0x%lx", FirstCodeAddress());
}

void QorStoreServerTexts(JNIEnv *env, const QorStartArguments *arguments) {
    QorCopyJavaString(env, arguments->jvmId, ext_jvm_id_str, JVM_ID_SIZE);
    webserver[0] = 0;
    QorCopyJavaString(env, arguments->webserver, webserver, WEBSERVER_SIZE);
}
