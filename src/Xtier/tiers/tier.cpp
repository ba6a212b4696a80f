#include "tier.h"

#include "jvmti/threads/ThreadSystem.h"
#include "products.h"
#include "qorlog.h"
#include "qorrequest.h"

#include <cstring>

namespace {

// The first character settles nearly every test.
bool Passes(const char *name, const char *text) {
    if (*name != '*' && *text != *name)
        return false;
    const size_t length = strlen(name) - 1;
    return name[length] == '*' ? strncmp(text, name, length) == 0 : strcmp(text, name) == 0;
}

// Whether the signature is the name in one of the spellings; in a search, or at least begins so.
bool IsSpelled(const char *signature, const char *name, uint8_t spellings, bool inSearch) {
    const bool hasL = *signature == 'L';
    const char *const rest = signature + (hasL ? 1 : 0);
    const size_t length = strlen(name);
    if (*rest != *name || strncmp(rest, name, length) != 0)
        return false;
    const bool hasEnd = rest[length] == ';';
    const bool isWhole = rest[length + (hasEnd ? 1 : 0)] == 0;
    if (!isWhole && (!inSearch || (spellings & SPELL_WHOLE)))
        return false;
    if (!hasL && (spellings & SPELL_BARE) && (inSearch || !hasEnd))
        return true;
    const int found = hasL ? (hasEnd ? SPELL_SIGNATURE : SPELL_WITHOUT_END) : hasEnd ? SPELL_WITHOUT_L : 0;
    return spellings & found;
}

// The kinds of an object among those asked for.
uint32_t KindsOfObject(const char *signature, uint32_t wanted) {
    if (signature)
        for (const QorProduct &product : products::ALL)
            for (const QorTableObject &row : product.objects)
                if ((row.kinds & wanted) && IsSpelled(signature, row.name, row.searched, true))
                    return row.kinds & wanted;
    return 0;
}

int32_t IsObject(const char *signature, uint32_t kind) {
    return KindsOfObject(signature, kind) != 0;
}

int32_t IsFrame(const QorFrameRecord *frame, uint32_t kind) {
    return frame && (QorKindsOfFrame(frame) & kind);
}

void LogMissingFrame() {
    QORLOG(LOG_TRACE, "Qor Agent : QorFrameExtractedInfoObj class NULL");
}

// What the frame is said to be in the log. A poll tests every frame of the application, and says nothing.
void LogDatabase(uint32_t kinds) {
    if ((kinds & FRAME_DATABASE) && !qorIsPollOrTrace)
        QORLOG(LOG_TRACE, "DB Request Found");
}

void LogFile(const QorFrameRecord *frame, uint32_t kinds) {
    if (!frame || qorIsPollOrTrace)
        return;
    if (kinds & FRAME_FILE)
        QORLOG(LOG_TRACE, "IO Call Found %s", frame->className);
    else
        QORLOG(LOG_TRACE, "IO Call Not Found %s", frame->className);
}

void LogAppServer(const QorFrameRecord *frame, uint32_t kinds) {
    if (!frame || qorIsPollOrTrace)
        return;
    if (kinds & FRAME_APP_SERVER)
        QORLOG(LOG_TRACE, "AppServer Call Found %s", frame->className);
    else
        QORLOG(LOG_TRACE, "AppServer Call Not Found %s", frame->className);
}

} // namespace

const QorTableObject *QorFindTableObject(const char *signature) {
    for (const QorProduct &product : products::ALL)
        for (const QorTableObject &row : product.objects)
            if (IsSpelled(signature, row.name, row.read, false))
                return &row;
    return nullptr;
}

uint32_t QorKindsOfFrame(const QorFrameRecord *frame) {
    uint32_t kinds = 0;
    if (frame)
        for (const QorProduct &product : products::ALL)
            for (const QorTableFrame &row : product.frames)
                if (Passes(row.className, frame->className) && Passes(row.method, frame->method))
                    kinds |= row.kinds;
    return kinds;
}

uint32_t QorClassifyByTables(const QorFrameRecord *frame) {
    const uint32_t kinds = QorKindsOfFrame(frame);
    LogDatabase(kinds);
    LogFile(frame, kinds);
    LogAppServer(frame, kinds);
    return kinds;
}

