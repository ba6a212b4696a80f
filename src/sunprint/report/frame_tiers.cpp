#include "frame_tiers.h"

#include "sunprint/fields.h"
#include "sunprint/locals.h"
#include "sunprint/object_map.h"
#include "tier_tables.h"
#include "tier_values.h"

#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "reply/qorformat.h"

#include "Xtier/XtierInsert.h"
#include "Xtier/tiers/XtierQRF.h"
#include "Xtier/tiers/tier.h"
#include "direct_connections.h"
#include "qorutil/vm_heap.h"
#include "qorutil/vm_klass.h"
#include "qorutil/vm_reader.h"

#include <algorithm>
#include <cstring>

namespace {

enum : int32_t { LOCALS_TEXT_SIZE = 4096 };
constexpr int32_t GROOVY_INDEX_LIMIT = 1000;

QorThreadTiers record; // the worker's

bool Is(const char *wanted, const char *text) {
    return !wanted || strcmp(wanted, text) == 0;
}

bool Passes(const QorTierFrame &row, const QorFrameNames &names) {
    return Is(row.className, names.className) && Is(row.method, names.method) && Is(row.server, webserver);
}

uint64_t ObjectOf(const QorFrameInfo &frame, QorFrameObject object) {
    return object == OBJECT_RECEIVER ? frame.receiver : frame.arguments[object - OBJECT_LOCAL_1];
}

// ---- Remote calls

void ReadWait(const QorRemoteRow &row, const QorFrameInfo &frame, QorThreadTiers *tiers) {
    const uint64_t id = QorTierValue(row.id, ObjectOf(frame, row.object));
    const uint64_t port = QorTierValue(row.port, frame.receiver);
    const uint64_t host = QorTierValue(row.host, frame.receiver);
    if (!id || !port || !host)
        return;
    tiers->call.callId = static_cast<int32_t>(id);
    tiers->call.port = static_cast<int32_t>(port);
    QorTierHost(host, tiers->call.host, sizeof tiers->call.host);
}

void ReadServed(const QorRemoteRow &row, const QorFrameInfo &frame, QorThreadTiers *tiers) {
    if (!valid_oop(frame.receiver))
        return;
    tiers->servedCall = static_cast<int32_t>(QorTierValue(row.id, frame.receiver));
    tiers->clientPort = static_cast<int32_t>(QorTierValue(row.port, frame.receiver));
    QorTierHost(QorTierValue(row.host, frame.receiver), tiers->clientHost, sizeof tiers->clientHost);
}

void ReadRemote(const QorTierView &view, QorThreadTiers *tiers) {
    for (const QorRemoteRow &row : REMOTE_ROWS) {
        if (!Passes(row.frame, *view.names))
            continue;
        const uint64_t object = ObjectOf(*view.frame, row.object);
        if (row.role == REMOTE_WAITS && !tiers->call.host[0]) {
            ReadWait(row, *view.frame, tiers);
        } else if (row.role == REMOTE_TARGET && !tiers->call.jndiName[0]) {
            QorTierText(row.name, object, tiers->call.jndiName, FRAME_TEXT_SIZE);
        } else if (row.role == REMOTE_METHOD && !tiers->ejbMethod[0]) {
            QorTierText(row.name, object, tiers->ejbMethod, FRAME_TEXT_SIZE);
            QorTierClassName(QorTierValue(row.id, object), tiers->ejbClass, FRAME_TEXT_SIZE);
        } else if (row.role == REMOTE_SERVES && tiers->servedCall < 0) {
            ReadServed(row, *view.frame, tiers);
        }
        return;
    }
}

// ---- Web requests

// Text in an array of bytes, whose part begins at twice the offset.
bool ReadByteString(uint64_t string, char *out) {
    const uint64_t data = QorFieldOf(string, "data", "[B");
    const int64_t offset = static_cast<int32_t>(QorFieldOf(string, "offset", "I"));
    const int64_t length = static_cast<int32_t>(QorFieldOf(string, "length", "I"));
    if (!QorIsOfType(data, TYPE_TYPE_ARRAY) || offset < 0 || length < 1 ||
        2 * offset + length > QorInt32At(data + ARRAY_LENGTH))
        return false;
    const auto count = static_cast<size_t>(std::min<int64_t>(length, FRAME_TEXT_SIZE - 1));
    *out = 0;
    if (!QorPeek(data + ARRAY_ELEMENTS + 2 * static_cast<uint64_t>(offset), out, count))
        return false;
    out[count] = 0;
    std::replace(out, out + count, '\0', '?');
    QorMakeFit(out);
    return out[0] != 0;
}

bool ReadFromTable(uint64_t object, const char *key, char *out) {
    const uint64_t table = QorTierValue(JSERV_TABLE, object);
    return table && QorTierText("", search_hash_table(table, key), out, FRAME_TEXT_SIZE);
}

bool ReadUrl(const QorWebRow &row, const QorTierView &view, QorThreadTiers *tiers) {
    const uint64_t object = ObjectOf(*view.frame, row.object);
    switch (row.form) {
    case URL_BYTES:
        return ReadByteString(QorTierValue(row.url, object), tiers->url);
    case URL_HASH_TABLE:
        ReadFromTable(object, row.remoteAddress, tiers->remoteAddress);
        return ReadFromTable(object, row.url, tiers->url);
    default:
        break;
    }
    if (row.remoteAddress && !QorTierText(row.remoteAddress, object, tiers->remoteAddress, FRAME_TEXT_SIZE))
        QorTierText(FERRULE_PEER, object, tiers->remoteAddress, FRAME_TEXT_SIZE);
    return QorTierText(row.url, object, tiers->url, FRAME_TEXT_SIZE);
}

void ReadCatalinaUrl(const QorTierView &view, QorThreadTiers *tiers) {
    for (const char *request : CATALINA_REQUESTS) {
        const uint64_t object = QorTierValue(request, view.frame->arguments[0]);
        for (const char *url : CATALINA_URLS)
            if (object && QorTierText(url, object, tiers->url, FRAME_TEXT_SIZE))
                return;
    }
}

void ReadWeb(const QorTierView &view, QorThreadTiers *tiers) {
    if (!show_jsp_info || tiers->hasWebFrame)
        return;
    for (const char *server : CATALINA_SERVERS)
        if (Passes({server, SERVLET, SERVICE}, *view.names)) {
            tiers->hasWebFrame = true;
            ReadCatalinaUrl(view, tiers);
        }
    for (const QorWebRow &row : WEB_ROWS)
        if (!tiers->url[0] && Passes(row.frame, *view.names)) {
            tiers->hasWebFrame = true;
            ReadUrl(row, view, tiers);
        }
}

// ---- Databases

constexpr char CONNECTION_CLASS[] = "tessar.jdbc.driver.Q5DConnection";
constexpr char FERRULE_STATEMENT[] = "ferrule.jdbc.tessar.TessarImplStatement";
constexpr char FERRULE_CONNECTION[] = "ferrule.jdbc.tessar.TessarImplConnection";
constexpr char NATIVE_ACCESS[] = "tessar.jdbc.zdi8.ZDIDBAccess";

bool IsDriverFrame(const QorFrameRecord &frame, QorDirectDriver *driver) {
    if (strcmp(frame.className, FERRULE_STATEMENT) == 0)
        *driver = DRIVER_FERRULE_STATEMENT;
    else if (strcmp(frame.className, FERRULE_CONNECTION) == 0)
        *driver = DRIVER_FERRULE_CONNECTION;
    else if (IsDBRequestDataPresent(&frame))
        *driver = strncmp(frame.className, CONNECTION_CLASS, sizeof CONNECTION_CLASS - 1) == 0
                      ? DRIVER_CONNECTION
                      : DRIVER_STATEMENT;
    else
        return false;
    return true;
}

void KeepBlock(const QorDatabaseBlock &block, QorThreadTiers *tiers) {
    QorText text;
    QorTextStart(&text, tiers->databaseBlock, DETAIL_BLOCK_SIZE);
    QorAppendShortDatabaseBlock(&text, block);
    if (text.refused)
        QorTextCut(&text, 0);
}

void ReadDatabase(const QorTierView &view, const QorFrameRecord &frame, QorThreadTiers *tiers) {
    QorDirectDriver driver = DRIVER_STATEMENT;
    QorDatabaseBlock block;
    if (view.printed == 0 && strcmp(frame.className, NATIVE_ACCESS) == 0)
        tessar_thick_driver = 1;
    if (view.database && !tiers->databaseBlock[0] && IsDriverFrame(frame, &driver) &&
        QorFindDirectConnection(driver, view.frame->receiver, view.threadName, view.threadKey, &block))
        KeepBlock(block, tiers);
}

// ---- Frameworks

// A text by an object among the frame's locals.
template <size_t N>
bool ReadByLocal(const QorLocalName (&rows)[N], const QorFrameInfo &frame, char *out) {
    static char text[LOCALS_TEXT_SIZE];
    const bool wasCut = qorReplyIsCut;
    QorText locals;
    QorTextStart(&locals, text, sizeof text);
    PrintLocals({frame.kind, frame.fp, frame.pc, frame.sp, frame.method, true}, &locals, nullptr);
    if (qorReplyIsCut && !wasCut)
        QORLOG(LOG_WARNING, "Critical Error :  Buffer Overflow Detected  for  : %s", rows[0].className);
    qorReplyIsCut = wasCut;
    for (const QorLocalName &row : rows) {
        const uint64_t object = parseMethodLocals(text, row.className);
        if (object && QorTierText(row.path, object, out, FRAME_TEXT_SIZE))
            return true;
    }
    return false;
}

void ReadCallSites(const QorFrameInfo &frame, QorThreadTiers *tiers) {
    QorJSPRequestData &sites = objQorJSPRequestData;
    sites.groovyCallSiteCount = 0;
    tiers->callSite = static_cast<int32_t>(QorTierValue(products::SITE_INDEX, frame.receiver));
    const uint64_t array = QorTierValue(products::SITE_ARRAY, frame.receiver);
    const int32_t length = QorIsOfType(array, TYPE_OBJ_ARRAY) ? QorInt32At(array + ARRAY_LENGTH) : 0;
    for (int32_t i = 0; i < length && i < GROOVY_CALL_SITES; i++) {
        const uint64_t site = QorWordAt(array + ARRAY_ELEMENTS + static_cast<uint64_t>(i) * VM_WORD_SIZE);
        char *const row = sites.groovyCallSites[sites.groovyCallSiteCount];
        if (QorTierText(products::SITE_NAME, site, row, GROOVY_LINE_SIZE))
            sites.groovyCallSiteCount++;
    }
}

// A script's text with its line ends; it is searched, never shown.
bool ReadScript(uint64_t string, char *out) {
    uint16_t chars[256];
    const uint64_t value = QorWordAt(string + STRING_VALUE);
    const int64_t count = QorInt32At(string + STRING_COUNT), offset = QorInt32At(string + STRING_OFFSET);
    if (!QorIsInstanceOf(string, "java/lang/String") || !QorIsOfType(value, TYPE_TYPE_ARRAY) || count < 0 ||
        offset < 0 || offset + count > QorInt32At(value + ARRAY_LENGTH))
        return false;
    if (count >= GROOVY_SCRIPT_SIZE) {
        QORLOG(LOG_NOTE, "Qor Agent Error:  String Name is big %d", static_cast<int32_t>(count));
        return false;
    }
    for (int64_t done = 0; done < count;) {
        const int64_t part = std::min<int64_t>(count - done, sizeof chars / sizeof *chars);
        if (!QorPeek(value + ARRAY_ELEMENTS + static_cast<uint64_t>(offset + done) * sizeof *chars, chars,
                     static_cast<size_t>(part) * sizeof *chars))
            return false;
        for (int64_t i = 0; i < part; i++)
            out[done + i] = chars[i] > 0 && chars[i] < 128 ? static_cast<char>(chars[i]) : '?';
        done += part;
    }
    out[count] = 0;
    return true;
}

void FindScriptLine(const QorFrameInfo &frame, QorThreadTiers *tiers) {
    QorJSPRequestData &script = objQorJSPRequestData;
    if (tiers->callSite < 0 || tiers->line != 0 ||
        !ReadScript(QorTierValue(products::SCRIPT_TEXT, frame.receiver), script.groovyScript))
        return;
    tiers->line = getGroovyCurrentLineNo(script.groovyScript, script.groovyCallSites,
                                         script.groovyCallSiteCount, tiers->callSite, GROOVY_INDEX_LIMIT);
}

void ReadPage(const QorFrameInfo &frame, QorThreadTiers *tiers) {
    char *const page = tiers->page;
    if (!page[0] && (!ReadByLocal(PAGE_LOCALS, frame, page) || !strstr(page, PAGE_WORD)))
        page[0] = 0;
}

QorFramework ReadFramework(const QorFrameRecord &record, const QorFrameInfo &frame, char *name) {
    const uint64_t object = frame.receiver;
    if (is_eo_frame(&record) && QorTierText(products::ENTITY_NAME, object, name, FRAME_TEXT_SIZE))
        return FRAMEWORK_ENTITY;
    if (is_vo_frame(&record) && (QorTierText(products::VIEW_NAME, object, name, FRAME_TEXT_SIZE) ||
                                 ReadByLocal(VIEW_LOCALS, frame, name)))
        return FRAMEWORK_VIEW;
    if (isGroovyLineDataPresent(&record) && QorTierText(products::SITE_NAME, object, name, FRAME_TEXT_SIZE))
        return FRAMEWORK_GROOVY;
    if (isELExpDataPresent(&record) && QorTierText(products::EL_TEXT, object, name, FRAME_TEXT_SIZE))
        return FRAMEWORK_EL;
    return FRAMEWORK_NONE;
}

bool ReadFrameworks(const QorTierView &view, const QorFrameRecord &record, QorThreadTiers *tiers) {
    if (!valid_oop(view.frame->receiver))
        return false;
    if (is_jspx_frame(&record) || strcmp(record.className, PAGE_FILTER) == 0)
        ReadPage(*view.frame, tiers);
    if (isGroovyScriptDataPresent(&record))
        FindScriptLine(*view.frame, tiers);
    if (tiers->framework != FRAMEWORK_NONE)
        return false;
    tiers->framework = ReadFramework(record, *view.frame, tiers->frameworkName);
    if (tiers->framework == FRAMEWORK_GROOVY)
        ReadCallSites(*view.frame, tiers);
    return tiers->framework != FRAMEWORK_NONE;
}

} // namespace

