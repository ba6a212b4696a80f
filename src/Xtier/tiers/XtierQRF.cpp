#include "XtierQRF.h"

#include "ObjectMap.h"
#include "ValueText.h"
#include "Xtier/walk/LocalWalk.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/Session.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "tier.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr jint FRAME_REFERENCES = 16; // every reader drops what it gets on the way
constexpr int32_t MAX_LINE_ENDS = 999;

// Objects that bear a name, or hold one that does.
struct NameRow {
    const char *signature;
    const char *path; // object map
};

// The object of an entity frame is not the event that marks it but the local next to it.
constexpr char ENTITY_MARK[] = "Ltessar/kvo/server/TransactionEvent;";
constexpr NameRow OBJECT_NAMES[] = {
    {"Ltessar/kvo/server/ViewObjectImpl;",
     "mViewDef,Ltessar/kvo/server/ViewDefImpl;|mObjName,Ljava/lang/String;"},
    {"Ltessar/kvo/server/ViewAttributeDefImpl;",
     "mDef,Ltessar/kvo/server/RowDef;|mObjName,Ljava/lang/String;"},
    {ENTITY_MARK, "mEbi,Ltessar/kvo/server/EntityDefImpl;|mObjName,Ljava/lang/String;"},
};

constexpr NameRow PAGE_NAMES[] = {
    {"Ltessar/qrfinternal/controller/state/ChildViewPortContextImpl;",
     "mParent,Ltessar/qrfinternal/controller/state/ViewPortContextImpl;|"
     "mCachedPhysicalUri,Ljava/lang/String;"},
    {"Lferrule/servlet/internal/RequestEventsFilter$EventsRequestWrapper;",
     "request,Ljavax/servlet/ServletRequest;|servletPath,Ljava/lang/String;"},
};

constexpr char EL_TEXT[] = "expr,Ljava/lang/String;";
constexpr char GROOVY_SCRIPT[] = "mExprStr,Ljava/lang/String;";
constexpr char GROOVY_NAME[] = "name,Ljava/lang/String;"; // of the site being run, and of each in the array
constexpr char GROOVY_SITES[] = "array,Lorg/codehaus/groovy/runtime/callsite/CallSiteArray;|"
                                "array,[Lorg/codehaus/groovy/runtime/callsite/CallSite;";

template <size_t N>
const NameRow *FindRow(const NameRow (&rows)[N], const char *signature) {
    for (const NameRow &row : rows)
        if (strcmp(row.signature, signature) == 0)
            return &row;
    return nullptr;
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
    const NameRow *row = FindRow(OBJECT_NAMES, entry->strSignature);
    if (!row)
        return;
    char *name = record->qrfObjectName;
    if (QorReadStringByMap(row->path, entry->objLocalVarHandle, name, sizeof record->qrfObjectName) < 0)
        QORLOG_RATIONED(LOG_ERROR, "qrfObj is NULL ");
    else if (row->signature == ENTITY_MARK)
        QORLOG(LOG_DETAIL, "QRF Entity Object Name : %s ", name);
    else
        QORLOG(LOG_DETAIL, "QRF Vo Object Name : %s ", name);
}

void ReadElExpression(const QorAllThreadLocalInfoList *entry, QorJSPRequestData *record) {
    if (!entry->objLocalVarHandle)
        QORLOG_RATIONED(LOG_ERROR, "QRF EL frame objLocal is NULL");
    else if (!isQRFELFrameObject(entry->strSignature))
        QORLOG_RATIONED(LOG_ERROR, "QRF EL frame objEL Obj is NULL");
    else if (QorReadStringByMap(EL_TEXT, entry->objLocalVarHandle, record->elExpression,
                                sizeof record->elExpression) < 0)
        QORLOG_RATIONED(LOG_ERROR, "EL Object is NULL");
    else
        QORLOG(LOG_DETAIL, "QRF EL Script : %s", record->elExpression);
}

// The script never gets into a reply, and its lines are counted: it keeps its line ends.
void ReadScript(jobject object, QorJSPRequestData *record) {
    jobject text = QorFollowObjectMap(GROOVY_SCRIPT, object);
    if (!text) {
        QORLOG_RATIONED(LOG_ERROR, "Groovy Object is NULL");
        return;
    }
    bool cut = false;
    QorCopyStringText(static_cast<jstring>(text), record->groovyScript, sizeof record->groovyScript, &cut);
    QORLOG(LOG_DETAIL, "QRF Groovy Script : %s", record->groovyScript);
    QorDeleteLocalRef(jvmtijni_env, text);
}

void ReadCurrentLine(jobject object, QorJSPRequestData *record) {
    if (QorReadStringByMap(GROOVY_NAME, object, record->groovyCurrentLine, sizeof record->groovyCurrentLine) <
        0) {
        QORLOG_RATIONED(LOG_ERROR, "QRF  Groovy groovyCurrLineOb is NULL");
        return;
    }
    int32_t index = 0;
    record->groovyCurrentIndex = QorGetIntObjectField(object, "index", "I", &index) == 0 ? index : -1;
    QORLOG(LOG_DETAIL, "QRF Groovy Script Current Line : %s index = %d", record->groovyCurrentLine,
           record->groovyCurrentIndex);
    jobject sites = QorFollowObjectMap(GROOVY_SITES, object);
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
        ReadScript(object, record);
    } else if (isQRFGroovyCurrentLineFrameObject(entry->strSignature)) {
        ReadCurrentLine(object, record);
    }
}

// The first `maxIndex` + 1 names, each looked for behind the one before: the place behind the last one found.
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
    const NameRow *row = FindRow(PAGE_NAMES, entry->strSignature);
    if (!row)
        return;
    QorLocalFrame frame(jvmtijni_env, FRAME_REFERENCES);
    char found[REQUEST_TEXT_SIZE];
    if (QorReadStringByMap(row->path, entry->objLocalVarHandle, found, sizeof found) < 0) {
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
        if (QorReadStringByMap(GROOVY_NAME, site, row, GROOVY_LINE_SIZE) == 0) {
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

int32_t getQRFData(const QorThreadRecord *thread, const QorFrameRecord *frame, const char *map, char *dest) {
    if (!thread || !frame || !map || !dest) {
        QORLOG(LOG_TRACE,
               "QorGetDBReuestDataFromLOcalVariable : ptrThrInfo or QorFrameExtractedInfoObj is NULL");
        return -1;
    }
    QorLocalFrame references(jvmtijni_env, FRAME_REFERENCES);
    QorLocalObjectRecord local;
    if (!references.pushed || QorGetLocalObject(thread->tid, frame->methodId, &local) < 0 || !local.object)
        QORLOG_RATIONED(LOG_ERROR, "Qor Agent Error: Not able to get Local Object for map %s", map);
    else if (QorReadStringByMap(map, local.object, dest, REQUEST_TEXT_SIZE) < 0)
        QORLOG_RATIONED(LOG_ERROR, "Qor Agent : Error Not able to get String Object for map %s", map);
    return 0;
}
