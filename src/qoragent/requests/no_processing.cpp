#include "no_processing.h"

#include "dispatch.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "qorutil.h"
#include "request_text.h"
#include "tier_rules.h"

#include "RequestHandler/memory_views.h"
#include "Xtier/LocalWalkTimes.h"
#include "direct/direct_dump.h"
#include "direct/direct_views.h"
#include "jvmti/Session.h"
#include "jvmti/heap/ForkedWalk.h"
#include "qorcost.h"
#include "reply/utf16_text.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void SetLogLevel(char *value) {
    qorloglevel = atoi(value);
    QOR_REPLY("Changed qorloglevel to %d", qorloglevel);
}

// The directory ends in a slash, for which room is kept. An empty value leaves it as it is.
void SetHeapDir(char *value) {
    if (char *bar = strchr(value, recsep))
        *bar = 0;
    if (*value) {
        QorStrncpy(qorheapdir, value, HEAP_DIR_SIZE, HEAP_DIR_SIZE);
        if (qorheapdir[strlen(qorheapdir) - 1] != '/') {
            QorStrncpy(qorheapdir, value, HEAP_DIR_SIZE - 1, HEAP_DIR_SIZE);
            QorStrncat(qorheapdir, "/", HEAP_DIR_SIZE);
        }
    }
    QOR_REPLY("Changed qorheapdir to %s", qorheapdir);
    QORLOG(LOG_NOTE, "%s", pagebuf);
}

void SetRetry(char *value) {
    qorretry = atoi(value);
    QOR_REPLY("Changed qorretry to %d", qorretry);
}

void SetForkDump(char *value) {
    QorSetForkHeapDumpCapability(atoi(value) != 0);
    QOR_REPLY("Changed forkdump to %d", QorGetForkHeapDumpCapability());
    QORLOG(LOG_NOTE, "%s", pagebuf);
}

// Whether a copy can make a histogram or, with the value "dump", a text dump.
void ShowForkState(char *value) {
    const bool dump = value && strncmp(value, "dump", 4) == 0;
    const char *why = "QOR Uninitialized for this JVM", *note = "";
    if (QorCanInspect() && !QorOnJvmtiRoad()) {
        why = QorWhyNoDirectCopy();
        note = "only"; // nothing but a copy walks the heap of a JVM that is read by address
    } else if (QorCanInspect()) {
        why = QorWhyNoCopy(dump ? FORK_FOR_DUMP : FORK_FOR_HISTOGRAM, QorJvmHeapInUse());
    }
    QOR_REPLY("forkstate=%d forkdump=%d %s", !why, QorGetForkHeapDumpCapability(), why ? why : note);
}

void SetHandQuota(char *value) {
    qorHandWalkQuotaPct = std::clamp(atoi(value), 1, 100);
    QOR_REPLY("Changed handquota to %d", qorHandWalkQuotaPct);
    QORLOG(LOG_NOTE, "%s", pagebuf);
}

void ShowWalkState(char *) {
    const int64_t usec = gbQorLastWalkUsec;
    QOR_REPLY("walk=%ld leftout=%d handquota=%d cut=%d localquota=%d",
              usec < 0 ? -1L : static_cast<long>(usec / 1000), gbQorWalkLeftOut, qorHandWalkQuotaPct,
              gbQorWalkCut, QorLocalWalkQuota());
}

void ShowLastCost(char *) {
    constexpr const char *NAMES[STOP_KINDS] = {"stacks", "locks", "locals", "heap", "copy"};
    pagebuf[0] = 0;
    char pair[64];
    for (int32_t kind = 0; kind < STOP_KINDS; kind++) {
        snprintf(pair, sizeof pair, "%s%s=%ld", kind ? " " : "", NAMES[kind],
                 static_cast<long>(qorLastStopUsec[kind]));
        QorAgentStrncat(pagebuf, pair, PAGEBUF_SIZE, sizeof pair);
    }
}

void ReadRules(char *value) {
    QORLOG(LOG_NOTE, "Reading Idle Thread and System Call rules ");
    QORLOG(LOG_DETAIL, "Reading conds %s", value);
    readconditions(value);
    QOR_REPLY("Added Idle Thread Rules");
}

// The value is the address of a handle. Only the direct road can look whether it is one; on the other it is
// never followed.
void ShowJavaString(char *value) {
    char text[VM_TEXT_SIZE];
    const bool isRead = !QorOnJvmtiRoad() && QorReadHandle(strtoull(value, nullptr, 10), text, sizeof text);
    QOR_REPLY("%s", isRead ? text : "Given Oop is Invalid on this JVM.");
}

void ReapChildren(char *) {
    zombie_reaper();
    pagebuf[0] = 0;
}

void ShowCollectors(char *) {
    QorText reply;
    QorTextStart(&reply, pagebuf, PAGEBUF_SIZE);
    QorShowCollectors(&reply);
}

void ShowVersion(char *) {
    QOR_REPLY("version=%s", QOR_VERSION);
}

struct Key {
    const char *word;
    bool needsValue;
    void (*apply)(char *value);
};
constexpr Key KEYS[] = {
    {"qorloglevel", true, SetLogLevel},
    {"qorheapdir", true, SetHeapDir},
    {"qorretry", true, SetRetry},
    {"forkdump", true, SetForkDump}, // text dumps and histograms by a copy of the process
    {"forkstate", false, ShowForkState},
    {"activethreads", true, ReadRules},
    {"getJavaString", true, ShowJavaString},
    {"tierrules", true, QorAnswerTierRules},
    {"CZPRequest", false, ReapChildren},
    {"collectors", false, ShowCollectors},
    {"handquota", true, SetHandQuota},
    {"version", false, ShowVersion},
    {"lastcost", false, ShowLastCost},
    {"walkstate", false, ShowWalkState}, // milliseconds of the last walk for locals, -1 before the first
};

} // namespace

void QorAnswerNoProcessing() {
    if (!pars) {
        QOR_REPLY("NoProcessing: Invalid Format");
        return;
    }
    char *value = QorNextField(pars);
    for (const Key &key : KEYS) {
        if (strncmp(pars, key.word, strlen(key.word)) != 0 || (key.needsValue && !value))
            continue;
        key.apply(value);
        return;
    }
    QOR_REPLY("NoProcessing: Unkownn argument");
}
