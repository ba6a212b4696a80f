#include "Xtier.h"

#include "ConnectionCache.h"
#include "LocalWalk.h"
#include "LocalWalkTimes.h"
#include "ReadAtOnce.h"
#include "Xtier/tiers/LocalList.h"
#include "Xtier/tiers/XtierCalls.h"
#include "Xtier/tiers/XtierDb.h"
#include "Xtier/tiers/XtierJSP.h"
#include "Xtier/tiers/XtierQRF.h"
#include "Xtier/tiers/XtierRules.h"
#include "Xtier/tiers/tier.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qortiers.h"
#include "thread_e2e_info.h"

#include <cstring>

namespace {

constexpr jint ENTRY_FRAME_CAPACITY = 1024;
constexpr char FRAMEWORK_URL[] = "/faces";                            // says nothing: every page has it
constexpr char FRAMEWORK_VIEW_PACKAGE[] = "tessar.qrfinternal.view."; // of its web frames

// The lists of the current sample.
QorAllThreadLocalInfoList *localList;
QorAllThreadLocalInfoList *threadMark; // head of the list before the current thread
QorXtierLocationInfo *firstLocation, *lastLocation;

// The records of the current thread, beside objQorJSPRequestData.
struct CallRecords {
    QorDBRequestData database;
    QorRmiCallData rmi;
    QorIOCallData file;
    QorNetworkCallData network;
    QorAppServerCallData server;
    char pageName[REQUEST_TEXT_SIZE];
    QorRuleRecords byRules;
    bool rulesAreRead; // of a thread that is read at once
};
CallRecords calls;

void ClearRecords() {
    QorClearDBRequestData(&calls.database);
    QorClearJSPRequestData(&objQorJSPRequestData);
    QorClearRmiCallData(&calls.rmi);
    QorClearIOCallData(&calls.file);
    QorClearNetworkCallData(&calls.network);
    QorClearAppServerCallData(&calls.server);
    calls.pageName[0] = 0;
    QorClearRuleRecords(&calls.byRules);
    calls.rulesAreRead = false;
}

// What is shown of each kind: the tables' record, or else that of the rules as a whole.
QorDBRequestData *ShownDatabase() {
    return !QorIsKnownDatabase(calls.database) && QorIsKnownDatabase(calls.byRules.database)
               ? &calls.byRules.database
               : &calls.database;
}

const QorRmiCallData &ShownRmi() {
    return !calls.rmi.host[0] && calls.byRules.rmi.host[0] ? calls.byRules.rmi : calls.rmi;
}

bool HasServer() {
    const QorAppServerCallData &server = calls.server;
    return server.stuck != -1 || server.hogger != -1 || server.applicationName[0] || server.moduleName[0] ||
           server.wmName[0] || server.sessionId[0];
}

// Without a frame of their own the references stay with the view's.
void TellMissingFrame(const QorLocalFrame &frame) {
    if (!frame.pushed)
        QORLOG(LOG_ERROR, "QorAgent : Out of Memory XtierDb");
}

void ReadWebEntry(const QorAllThreadLocalInfoList &entry) {
    char *url = objQorJSPRequestData.requestUrl;
    if (url[0])
        return;
    QorReadPageName(&entry, calls.pageName);
    QorGetJSPRequestDataFromLocalVariable(&entry, &objQorJSPRequestData);
    const bool saysNothing = !url[0] || strncmp(url, FRAMEWORK_URL, sizeof FRAMEWORK_URL - 1) == 0;
    if (saysNothing && calls.pageName[0])
        QorStrncpy(url, calls.pageName, REQUEST_TEXT_SIZE, REQUEST_TEXT_SIZE);
}

void ReadDatabaseEntry(const QorAllThreadLocalInfoList &entry) {
    if (QorIsKnownDatabase(calls.database))
        return;
    tessar_thick_driver = entry.thickDriver;
    QorGetDBRequestDataFromLocalVariable(&entry, &calls.database);
}

bool EndsWith(const char *text, const char *end) {
    const size_t length = strlen(text), endLength = strlen(end);
    return length >= endLength && strcmp(text + length - endLength, end) == 0;
}

// Reads a thread by the rules, after the tables. Their URL is the container's own: one that only lacks the
// application's path gives way to it.
void ReadByRules(const QorAllThreadLocalInfoList *newest, int64_t threadId) {
    char *url = objQorJSPRequestData.requestUrl;
    QorRuleRecords &rules = calls.byRules;
    QorReadThreadByRules(newest, threadId, &rules);
    if (rules.url[0] && EndsWith(rules.url, url))
        QorStrncpy(url, rules.url, REQUEST_TEXT_SIZE, REQUEST_TEXT_SIZE);
    else
        rules.kindsByRead &= ~TIER_WEB;
    if (ShownDatabase() != &rules.database)
        rules.kindsByRead &= ~TIER_DB;
    if (&ShownRmi() != &rules.rmi)
        rules.kindsByRead &= ~TIER_RMI;
    if (calls.file.fd > 0)
        rules.kindsByRead &= ~TIER_FILE;
    else if (rules.file[0])
        QorStrncpy(calls.file.fileName, rules.file, DB_URL_SIZE, DB_URL_SIZE);
}

// Hands the connection of the current thread to the cache.
void NoteConnection(const char *threadName, const char *threadKey) {
    QorDBRequestData *database = ShownDatabase();
    database->threadName[0] = database->threadKey[0] = 0;
    QorStrncpy(database->threadName, threadName, DB_THREAD_NAME_SIZE, DB_THREAD_NAME_SIZE);
    QorStrncpy(database->threadKey, threadKey, DB_THREAD_KEY_SIZE, DB_THREAD_KEY_SIZE);
    QorUpdateDbConnectionInfo(database);
}

void ReadEntry(const QorAllThreadLocalInfoList &entry) {
    switch (entry.kind) {
    case LOCAL_WEB_REQUEST:
        ReadWebEntry(entry);
        break;
    case LOCAL_DATABASE_CALL:
        ReadDatabaseEntry(entry);
        break;
    case LOCAL_BY_RULES:
        return;
    case LOCAL_VIEW_OR_ENTITY:
    case LOCAL_EL_EXPRESSION:
    case LOCAL_GROOVY:
        QorReadFrameworkEntry(&entry, &objQorJSPRequestData);
        break;
    case LOCAL_FILE_CALL:
        if (calls.file.fd <= 0)
            QorGetIOCallDataFromLocalVariable(&entry, &calls.file);
        break;
    case LOCAL_NETWORK_CALL:
        if (calls.network.fd <= 0)
            QorGetNetworkCallDataFromLocalVariable(&entry, &calls.network);
        break;
    default:
        break;
    }
    // The objects of these two may be in a frame that was listed for something else.
    if (!calls.rmi.host[0] || !calls.rmi.jndiName[0])
        QorGetRmiCallDataFromLocalVariable(&entry, &calls.rmi);
    QorGetAppServerCallDataFromLocalVariable(&entry, &calls.server);
}

void ReadThread(const QorXtierLocationInfo &location) {
    for (const QorAllThreadLocalInfoList *entry = location.newest;
         entry && entry->threadId == location.threadId; entry = entry->next)
        ReadEntry(*entry); // the readers report a missing object themselves
    ReadByRules(location.newest, location.threadId);
    if (QorIsKnownDatabase(*ShownDatabase()))
        NoteConnection(location.threadName, location.threadKey);
}

// Whether the row has a place for what comes by a rule known from sources alone.
bool ShowsReadRule(const QorXtierPositions &at) {
    const uint32_t kinds = calls.byRules.kindsByRead;
    return ((kinds & TIER_DB) && at.dbStart >= 0) || ((kinds & TIER_RMI) && at.rmiStart >= 0) ||
           ((kinds & TIER_WEB) && at.requestStart >= 0) || (kinds & TIER_FILE);
}

// Data that has no column goes to the Java side. The server's comes first, as it clears the file.
void HandToE2E(const QorXtierLocationInfo &location) {
    const int64_t thread = location.threadId;
    if (HasServer())
        QorInsertDataToE2EBuf(thread, LOCAL_APP_SERVER_CALL, calls.server, calls.file, calls.network);
    if (calls.file.fileName[0])
        QorInsertDataToE2EBuf(thread, LOCAL_FILE_CALL, calls.server, calls.file, calls.network);
    if (ShowsReadRule(location.at))
        QorMarkE2EByReadRule(thread);
    if (calls.network.fd > 0) {
        QORLOG(LOG_TRACE, "InsertDataToE2EBuf with thread ID %d Network Data %d %d %s\n",
               static_cast<int32_t>(thread), calls.network.fd, calls.network.port, calls.network.host);
        QorInsertDataToE2EBuf(thread, LOCAL_NETWORK_CALL, calls.server, calls.file, calls.network);
    }
}

QorFramework FrameworkOf(uint32_t kinds) {
    return kinds & FRAME_ENTITY ? FRAMEWORK_ENTITY : FRAMEWORK_VIEW;
}

// Kinds that are listed whenever they are met, and the flag that says so.
struct PlainKind {
    uint32_t kind;
    QorLocalKind listedAs;
    bool QorXtierFlags::*flag;
};
constexpr PlainKind PLAIN_KINDS[] = {
    {FRAME_DATABASE, LOCAL_DATABASE_CALL, &QorXtierFlags::database},
    {FRAME_FILE, LOCAL_FILE_CALL, &QorXtierFlags::file},
    {FRAME_NETWORK, LOCAL_NETWORK_CALL, &QorXtierFlags::network},
    {FRAME_APP_SERVER, LOCAL_APP_SERVER_CALL, &QorXtierFlags::server},
};

// False when there is no memory.
bool List(const QorThreadRecord *thread, const QorFrameRecord *frame, QorLocalKind kind) {
    return AddToThreadLocalInfoList(thread, frame, &localList, kind) == 0;
}

// The first web frame of the tables.
void ListWebFrame(const QorThreadRecord *thread, const QorFrameRecord *frame, uint32_t kinds,
                  QorXtierFlags *flags) {
    if (!(kinds & FRAME_WEB) || flags->tableWeb)
        return;
    List(thread, frame, LOCAL_WEB_REQUEST);
    flags->web = flags->tableWeb = true;
}

// Frames of one method share their locals, so that one of them is enough.
bool IsListedByRules(const QorFrameRecord *frame) {
    const QorAllThreadLocalInfoList *entry = localList;
    while (entry != threadMark && (entry->kind != LOCAL_BY_RULES || entry->frameMethod != frame->methodId))
        entry = entry->next;
    return entry != threadMark;
}

// A frame of the rules is listed in addition to what it is for the tables.
bool ListRuleFrame(const QorThreadRecord *thread, const QorFrameRecord *frame, uint32_t kinds,
                   QorXtierFlags *flags) {
    if (!(kinds & FRAME_OF_RULES) || IsListedByRules(frame) || !List(thread, frame, LOCAL_BY_RULES))
        return false;
    flags->web |= (localList->tiers & TIER_WEB) != 0;
    flags->database |= (localList->tiers & TIER_DB) != 0;
    flags->rmi |= (localList->tiers & TIER_RMI) != 0;
    flags->file |= (localList->tiers & TIER_FILE) != 0;
    return true;
}

// A thread shows one framework object only, the first that is met from the top. A frame that can't be listed
// is none: its data would never be read.
QorFramework ListFrameworkFrame(const QorThreadRecord *thread, const QorFrameRecord *frame, uint32_t kinds,
                                QorXtierFlags *flags) {
    if ((kinds & (FRAME_VIEW | FRAME_ENTITY)) && flags->view == MEETING_NONE &&
        List(thread, frame, LOCAL_VIEW_OR_ENTITY)) {
        flags->view = MEETING_NOW;
        flags->groovy = flags->el = MEETING_OTHER;
        return FrameworkOf(kinds);
    }
    if ((kinds & FRAME_GROOVY_LINE) && flags->groovy == MEETING_NONE && List(thread, frame, LOCAL_GROOVY)) {
        flags->groovy = MEETING_NOW;
        flags->view = flags->el = MEETING_OTHER;
        return FRAMEWORK_GROOVY;
    }
    if ((kinds & FRAME_EL) && flags->el == MEETING_NONE && List(thread, frame, LOCAL_EL_EXPRESSION)) {
        flags->el = MEETING_NOW;
        flags->view = flags->groovy = MEETING_OTHER;
        return FRAMEWORK_EL;
    }
    return FRAMEWORK_NONE;
}

} // namespace