int32_t IsRmiCallDataPresent(const QorFrameRecord *frame) {
    return IsFrame(frame, FRAME_RMI);
}

int32_t IsJSPRequestDataPresent(const QorFrameRecord *frame) {
    if (!frame) {
        LogMissingFrame();
        QORLOG(LOG_ERROR, "Qor Agent : IsJSPRequestDataPresent QorFrameExtractedInfoObj is NULL");
    }
    return IsFrame(frame, FRAME_WEB);
}

int32_t is_vo_frame(const QorFrameRecord *frame) {
    return IsFrame(frame, FRAME_VIEW);
}

int32_t is_eo_frame(const QorFrameRecord *frame) {
    return IsFrame(frame, FRAME_ENTITY);
}

int32_t is_jspx_frame(const QorFrameRecord *frame) {
    return IsFrame(frame, FRAME_PAGE);
}

int32_t isGroovyLineDataPresent(const QorFrameRecord *frame) {
    return IsFrame(frame, FRAME_GROOVY_LINE);
}

int32_t isELExpDataPresent(const QorFrameRecord *frame) {
    return IsFrame(frame, FRAME_EL);
}

int32_t isGroovyScriptDataPresent(const QorFrameRecord *frame) {
    return IsFrame(frame, FRAME_GROOVY_SCRIPT);
}

int32_t IsDBRequestDataPresent(const QorFrameRecord *frame) {
    if (!frame)
        LogMissingFrame();
    const uint32_t kinds = QorKindsOfFrame(frame);
    LogDatabase(kinds);
    return (kinds & FRAME_DATABASE) != 0;
}

int32_t IsIORequestDataPresent(const QorFrameRecord *frame) {
    const uint32_t kinds = QorKindsOfFrame(frame);
    LogFile(frame, kinds);
    return (kinds & FRAME_FILE) != 0;
}

int32_t IsNetworkRequestDataPresent(const QorFrameRecord *) {
    return 0;
}

int32_t IsAppServerRequestDataPresent(const QorFrameRecord *frame) {
    const uint32_t kinds = QorKindsOfFrame(frame);
    LogAppServer(frame, kinds);
    return (kinds & FRAME_APP_SERVER) != 0;
}

int32_t IsDBFrame(const char *signature) {
    return IsObject(signature, FRAME_DATABASE);
}

int32_t IsJSPFrame(const char *signature) {
    return IsObject(signature, FRAME_WEB);
}

int32_t IsRmiFrame(const char *signature) {
    return IsObject(signature, FRAME_RMI);
}

int32_t IsIOFrame(const char *signature) {
    return IsObject(signature, FRAME_FILE);
}

int32_t IsAppServerFrame(const char *signature) {
    return IsObject(signature, FRAME_APP_SERVER);
}

int32_t IsQRFFrame(const char *signature) {
    return IsObject(signature, OBJECT_OF_FRAMEWORK);
}

int32_t IsQRFJspxFrameObject(const char *signature) {
    return IsObject(signature, FRAME_PAGE);
}

int32_t IsQRFVoFrameObject(const char *signature) {
    return IsObject(signature, FRAME_VIEW);
}

int32_t IsQRFEoFrameObject(const char *signature) {
    return IsObject(signature, FRAME_ENTITY);
}

int32_t isQRFGroovyScripFrameObject(const char *signature) {
    return IsObject(signature, FRAME_GROOVY_SCRIPT);
}

int32_t isQRFGroovyCurrentLineFrameObject(const char *signature) {
    return IsObject(signature, FRAME_GROOVY_LINE);
}

int32_t isQRFELFrameObject(const char *signature) {
    return IsObject(signature, FRAME_EL);
}

bool QorIsPassedOverObject(const char *signature) {
    return IsObject(signature, OBJECT_PASSED_OVER) != 0;
}

bool QorIsObjectOfInterest(const char *signature) {
    return IsObject(signature, FRAME_PAGE | FRAME_VIEW | FRAME_ENTITY | FRAME_GROOVY_SCRIPT |
                                   FRAME_GROOVY_LINE | FRAME_EL | FRAME_WEB | FRAME_DATABASE | FRAME_RMI |
                                   FRAME_APP_SERVER | FRAME_FILE) != 0;
}