QorThreadTiers *QorClearTiers() {
    record = {};
    record.servedCall = record.callSite = record.lineAt = -1;
    record.framework = FRAMEWORK_NONE;
    tessar_thick_driver = 0;
    return &record;
}

bool QorReadTiers(const QorTierView &view, QorThreadTiers *tiers) {
    QorFrameRecord frame = {};
    frame.className = view.names->className;
    frame.method = view.names->method;
    frame.fileName = view.names->file;
    ReadRemote(view, tiers);
    ReadWeb(view, tiers);
    ReadDatabase(view, frame, tiers);
    return ReadFrameworks(view, frame, tiers);
}

bool QorWaitsForRemoteCall(const QorFrameNames &names) {
    for (const QorRemoteRow &row : REMOTE_ROWS)
        if (row.role == REMOTE_WAITS && Passes(row.frame, names))
            return true;
    return false;
}

void QorUseKnownConnection(const char *threadName, const char *threadKey, QorThreadTiers *tiers) {
    QorDatabaseBlock block;
    if (!tiers->databaseBlock[0] && QorKnownConnectionOf(threadName, threadKey, &block))
        KeepBlock(block, tiers);
}

bool QorHasContextIds() {
    for (const QorContextPath &row : CONTEXT_PATHS)
        if (strcmp(row.server, webserver) == 0)
            return true;
    return false;
}

uint64_t getContextId(uint64_t thread) {
    for (const QorContextPath &row : CONTEXT_PATHS)
        if (strcmp(row.server, webserver) == 0)
            return ParseObjectMap(row.path, thread);
    return 0;
}