uint32_t QorClassifyFrame(const QorFrameRecord *frame) {
    if (!frame->facts)
        return 0; // its texts don't last until the objects are read
    uint32_t kinds = QorClassifyByTables(frame);
    if ((kinds & FRAME_WEB) &&
        strncmp(frame->className, FRAMEWORK_VIEW_PACKAGE, sizeof FRAMEWORK_VIEW_PACKAGE - 1) == 0)
        kinds |= FRAME_ACTIVE_DATA;
    if (frame->facts->tiers & TIER_OBJECTS)
        kinds |= FRAME_OF_RULES;
    return kinds;
}

void QorStartThreadFrames() {
    threadMark = localList;
}

void QorDropThreadFrames() {
    if (localList != threadMark)
        QorCutThreadLocalInfoList(&localList, threadMark);
}

QorFramework QorListXtierFrame(const QorThreadRecord *thread, const QorFrameRecord *frame, uint32_t kinds,
                               QorXtierFlags *flags) {
    if (kinds & FRAME_RMI) {
        List(thread, frame, LOCAL_RMI_CALL);
        flags->rmi = true;
    }
    ListWebFrame(thread, frame, kinds, flags);
    const QorFramework framework = ListFrameworkFrame(thread, frame, kinds, flags);
    if ((kinds & FRAME_GROOVY_SCRIPT) && flags->groovy != MEETING_OTHER)
        List(thread, frame, LOCAL_GROOVY);
    for (const PlainKind &row : PLAIN_KINDS)
        if (kinds & row.kind) {
            List(thread, frame, row.listedAs);
            flags->*row.flag = true;
        }
    ListRuleFrame(thread, frame, kinds, flags);
    return framework;
}

