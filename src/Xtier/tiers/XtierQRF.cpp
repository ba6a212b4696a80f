#include "XtierQRF.h"

#include "TierReader.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "products.h"
#include "qorStrUtils.h"
#include "qorlog.h"

#include <cstring>

namespace {

constexpr jint FRAME_REFERENCES = 16; // every reader drops what it gets on the way
constexpr int32_t MAX_LINE_ENDS = 999;

int32_t Read(const QorAllThreadLocalInfoList &entry, QorTierRecord kind, QorJSPRequestData *record) {
    return QorReadByTables(entry.objLocalVarHandle, entry.strSignature, entry.methodName, kind, record);
}

void ReadObjectName(const QorAllThreadLocalInfoList *entry, QorJSPRequestData *record) {
    if (!entry->objLocalVarHandle) {
        const QorFrameRecord frame = QorFrameOfEntry(entry);
        if (is_eo_frame(&frame))
            QORLOG_RATIONED(LOG_ERROR, "qrf frame EO Obj is NULL ");
        else
            QORLOG_RATIONED(LOG_ERROR, "qrf frame VO Obj is NULL ");
        return;
    }
    const int32_t found = Read(*entry, RECORD_NAME, record);
    if (found < 0)
        QORLOG_RATIONED(LOG_ERROR, "qrfObj is NULL ");
    else if (found > 0 && IsQRFEoFrameObject(entry->strSignature))
        QORLOG(LOG_DETAIL, "QRF Entity Object Name : %s ", record->qrfObjectName);
    else if (found > 0)
        QORLOG(LOG_DETAIL, "QRF Vo Object Name : %s ", record->qrfObjectName);
}

void ReadElExpression(const QorAllThreadLocalInfoList *entry, QorJSPRequestData *record) {
    if (!entry->objLocalVarHandle)
        QORLOG_RATIONED(LOG_ERROR, "QRF EL frame objLocal is NULL");
    else if (!isQRFELFrameObject(entry->strSignature))
        QORLOG_RATIONED(LOG_ERROR, "QRF EL frame objEL Obj is NULL");
    else if (Read(*entry, RECORD_EXPRESSION, record) < 0)
        QORLOG_RATIONED(LOG_ERROR, "EL Object is NULL");
    else
        QORLOG(LOG_DETAIL, "QRF EL Script : %s", record->elExpression);
}

// The script never gets into a reply, and its lines are counted: it keeps its line ends.
void ReadScript(const QorAllThreadLocalInfoList &entry, QorJSPRequestData *record) {
    if (Read(entry, RECORD_SCRIPT, record) < 0)
        QORLOG_RATIONED(LOG_ERROR, "Groovy Object is NULL");
    else
        QORLOG(LOG_DETAIL, "QRF Groovy Script : %s", record->groovyScript);
}

// The name of the call being run, its number and the script's calls.
void ReadCurrentLine(jobject object, QorJSPRequestData *record) {
    if (QorReadStringByMap(products::SITE_NAME, object, record->groovyCurrentLine,
                           sizeof record->groovyCurrentLine) < 0) {
        QORLOG_RATIONED(LOG_ERROR, "QRF  Groovy groovyCurrLineOb is NULL");
        return;
    }
    const QorPathEnd index = QorFollowPath(products::SITE_INDEX, object, PATH_LOGGED);
    QorStoreValue(FORM_NUMBER_OR_NONE, index, object, &record->groovyCurrentIndex, sizeof(int32_t));
    QORLOG(LOG_DETAIL, "QRF Groovy Script Current Line : %s index = %d", record->groovyCurrentLine,
           record->groovyCurrentIndex);
    jobject sites = QorFollowObjectMap(products::SITE_ARRAY, object);
    if (sites)
        parseGroovyArray(static_cast<jobjectArray>(sites), record);
    else
        QORLOG_RATIONED(LOG_ERROR, "QRF Groovy objGroovyArray is NULL");
    QorDeleteLocalRef(jvmtijni_env, sites);
}

void ReadGroovy(const QorAllThreadLocalInfoList *entry, QorJSPRequestData *record) {
    jobject object = entry->objLocalVarHandle;
    if (!object) {
        const QorFrameRecord frame = QorFrameOfEntry(entry);
        if (isGroovyScriptDataPresent(&frame))
            QORLOG_RATIONED(LOG_ERROR, "QRF Groovy frame objGroovy Obj is NULL");
        else
            QORLOG_RATIONED(LOG_ERROR, "QRF Groovy frame Obj is NULL");
    } else if (isQRFGroovyScripFrameObject(entry->strSignature)) {
        ReadScript(*entry, record);
    } else if (isQRFGroovyCurrentLineFrameObject(entry->strSignature)) {
        ReadCurrentLine(object, record);
    }
}

// The first `maxIndex` + 1 names, each looked for after the one before: the place after the last one found.
const char *FollowCallSites(const char *script, const char (*callSites)[GROOVY_LINE_SIZE], int32_t rows,
                            int32_t maxIndex) {
    const char *cursor = script;
    for (int32_t i = 0; i <= maxIndex && i < rows; i++) {
        if (const char *found = strstr(cursor, callSites[i]))
            cursor = found + strlen(callSites[i]);
        else
            QORLOG(LOG_DETAIL, "QRF Groovy : No Location Found for Line : %s\n", callSites[i]);
    }
    return cursor;
}

} // namespace

