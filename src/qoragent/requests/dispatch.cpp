#include "dispatch.h"

#include "channel.h"
#include "no_processing.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "request_text.h"

#include "RequestHandler/RequestHandler.h"
#include "RequestHandler/XtierDbSession.h"
#include "Xtier/LocalWalkTimes.h"
#include "direct/direct_start.h"
#include "direct/direct_views.h"
#include "jvmti/Session.h"
#include "platforms/linux.h"
#include "qorcost.h"
#include "reply/records.h"

#include <cstdio>
#include <cstring>

int32_t fpid = -2;
int32_t arg_num;
char recsep;
timeval last_time, cur_time;
uint32_t diff_time;

namespace {

constexpr uint32_t UNTIMED_BITS = QORREQ_JUST_THREADS | QORREQ_DB_XTIER | QORREQ_POLL_DETAILS;
constexpr int32_t TIMING_LINE_ROOM = 50;
constexpr int32_t TIMEBUF_SIZE = 512;
constexpr double USEC_PER_MSEC = 1000;
constexpr uint32_t USEC_PER_SEC = 1000000;
constexpr char ARGUMENT_WORD[] = "ARG";
constexpr char NO_PROCESSING_WORD[] = "NoProcessing";
constexpr char VIEW_START[] = "show"; // of the commands that look into the JVM

void ClearReply() {
    pagebuf[0] = pagebuf[PAGEBUF_SIZE - 1] = 0;
}

// No reader may be asked: the JVM is not known, or its road has no readers.
void ReplyUninitialized() {
    QOR_REPLY("QOR Uninitialized for this JVM");
}

// Takes `reqid` and, if there is one, the argument field out of `pars`.
void ParseRequestFields() {
    reqid = QorParseNumber(pars);
    char *rest = QorNextField(pars);
    if (rest && strncmp(rest, ARGUMENT_WORD, sizeof ARGUMENT_WORD - 1) == 0)
        arg_num = QorParseArguments(rest, console_args);
}

bool HaveSlots(int32_t count) {
    for (int32_t i = 0; i < count; i++)
        if (!console_args[i])
            return false;
    return true;
}

const QorViews &ViewsOfRoad() {
    return QorOnJvmtiRoad() ? qorJvmtiViews : qorDirectViews;
}

void Ask(void (*view)()) {
    if (view && QorCanInspect())
        view();
    else
        ReplyUninitialized();
}

void ShowMemory() {
    reqid = pars ? QorParseNumber(pars) : 0;
    ClearReply();
    Ask(ViewsOfRoad().memory);
}

void ShowStack() {
    ParseRequestFields();
    ClearReply();
    if ((reqid & QORREQ_SHOW_OBJECT) && HaveSlots(2))
        Ask(ViewsOfRoad().object);
    else if ((reqid & QORREQ_SHOW_LOCALS) && HaveSlots(4))
        Ask(ViewsOfRoad().locals);
    else
        Ask(ViewsOfRoad().threads);
}

void ShowQor() {
    ParseRequestFields();
    dumpfile[0] = 0;
    ClearReply();
    const QorViews &views = ViewsOfRoad();
    const bool threadsAlone = (reqid & QORREQ_SAMPLING) && get_system_data == 0;
    if (views.figures && !threadsAlone && QorCanInspect())
        views.figures();
    Ask(views.threads);
}

void AskDbSessions() {
    if (pars) {
        a_xtierfn01(pars);
        return;
    }
    QORLOG(LOG_ERROR, "\nNull parameters for request %s", XTIER_WORD);
    QOR_REPLY("ERROR Null parameters for request %s", XTIER_WORD);
}

struct Command {
    const char *word;
    size_t compared;     // bytes of the word that count
    bool needsParameter; // without one it is none of this command's
    void (*answer)();
};
constexpr Command COMMANDS[] = {
    {"showmem", 7, false, ShowMemory},
    {"showstack", 8, true, ShowStack},
    {"showqor", 7, true, ShowQor},
    {XTIER_WORD, sizeof XTIER_WORD - 1, false, AskDbSessions},
    {NO_PROCESSING_WORD, sizeof NO_PROCESSING_WORD - 1, false, QorAnswerNoProcessing},
};

bool IsNoProcessing(const char *command) {
    return strncmp(command, NO_PROCESSING_WORD, sizeof NO_PROCESSING_WORD - 1) == 0;
}

void Answer(const char *command) {
    if (offsetind < 0) {
        ReplyUninitialized();
        return;
    }
    for (const Command &row : COMMANDS) {
        if (strncmp(command, row.word, row.compared) != 0 || (row.needsParameter && !pars))
            continue;
        row.answer();
        return;
    }
    QOR_REPLY("Invalid Request %s", command);
}

// Cuts the command out of `buf`; empty when there is none.
const char *TakeCommand() {
    char *command = QorNextField(buf);
    pars = nullptr;
    if (!command)
        return "";
    if (char *bar = strchr(command, recsep)) {
        *bar = 0;
        pars = bar + 1;
    }
    return command;
}

bool IsTimed(const char *command) {
    return ((reqid & ~UNTIMED_BITS) || reqid == QORREQ_POLL_DETAILS) && *command && !IsNoProcessing(command);
}

uint32_t ElapsedUsec() {
    if (cur_time.tv_sec == last_time.tv_sec && cur_time.tv_usec < last_time.tv_usec)
        return 1;
    return static_cast<uint32_t>(
        deltaTimeUsec(last_time.tv_sec, last_time.tv_usec, cur_time.tv_sec, cur_time.tv_usec));
}

void AddTimingLine() {
    diff_time = ElapsedUsec();
    pagebuf[PAGEBUF_SIZE - 1] = 0;
    if (qorReplyIsCut || static_cast<int32_t>(strlen(pagebuf)) + TIMING_LINE_ROOM >= PAGEBUF_SIZE)
        return;
    char timebuf[TIMEBUF_SIZE];
    if (fpid != 0)
        snprintf(timebuf, sizeof timebuf, "%s%c%u usec%c", TITLE_TIME_SPENT, RECORD_END, diff_time,
                 SECTION_END);
    else
        snprintf(timebuf, sizeof timebuf, "%s %u usec", TITLE_TIME_SPENT, diff_time);
    QorAgentStrncat(pagebuf, timebuf, PAGEBUF_SIZE, TIMEBUF_SIZE);
}

// After everything else, if there is room. A JVM that is read by address isn't stopped as a whole.
void AddCost(const char *command) {
    if (!cost_wanted || strncmp(command, VIEW_START, sizeof VIEW_START - 1) != 0 ||
        (reqid & QORREQ_DB_XTIER) || !QorOnJvmtiRoad() || fpid == 0)
        return;
    const auto milliseconds = [](int64_t usec) { return static_cast<double>(usec) / USEC_PER_MSEC; };
    const char s = FIELD_SEP;
    char section[TIMEBUF_SIZE];
    const int length = snprintf(section, sizeof section, "%s%c%d%c%.3f%c%.3f%c%d%c", TITLE_COST, RECORD_END,
                                qorRequestCost.calls, s, milliseconds(qorRequestCost.largestUsec), s,
                                milliseconds(qorRequestCost.sumUsec), s,
                                (reqid & QORREQ_SAMPLING) && gbQorWalkLeftOut, SECTION_END);
    if (static_cast<int32_t>(strlen(pagebuf)) + length < PAGEBUF_SIZE)
        QorAgentStrncat(pagebuf, section, PAGEBUF_SIZE, TIMEBUF_SIZE);
}

void LogEnd() {
    if (qorIsPollOrTrace) {
        QORLOG(LOG_TRACE, "Finished Processing data - %s", pagebuf);
        QORLOG(LOG_DETAIL, "Process Data - process time : %u usec", diff_time);
    } else {
        QORLOG(LOG_DETAIL, "Finished Processing non-poll data - %s", pagebuf);
        QORLOG(LOG_NOTE, "Process non-poll Data - process time : %u usec", diff_time);
    }
}

} // namespace

bool QorCanInspect() {
    return QorOnJvmtiRoad() ? jvmti && jvmtijni_env : direct_ready != 0;
}

void process_data() {
    if (qorlocks[1] == 0)
        return;
    arg_num = 0;
    qorReplyIsCut = false;
    QorStartCost();
    gettimeofday(&last_time, nullptr);
    for (char *&slot : console_args)
        slot = nullptr;
    recsep = FIELD_BAR;
    const char *command = TakeCommand();
    Answer(command);
    gettimeofday(&cur_time, nullptr);
    if (IsTimed(command))
        AddTimingLine();
    AddCost(command);
    LogEnd();
}
