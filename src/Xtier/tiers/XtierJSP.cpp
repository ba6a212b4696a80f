#include "XtierJSP.h"

#include "TierReader.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "qorlog.h"

namespace {

constexpr jint FRAME_REFERENCES = 1024;

} // namespace

int32_t QorGetJSPRequestDataFromLocalVariable(const QorAllThreadLocalInfoList *entry,
                                              QorJSPRequestData *record) {
    if (!entry) {
        QORLOG(LOG_ERROR, "QorGetJSPRequestDataFromLocalVariable : ptrQorAllThreadLocalInfoList NULL");
        return -1;
    }
    if (!record) {
        QORLOG(LOG_ERROR, "QorGetJSPRequestDataFromLocalVariable : ptrQorJSPRequestData NULL");
        return -1;
    }
    if (!entry->objLocalVarHandle)
        return 0;
    QorLocalFrame frame(jvmtijni_env, FRAME_REFERENCES);
    if (!frame.pushed)
        QORLOG(LOG_ERROR, "QorAgent : Out of Memory XtierJSP");
    if (QorReadByTables(entry->objLocalVarHandle, entry->strSignature, entry->methodName, RECORD_WEB,
                        record) != 0)
        record->requestDetail[0] = 0;
    return 0;
}
