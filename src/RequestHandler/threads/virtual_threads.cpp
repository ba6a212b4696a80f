#include "virtual_threads.h"

#include "Xtier/LocalWalk.h"
#include "Xtier/LocalWalkTimes.h"
#include "Xtier/Xtier.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/threads/VirtualFields.h"
#include "jvmti/threads/VirtualGroups.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "qorutil.h"
#include "reply/records.h"
#include "stack_rows.h"
#include "thread_lookup.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

constexpr int32_t GROUPS_SHOWN = 50;
constexpr int32_t CALL_FIELDS = 3, REQUEST_FIELDS = 2;
constexpr int32_t MOST_HELD = 200;
constexpr int32_t GROUP_SHARE = 4; // of the threads held a group has no more than this part
constexpr int32_t LONGEST_MILLISECONDS = 2000;
constexpr char NOT_TRACKED[] = "threads without an executor aren't tracked (jdk.trackAllThreads)";
constexpr char NOT_COUNTED[] = "there are more executors than could be counted in the time";
constexpr char OVER_QUOTA[] = "stacks left out: requests before this one had their share of the time";

// Bits of the field `cut`.
enum : int32_t { CUT_BY_TIME_OR_THREADS = 1, CUT_BY_ROWS = 2, CUT_COUNT = 4 };

// What the frames of a group decide.
struct GroupFacts {
    int32_t state;
    bool isCounted, isShown; // a frame holds the wanted text; and it isn't idle by a rule
    bool isWritten;          // its row is in the reply
};

struct HeldMember {
    int64_t tid;
    uint64_t group; // its hash
};

// Members of groups whose frames show a driver or a container, kept until their locals have been read.
// Without `others` the first one of each group alone.
struct HeldThreads {
    jobjectArray array; // a global reference; null before the first
    int32_t count, most;
    bool others;
    HeldMember members[MOST_HELD];
};
HeldThreads held;

struct VirtualView {
    QorText *reply;
    const char *wanted; // the text, or null
    int32_t mostGroups, matching;
    QorVirtualSample sample;
    int32_t states[STATE_COUNT];
    GroupFacts facts[VIRTUAL_GROUPS];
    QorFrameHandle frames;
};

int32_t Argument(char **args, int32_t slot, int32_t most) {
    return args[slot] ? std::clamp(atoi(args[slot]), 0, most) : 0;
}

void UseFrames(VirtualView *view, const QorVirtualGroup &group) {
    view->frames.index = 0;
    view->frames.count = group.depth;
    memcpy(view->frames.frames, group.frames, static_cast<size_t>(group.depth) * sizeof(jvmtiFrameInfo));
}

bool Holds(const QorFrameRecord &frame, const char *text) {
    char call[2 * NAME_SIZE + 3];
    for (const char *form : {"%s->%s", "%s.%s"}) { // as the wire and as Java has it
        snprintf(call, sizeof call, form, frame.className, frame.method);
        if (strstr(call, text))
            return true;
    }
    return false;
}

// Whether the class is the JDK's: its frames are above the application's in every wait, whatever the rules
// say.
bool IsOfJdk(const char *className) {
    for (const char *start : {"java.", "jdk.", "sun."})
        if (strncmp(className, start, strlen(start)) == 0)
            return true;
    return false;
}

// What is known of a group's frames so far.
struct GroupReading {
    VirtualView *view;
    QorThreadRecord thread;
    bool callFound, isIdle, isWanted;
    QorText *call; // where the current call goes, or null
};

void ReadGroupFrame(GroupReading *reading, const QorFrameRecord &frame) {
    GetThreadEnhancedState(&frame, &reading->thread);
    reading->isWanted = reading->isWanted || Holds(frame, reading->view->wanted);
    const bool isUserCall = frame.callType != 0 && !IsOfJdk(frame.className);
    if (reading->callFound || (!isUserCall && frame.frameIndex != 0))
        return;
    reading->callFound = isUserCall;
    reading->isIdle = reading->isIdle || (isUserCall && checkCurrCall(frame.className, frame.method) == 0);
    if (!reading->call)
        return;
    QorTextCut(reading->call, 0);
    QorAppendFrameGroup(reading->call, &frame, null_str, null_str);
}

