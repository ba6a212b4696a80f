#include "JvmtiCalls.h"

#include "JniCalls.h"
#include "Session.h"
#include "qorlog.h"
#include "trycatch.h"

void describe(jvmtiError error) {
    char *name = nullptr;
    if (jvmti && jvmti->GetErrorName(error, &name) == JVMTI_ERROR_NONE && name) {
        QORLOG(LOG_NOTE, "  Error is : %s", name);
        jvmti->Deallocate(reinterpret_cast<unsigned char *>(name));
    } else {
        QORLOG(LOG_NOTE, "  error [%d]", error);
    }
}

int32_t QorIsClassInitialized(jclass klass) {
    if (!klass)
        return 0;
    if (QorIsSameObject(jvmtijni_env, klass, nullptr)) {
        QORLOG(LOG_NOTE, "  QorIsClassInitialized IsSameObject class got is NULL");
        return 0;
    }
    jint status = 0;
    volatile jvmtiError error = JVMTI_ERROR_INTERNAL;
    TRYCATCH_OPEN();
    if (tryState == TRY_RUNNING)
        error = jvmti->GetClassStatus(klass, &status);
    if (tryState == TRY_FAULTED) {
        tryState = TRY_OFF;
        QORLOG(LOG_ERROR, "SEGV in GetClassStatus");
        return 0;
    }
    tryState = TRY_OFF;
    if (error == JVMTI_ERROR_WRONG_PHASE)
        return 0;
    if (error != JVMTI_ERROR_NONE) {
        QORLOG(LOG_ERROR, "  Error in GetClassStatus %d", error);
        return 0;
    }
    if ((status & JVMTI_CLASS_STATUS_ERROR) != 0) {
        QORLOG(LOG_ERROR, "  Error during initialization makes class unusable");
        return 0;
    }
    return (status & JVMTI_CLASS_STATUS_INITIALIZED) != 0 ? 1 : 0;
}