QorFramework QorListStackFrame(const QorThreadRecord *thread, const QorFrameRecord *frame, uint32_t kinds,
                               QorXtierFlags *flags) {
    ListWebFrame(thread, frame, kinds, flags);
    if (kinds & FRAME_DATABASE) {
        List(thread, frame, LOCAL_DATABASE_CALL);
        flags->database = true;
    }
    ListRuleFrame(thread, frame, kinds, flags);
    if (!(kinds & (FRAME_VIEW | FRAME_ENTITY)) || flags->view != MEETING_NONE ||
        !List(thread, frame, LOCAL_VIEW_OR_ENTITY))
        return FRAMEWORK_NONE;
    flags->view = MEETING_NOW;
    return FrameworkOf(kinds);
}

bool QorHasRowData(const QorXtierFlags &flags) {
    return localList != threadMark &&
           (flags.web || flags.file || flags.network || flags.database || flags.rmi ||
            flags.view != MEETING_NONE || flags.groovy != MEETING_NONE || flags.el != MEETING_NONE);
}

int32_t QorAddThreadLocation(const QorThreadRecord *thread, const char *threadKey,
                             const QorXtierPositions &positions, QorFramework framework) {
    if (AddToXtierLocationInfoList(thread, &firstLocation, &lastLocation) != 0)
        return -1;
    lastLocation->at = positions;
    lastLocation->newest = localList;
    lastLocation->framework = framework;
    QorStrncpy(lastLocation->threadKey, threadKey, DB_THREAD_KEY_SIZE, DB_THREAD_KEY_SIZE);
    return 0;
}