// Decides about a group by its frames; leaves in `call`, if one is wanted, the frame group of its current
// call.
GroupFacts ReadGroup(VirtualView *view, const QorVirtualGroup &group, QorText *call) {
    GroupReading reading = {view, {}, false, false, !view->wanted, call};
    reading.thread.state = group.state;
    UseFrames(view, group);
    QorFrameHandle &frames = view->frames;
    reading.isIdle = QorRefineUnmounted(&frames, &reading.thread);
    for (frames.index = 0; frames.index < frames.count; frames.index++) {
        QorFrameShape *shape = QorFindFrameShape(&frames);
        if (!shape)
            break;
        QorFrameRecord frame = shape->frame;
        frame.frameIndex = frames.index;
        ReadGroupFrame(&reading, frame);
    }
    const int32_t state = reading.isIdle ? STATE_OBJECT_WAIT : reading.thread.state;
    return {state, reading.isWanted, reading.isWanted && (!reading.isIdle || trace_all_threads), false};
}

constexpr uint32_t KINDS_OF_INTEREST = FRAME_WEB | FRAME_DATABASE | FRAME_RMI | FRAME_OF_RULES;

bool HasFrameOfInterest(const QorVirtualGroup &group) {
    static QorFrameHandle frames;
    frames.count = group.depth;
    memcpy(frames.frames, group.frames, static_cast<size_t>(group.depth) * sizeof(jvmtiFrameInfo));
    for (frames.index = 0; frames.index < frames.count; frames.index++) {
        const QorFrameShape *shape = QorFindFrameShape(&frames);
        if (shape && (shape->kinds & KINDS_OF_INTEREST))
            return true;
    }
    return false;
}

constexpr int32_t OF_NO_INTEREST = -1; // of a group's `held`

// Whether there is room for the member. Some is left for the first ones of groups to come.
bool MayHold(const QorVirtualGroup &group) {
    if (group.held == OF_NO_INTEREST || !jobjclass)
        return false;
    const int32_t share = std::max(1, held.most / GROUP_SHARE);
    return group.count == 1 ? held.count < held.most
                            : held.others && group.held < share && held.count < held.most - share;
}

void HoldMember(QorVirtualGroup *group, jobject thread) {
    if (group->count == 1 && !HasFrameOfInterest(*group))
        group->held = OF_NO_INTEREST;
    if (!MayHold(*group))
        return;
    if (!held.array) {
        jobject array = jvmtijni_env->NewObjectArray(held.most, jobjclass, nullptr);
        QorClearException(jvmtijni_env);
        if (!array)
            return;
        held.array = static_cast<jobjectArray>(QorNewGlobalRef(jvmtijni_env, array));
        QorDeleteLocalRef(jvmtijni_env, array);
    }
    if (!held.array)
        return;
    held.members[held.count] = {QorGetLongField(jvmtijni_env, thread, qorVirtual.tid), group->hash};
    jvmtijni_env->SetObjectArrayElement(held.array, held.count++, thread);
    QorClearException(jvmtijni_env);
    group->held++;
}

// Lists the frames of a member whose locals are wanted. `at` has the places of its row.
void ListFrames(VirtualView *view, const QorVirtualGroup &group, int64_t tid, const QorXtierPositions &at) {
    QorThreadRecord thread = {};
    thread.tid = tid;
    snprintf(thread.name, sizeof thread.name, "%s", tid == group.tid ? group.name : "");
    QorStartThreadFrames();
    QorXtierFlags flags = {};
    UseFrames(view, group);
    for (QorFrameHandle &frames = view->frames; frames.index < frames.count; frames.index++) {
        QorFrameShape *shape = QorFindFrameShape(&frames);
        if (!shape || !(shape->kinds & KINDS_OF_INTEREST))
            continue;
        shape->frame.frameIndex = frames.index;
        QorListXtierFrame(&thread, &shape->frame, shape->kinds & KINDS_OF_INTEREST, &flags);
    }
    char key[THREAD_KEY_SIZE];
    QorFormatThreadKey(key, getpid(), tid);
    QorXtierPositions used = at;
    if (!flags.web)
        used.requestStart = used.requestEnd = -1;
    if (!QorHasRowData(flags) || QorAddThreadLocation(&thread, key, used, FRAMEWORK_NONE) != 0)
        QorDropThreadFrames();
}

// Puts what the locals of the held threads say into the reply.
void ReadHeldThreads(QorText *reply) {
    if (!held.array)
        return;
    gbQorHeldThreads = held.array;
    QorInsertXtierData(reply);
    gbQorHeldThreads = nullptr;
    QorDeleteGlobalRef(jvmtijni_env, held.array);
    held.array = nullptr;
}

