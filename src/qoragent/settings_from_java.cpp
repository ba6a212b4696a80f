#include "settings_from_java.h"

#include "agent_state.h"
#include "vendor.h"

#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorsettings.h"

#include "jvmti/ValueText.h"
#include "platforms/linux.h"

#include <cstring>
#include <dlfcn.h>
#include <link.h>

namespace {

constexpr int STREAM_NAME_LENGTH = 6; // "stdout" and "stderr" are known by their first bytes
constexpr int QUOTA_OFF = 0, QUOTA_FREE = 100;

constexpr int BCI_LEVEL = 9;

// The agent's own file that is the log, and the one before it: a Java thread may still be writing its line
// there, so it is closed one start later.
FILE *ownLog, *replacedLog;

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

// Makes `own`, or a standard stream where that is null, the log.
void SwitchLog(FILE *own, FILE *standard) {
    __atomic_store_n(&fpLogFile, own ? own : standard, __ATOMIC_SEQ_CST);
    if (replacedLog)
        fclose(replacedLog);
    replacedLog = ownLog;
    ownLog = own;
}

FILE *OpenOwnLog(const char *path) {
    int32_t fd = qor_open_append(path);
    FILE *file = fd < 0 ? nullptr : fdopen(fd, "a");
    if (!file)
        qor_close_handle(&fd);
    return file;
}

// Anew at each start, also under the same name: the file may have been moved away since.
void LogToFile(const char *path) {
    FILE *file = OpenOwnLog(path);
    SwitchLog(file, stdout);
    if (file)
        QORLOG(LOG_NOTE, "Log File is %s", path);
    else
        QORLOG(LOG_NOTE, "Failed to open the log fille. Setting defualt to STDOUT");
}

} // namespace

bool QorCopyJavaString(JNIEnv *env, jstring source, char *dest, int32_t size) {
    return QorReadString(env, source, dest, size, BLANK_NOTHING) >= 0;
}

void QorStoreLevel(int32_t level, int32_t bciLevel, QorLogThreshold usual) {
    gbiOptimizationLevel = level;
    gbQorSkipLocal = level == 3 || level == 9;
    if (level == bciLevel)
        QORLOG(LOG_NOTE, "BCI Mode is enabled. All Local would be fetched through BCI");
    else if (gbQorSkipLocal)
        QORLOG(LOG_NOTE, "QORD agent is running in No local Mode.");
    else
        QORLOG(usual, "BCI Mode is Not enabled. All Local would be fetched through jvmti/re");
}

void QorStoreNumbers(const QorStartArguments *arguments) {
    qorloglevel = arguments->logLevel;
    qormaxbackoff = arguments->maxBackoff;
    QorStoreLevel(arguments->optimizationLevel, BCI_LEVEL, LOG_DETAIL);

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
    qorHandWalkQuotaPct = QOR_HAND_WALK_QUOTA; // a request sets another
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
        SwitchLog(nullptr, stdout);
        QORLOG(LOG_DETAIL, "Log File is stdout");
    } else if (strncmp(LOG_FILE, "stderr", STREAM_NAME_LENGTH) == 0) {
        SwitchLog(nullptr, nullptr); // the first line makes it stderr
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
