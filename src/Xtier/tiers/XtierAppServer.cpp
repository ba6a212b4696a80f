#include "XtierAppServer.h"

#include "ObjectMap.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/Session.h"
#include "qorlog.h"

#include <cstring>

namespace {

constexpr jint FRAME_REFERENCES = 1024;

constexpr char EXECUTE_THREAD[] = "Lferrule/work/ExecuteThread;";
constexpr char WORK_MANAGER[] = "workManager,Lferrule/work/SelfTuningWorkManagerImpl;";
constexpr char STUCK_MARK[] = "[STUCK]"; // what the server puts in front of the name of a stuck thread

constexpr char REQUEST[] = "Lferrule/servlet/internal/ServletRequestImpl;";
constexpr char REQUEST_METHOD[] = "execute"; // the frames in which a request tells its session
constexpr char SESSION_ID[] = "sessionHelper,Lferrule/servlet/internal/ServletRequestImpl$SessionHelper;|"
                              "sessionID,Ljava/lang/String;";

// 1 or 0, -1 when there is no such field.
int32_t ReadFlag(jobject object, const char *field) {
    jboolean value = JNI_FALSE;
    return QorGetBooleanObjectField(object, field, "Z", &value) == 0 ? value : -1;
}

void ReadExecuteThread(const QorAllThreadLocalInfoList *entry, QorAppServerCallData *record) {
    jobject thread = entry->objLocalVarHandle;
    record->stuck = ReadFlag(thread, "stuckThread");
    if (record->stuck < 0 && strncmp(entry->threadName, STUCK_MARK, strlen(STUCK_MARK)) == 0)
        record->stuck = 1;
    record->hogger = ReadFlag(thread, "isHogger");
    jobject manager = QorFollowObjectMap(WORK_MANAGER, thread);
    if (manager) {
        QorReadStringByMap("applicationName,Ljava/lang/String;", manager, record->applicationName,
                           SERVER_TEXT_SIZE);
        QorReadStringByMap("moduleName,Ljava/lang/String;", manager, record->moduleName, SERVER_TEXT_SIZE);
        QorReadStringByMap("wmName,Ljava/lang/String;", manager, record->wmName, SERVER_TEXT_SIZE);
    }
    QORLOG(LOG_TRACE, " AppServer Data stuck %d Hogger %d applicationName %s moduleName %s wmName %s",
           record->stuck, record->hogger, record->applicationName, record->moduleName, record->wmName);
}

} // namespace

int32_t QorGetAppServerCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry,
                                                 QorAppServerCallData *record) {
    if (!entry || !record)
        return -1;
    if (!entry->objLocalVarHandle) {
        QORLOG(LOG_TRACE, "QorGetAppServerCallDataFromLocalVariable : Obj Null");
        return 0;
    }
    QorLocalFrame frame(jvmtijni_env, FRAME_REFERENCES);
    if (strcmp(entry->strSignature, EXECUTE_THREAD) == 0) {
        ReadExecuteThread(entry, record);
    } else if (strcmp(entry->strSignature, REQUEST) == 0 && strcmp(entry->methodName, REQUEST_METHOD) == 0) {
        QorReadStringByMap(SESSION_ID, entry->objLocalVarHandle, record->sessionId, SERVER_TEXT_SIZE);
        QORLOG(LOG_TRACE, "Qor Agent Session Id %s", record->sessionId);
    }
    return 0;
}