// The states in the order of the summary.
constexpr QorThreadState COUNTED[] = {STATE_RUNNABLE, STATE_DB_WAIT,     STATE_LOCK,     STATE_NETWORK_WAIT,
                                      STATE_IO_WAIT,  STATE_OBJECT_WAIT, STATE_SLEEPING, STATE_RMI_WAIT};

void AppendHead(VirtualView *view, const char *note) {
    const QorVirtualSample &sample = view->sample;
    const int32_t cut = (sample.cut || sample.countCut ? CUT_BY_TIME_OR_THREADS : 0) |
                        (view->matching > view->mostGroups || sample.groupsCut ? CUT_BY_ROWS : 0) |
                        (sample.countCut ? CUT_COUNT : 0);
    for (const int64_t number : {sample.count, sample.inExecutors, sample.mounted, sample.sampled,
                                 int64_t{view->matching}, int64_t{cut}})
        QorAppendNumberField(view->reply, number);
    QorAppendField(view->reply, note ? note : null_str);
    int32_t other = 0;
    for (const int32_t count : view->states)
        other += count;
    for (const QorThreadState state : COUNTED) {
        QorAppendNumberField(view->reply, view->states[state]);
        other -= view->states[state];
    }
    QorTextAppendNumber(view->reply, other);
    QorTextAppendChar(view->reply, RECORD_END);
}

void AppendKey(QorText *out, int64_t tid) {
    char key[THREAD_KEY_SIZE];
    if (tid != 0)
        QorFormatThreadKey(key, getpid(), tid);
    QorAppendField(out, tid != 0 ? key : null_str);
}

void AppendRequest(QorText *out, QorXtierPositions *at) {
    at->requestStart = out->length;
    for (int32_t i = 0; i < REQUEST_FIELDS; i++)
        QorAppendField(out, null_str);
    at->requestEnd = out->length;
}

// Ends a record that began at `start`; false when it has no room: nothing of it is left.
bool EndRecord(QorText *out, int32_t start) {
    QorTextAppendChar(out, RECORD_END);
    if (!out->refused && out->size - out->length > 1)
        return true;
    QorTextCut(out, start);
    return false;
}

bool AppendGroup(VirtualView *view, const QorVirtualGroup &group) {
    QorText *out = view->reply, call;
    const int32_t start = out->length;
    QorTextStart(&call, console_frame_buf, CONSOLE_BUF_SIZE);
    const GroupFacts facts = ReadGroup(view, group, &call);
    QorAppendNumberField(out, group.count);
    AppendKey(out, group.tid);
    QorXtierPositions at;
    AppendRequest(out, &at);
    QorAppendField(out, OrPlaceholder(group.waitsFor));
    AppendKey(out, group.owner);
    QorAppendField(out, OrPlaceholder(group.container));
    QorAppendNumberField(out, group.depth);
    if (call.length > 0) {
        QorTextAppend(out, call.text, call.length);
        QorTextAppendChar(out, FIELD_SEP);
    }
    for (int32_t i = 0; call.length == 0 && i < CALL_FIELDS; i++)
        QorAppendField(out, null_str);
    QorAppendState(out, facts.state, nullptr, &at);
    if (!EndRecord(out, start))
        return false;
    view->facts[&group - view->sample.groups].isWritten = true;
    if (group.held > 0)
        ListFrames(view, group, group.tid, at);
    return true;
}

// The group of a held member whose row is written; null without one.
const QorVirtualGroup *GroupOf(const VirtualView &view, const HeldMember &member) {
    const QorVirtualGroup *groups = view.sample.groups;
    for (int32_t i = 0; i < view.sample.groupCount; i++)
        if (groups[i].hash == member.group)
            return view.facts[i].isWritten ? &groups[i] : nullptr;
    return nullptr;
}

// The section of the members beside the first ones of their groups.
void AppendOtherMembers(VirtualView *view) {
    QorText *out = view->reply;
    const int32_t before = out->length;
    QorAppendTitle(out, TITLE_VIRTUAL_CALLS);
    for (int32_t i = 0; i < held.count; i++) {
        const HeldMember &member = held.members[i];
        const QorVirtualGroup *group = GroupOf(*view, member);
        if (!group || group->tid == member.tid)
            continue;
        const int32_t start = out->length;
        AppendKey(out, group->tid);
        AppendKey(out, member.tid);
        QorXtierPositions at;
        AppendRequest(out, &at);
        QorAppendState(out, view->facts[group - view->sample.groups].state, nullptr, &at);
        if (!EndRecord(out, start)) {
            qorReplyIsCut = true;
            break;
        }
        ListFrames(view, *group, member.tid, at);
    }
    if (QorTextAppendChar(out, SECTION_END) < 0)
        QorTextCut(out, before);
}