void QorInsertXtierData(QorText *reply) {
    if (no_locals) // the rows keep their empty fields, as without room in the quota
        return;
    gbQorWalkLeftOut = gbQorWalkCut = false;
    if (!localList || !firstLocation || QorGetLocalVariableForAllThread(localList) != 0)
        return;
    QorInsertion insertion;
    QorStartInsertion(&insertion, reply);
    bool full = false;
    for (const QorXtierLocationInfo *location = firstLocation; location && !full; location = location->next) {
        const QorLocalFrame frame(jvmtijni_env, ENTRY_FRAME_CAPACITY);
        TellMissingFrame(frame);
        ClearRecords();
        ReadThread(*location);
        full = InsertXtierDataToConsoleBuf(&insertion, *location, objQorJSPRequestData, *ShownDatabase(),
                                           ShownRmi()) != 0;
        if (!full)
            HandToE2E(*location);
    }
    QorEndInsertion(&insertion, reply);
}

QorStackViewData QorReadStackViewData() {
    ClearRecords();
    gbQorWalkLeftOut = gbQorWalkCut = false;
    QorAllThreadLocalInfoList *const newest = localList;
    if (newest && QorGetLocalVariableForAllThread(newest) == 0) {
        const QorLocalFrame frame(jvmtijni_env, ENTRY_FRAME_CAPACITY);
        TellMissingFrame(frame);
        for (const QorAllThreadLocalInfoList *entry = newest; entry; entry = entry->next) {
            if (entry->kind == LOCAL_WEB_REQUEST)
                ReadWebEntry(*entry);
            else if (entry->kind == LOCAL_DATABASE_CALL)
                ReadDatabaseEntry(*entry);
            else if (entry->kind != LOCAL_BY_RULES)
                QorReadFrameworkEntry(entry, &objQorJSPRequestData);
        }
        ReadByRules(newest, newest->threadId);
    }
    return {&objQorJSPRequestData, ShownDatabase()};
}

