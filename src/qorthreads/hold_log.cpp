#include "hold_log.h"

#include "sig_susp_handler.h"

#include "qorlog.h"

#include <algorithm>

namespace {

constexpr uint32_t MAX_EVENTS = 256;
constexpr size_t NAME_SIZE = 256;
constexpr const char *CASE_TEXTS[] = {"(null sp case)", "(object move case)", "(heap dump)"};
constexpr int32_t THRESHOLDS[] = {LOG_NOTE, LOG_ERROR, LOG_NOTE, LOG_POLL_FAILURE, LOG_NOTE, LOG_NOTE};

// Two workers may write for a moment, one of them given up on: at worst a line shows parts of two events.
struct Kept {
    std::atomic<int32_t> kind, why, id;
    std::atomic<uint64_t> thread;
};
Kept events[MAX_EVENTS];
std::atomic<uint32_t> noted;

uint32_t Count(const std::atomic<uint32_t> &total, uint32_t *logged) {
    const uint32_t now = total;
    const uint32_t since = now - *logged;
    *logged = now;
    return since;
}

void Write(const Kept &event, void (*name)(uint64_t, char *, size_t)) {
    char text[NAME_SIZE] = "";
    if (name && qorloglevel > LOG_NOTE)
        name(event.thread, text, sizeof text);
    const auto thread = static_cast<uint32_t>(event.thread); // as much as the line shows
    const int32_t id = event.id;
    const char *why = CASE_TEXTS[event.why];
    switch (event.kind) {
    case HOLD_BEGUN:
        QORLOG(LOG_NOTE, "Inspecting thread %s, 0x%x %s", text, thread, why);
        break;
    case HOLD_REFUSED:
        QORLOG_RATIONED(LOG_ERROR, "Thread Inspection Aborted 0x%x: TH-ID %d", thread, id);
        break;
    case HOLD_NOT_SENT:
        QORLOG(LOG_NOTE, "Thread Inspection failed for %s, 0x%x, id %d\n", text, thread, id);
        break;
    case HOLD_LAPSED:
        QORLOG(LOG_POLL_FAILURE, "Qor Agent: Inspection failed for _sp NULL case 0x%x : Timer lapsed",
               thread);
        break;
    case HOLD_DUMP_LAPSED:
        QORLOG(LOG_NOTE, "Heap Dump inspection failed for 0x%x, index %d", thread, id);
        break;
    default:
        QORLOG(LOG_NOTE, "Done Inspecting thread %s, 0x%x %s", text, thread, why);
    }
}

void WriteCounts() {
    static uint32_t forwarded, dropped, nameless, ended;
    const uint32_t others = Count(qorSuspCounts.forwarded, &forwarded);
    const uint32_t lost = Count(qorSuspCounts.dropped, &dropped);
    const uint32_t blank = Count(qorSuspCounts.nameless, &nameless);
    const uint32_t late = Count(qorHoldsEnded, &ended);
    if (others + lost + blank + late != 0)
        QORLOG(
            LOG_NOTE,
            "Signal %d: %u passed on, %u without a handler, %u without value; %u holds ended by themselves",
            HOLD_SIGNAL, others, lost, blank, late);
}

} // namespace

void QorNoteHold(const QorHoldEvent &event) {
    if (qorloglevel <= THRESHOLDS[event.kind])
        return;
    const uint32_t at = noted++;
    if (at >= MAX_EVENTS)
        return;
    events[at].kind = event.kind;
    events[at].why = event.why;
    events[at].id = event.id;
    events[at].thread = event.thread;
}

void QorLogHolds(void (*name)(uint64_t thread, char *out, size_t size)) {
    const uint32_t count = noted.exchange(0);
    for (uint32_t i = 0; i < std::min(count, MAX_EVENTS); i++)
        Write(events[i], name);
    if (count > MAX_EVENTS)
        QORLOG(LOG_NOTE, "%u more events of held threads", count - MAX_EVENTS);
    WriteCounts();
}