void QorReadFrameworkEntry(const QorAllThreadLocalInfoList *entry, QorJSPRequestData *record) {
    if (!entry || !record)
        return;
    QorLocalFrame frame(jvmtijni_env, FRAME_REFERENCES);
    switch (entry->kind) {
    case LOCAL_VIEW_OR_ENTITY:
        ReadObjectName(entry, record);
        break;
    case LOCAL_EL_EXPRESSION:
        ReadElExpression(entry, record);
        break;
    case LOCAL_GROOVY:
        ReadGroovy(entry, record);
        break;
    default:
        break;
    }
}

void QorReadPageName(const QorAllThreadLocalInfoList *entry, char *name) {
    if (!entry || !name || entry->kind != LOCAL_WEB_REQUEST)
        return;
    if (!entry->objLocalVarHandle) {
        QORLOG(LOG_NOTE, "qrf frame jspx Obj is NULL ");
        return;
    }
    QorLocalFrame frame(jvmtijni_env, FRAME_REFERENCES);
    char found[REQUEST_TEXT_SIZE];
    const int32_t result =
        QorReadByTables(entry->objLocalVarHandle, entry->strSignature, entry->methodName, RECORD_PAGE, found);
    if (result == 0)
        return;
    if (result < 0) {
        QORLOG(LOG_NOTE, "qrf Obj is NULL ");
        return;
    }
    QORLOG(LOG_DETAIL, "QRF Object Name here is %s ", found);
    if (*found)
        QorStrncpy(name, found, REQUEST_TEXT_SIZE, REQUEST_TEXT_SIZE);
}

void parseGroovyArray(jobjectArray array, QorJSPRequestData *record) {
    QorLocalFrame frame(jvmtijni_env, FRAME_REFERENCES);
    if (!frame.pushed)
        QORLOG(LOG_ERROR, " QorGetMemory Out of Memory");
    const jsize length = QorGetArrayLength(jvmtijni_env, array);
    QORLOG(LOG_DETAIL, "QRF Groovy Array Element Length : %d", length);
    if (length < 1) {
        QORLOG_RATIONED(LOG_ERROR, "QRF Groovy Array Length is 0");
        return;
    }
    int32_t &rows = record->groovyCallSiteCount;
    for (jsize i = 0; i < length && i < GROOVY_CALL_SITES && rows < GROOVY_CALL_SITES; i++) {
        jobject site = QorGetObjectArrayElement(jvmtijni_env, array, i);
        if (!site) {
            QORLOG_RATIONED(LOG_ERROR, "QRF Groovy objArrayElement is NULL");
            continue;
        }
        char *row = record->groovyCallSites[rows];
        if (QorReadStringByMap(products::SITE_NAME, site, row, GROOVY_LINE_SIZE) == 0) {
            QORLOG(LOG_DETAIL, "QRF Groovy Script Line : %s", row);
            rows++;
        } else {
            QORLOG_RATIONED(LOG_ERROR, "QRF  Groovy objArrayElementID is NULL");
        }
        QorDeleteLocalRef(jvmtijni_env, site);
    }
}

int32_t getGroovyCurrentLineNo(const char *script, const char (*callSites)[GROOVY_LINE_SIZE], int32_t rows,
                               int32_t maxIndex, int32_t indexLimit) {
    QORLOG(LOG_DETAIL, "QRF getGroovyCurrentLineNo \n groovyScript : %s \nmaxIndex : %d indexLimit : %d",
           script ? script : "", maxIndex, indexLimit);
    if (!script)
        return maxIndex;
    if (maxIndex > indexLimit)
        return 1;
    const char *cursor = FollowCallSites(script, callSites, rows, maxIndex);
    if (cursor == script)
        return 1;
    const char *lineStart = script;
    for (int32_t line = 1; line <= MAX_LINE_ENDS; line++) {
        const char *lineEnd = strchr(lineStart, '\n');
        if (!lineEnd)
            return maxIndex + 1; // in the last line, which has no end
        if (lineEnd >= cursor) {
            QORLOG(LOG_DETAIL, "QRF Groovy : Index %d", line);
            return line;
        }
        lineStart = lineEnd + 1;
    }
    QORLOG(LOG_DETAIL, "Error: Groovy Script contains more than 1000 lines ");
    return maxIndex;
}