void QorStartReadingAtOnce() {
    ClearRecords();
}

void QorReadFrameAtOnce(const QorThreadRecord *thread, const char *threadKey, const QorFrameRecord *frame,
                        uint32_t kinds, QorXtierFlags *flags) {
    if (flags->view == MEETING_NONE &&
        (kinds & (FRAME_VIEW | FRAME_ENTITY | FRAME_PAGE | FRAME_ACTIVE_DATA))) {
        QORLOG(LOG_NOTE, "Qoragent: QRF data not found");
        flags->view = MEETING_MISSED;
    }
    if (ListRuleFrame(thread, frame, kinds, flags))
        QorReadRuleObjects(localList);
    if (!(kinds & (FRAME_WEB | FRAME_DATABASE)))
        return; // the readers know no other frames
    const QorLocalFrame local(jvmtijni_env, ENTRY_FRAME_CAPACITY);
    QorGetJSPRequest(thread, frame, &objQorJSPRequestData);
    QorGetDBRequestData(thread, frame, &calls.database);
    if (calls.database.url[0])
        NoteConnection(thread->name, threadKey);
}

QorStackViewData QorDataReadAtOnce() {
    if (localList && localList != threadMark && !calls.rulesAreRead) {
        const QorLocalFrame local(jvmtijni_env, ENTRY_FRAME_CAPACITY);
        ReadByRules(localList, localList->threadId);
    }
    calls.rulesAreRead = true;
    return {&objQorJSPRequestData, ShownDatabase()};
}

void QorFreeXtierLists() {
    FreeQorAllThreadLocalInfoList(localList);
    FreeXtierLocationInfoArrayList(firstLocation);
    localList = threadMark = nullptr;
    firstLocation = lastLocation = nullptr;
}

void QorDropXtier(JNIEnv *env) {
    release_thread_e2e_info(env);
    QorDropE2EPool();
    QorCloseLocalWalk();
    QorDropDbConnections();
    QorForgetDriverClasses();
}