bool AppendStack(VirtualView *view, const QorVirtualGroup &group) {
    QorText *out = view->reply;
    const int32_t start = out->length;
    char id[24];
    const int32_t idLength = snprintf(id, sizeof id, "%d", static_cast<int32_t>(group.tid));
    UseFrames(view, group);
    QorTextAppend(out, TITLE_CALL_STACK);
    for (view->frames.index = 0; view->frames.index < view->frames.count; view->frames.index++)
        if (QorFrameShape *shape = QorFindFrameShape(&view->frames))
            QorAppendStackRow(out, shape, id, idLength, view->frames.index);
    QorTextAppendChar(out, SECTION_END);
    if (!out->refused)
        return true;
    QorTextCut(out, start);
    return false;
}

void CountStates(VirtualView *view) {
    for (int32_t i = 0; i < view->sample.groupCount; i++) {
        view->facts[i] = ReadGroup(view, view->sample.groups[i], nullptr);
        view->matching += view->facts[i].isShown;
        if (view->facts[i].isCounted)
            view->states[view->facts[i].state] += view->sample.groups[i].count;
    }
}

// Calls `append` for each group that is shown until one has no room.
void ForShownGroups(VirtualView *view, bool (*append)(VirtualView *, const QorVirtualGroup &)) {
    int32_t shown = 0;
    for (int32_t i = 0; i < view->sample.groupCount && shown < view->mostGroups; i++) {
        if (!view->facts[i].isShown)
            continue;
        shown++;
        if (append(view, view->sample.groups[i]))
            continue;
        qorReplyIsCut = true;
        return;
    }
}

void AppendSample(VirtualView *view, const QorVirtualLimits &limits, int32_t otherMembers) {
    const int64_t now = qorLocalWalkClock();
    const bool isDue = QorHandTimeLeft(now) > 0;
    const bool readsLocals = !no_locals && !gbQorSkipLocal && !gbQorRELocal;
    if (held.array) // a fault has ended the last request
        QorDeleteGlobalRef(jvmtijni_env, held.array);
    held.array = nullptr;
    held.count = 0;
    held.most = readsLocals ? std::min(std::max(view->mostGroups, otherMembers), MOST_HELD) : 0;
    held.others = otherMembers > 0;
    QorStartFrameShapes();
    if (QorSampleVirtualThreads(limits, !isDue, &view->sample) != 0)
        QorLogNoFrame(LOG_ERROR);
    if (isDue)
        QorCountHandTime(now, now + view->sample.stopUsec);
    CountStates(view);
    const char *note = view->sample.rootIsListed ? nullptr : NOT_TRACKED;
    if (view->sample.countCut)
        note = NOT_COUNTED;
    AppendHead(view, isDue ? note : OVER_QUOTA);
    ForShownGroups(view, AppendGroup);
    QorTextAppendChar(view->reply, SECTION_END);
    if (otherMembers > 0)
        AppendOtherMembers(view);
    if (poll_details)
        ForShownGroups(view, AppendStack);
    ReadHeldThreads(view->reply);
    QorFreeXtierLists();
    QorFreeVirtualSample(&view->sample);
}

} // namespace

void QorShowVirtualThreadsRequest(uint32_t, QorText *reply, char **args) {
    static VirtualView view;
    view.reply = reply;
    view.wanted = args[3] && args[3][0] ? args[3] : nullptr;
    view.mostGroups = Argument(args, 0, VIRTUAL_GROUPS);
    if (view.mostGroups == 0)
        view.mostGroups = GROUPS_SHOWN;
    view.matching = 0;
    memset(view.states, 0, sizeof view.states);
    QorAppendTitle(reply, TITLE_VIRTUAL_THREADS);
    const QorVirtualState state = QorLookUpVirtual();
    if (state == VIRTUAL_OFF) {
        QorAppendNoVirtualThreads(reply, QorVirtualOffReason());
    } else if (state == VIRTUAL_NONE_YET) {
        view.sample = {};
        AppendHead(&view, nullptr);
        QorTextAppendChar(reply, SECTION_END);
    } else {
        AppendSample(
            &view,
            {Argument(args, 1, VIRTUAL_MOST_THREADS), Argument(args, 2, LONGEST_MILLISECONDS), HoldMember},
            Argument(args, 4, MOST_HELD));
    }
}
