#include "virtual_threads.h"

#include "cross_tier.h"
#include "protocol.h"
#include "thread_records.h"

#include <fmt/format.h>

namespace qorctl {

namespace {

constexpr int SLOT_OF_TEXT = 3, SLOT_OF_MEMBERS = 4;
constexpr int MEMBERS_READ = 50, MEMBERS_READ_WITH_DETAILS = 200; // the agent's own limit
constexpr size_t UNAVAILABLE_FIELDS = 2, COUNTS = 6, NOTE = 6, GROUP_FIELDS = 12, OTHER_FIELDS = 5;
constexpr std::string_view UNAVAILABLE = "-1";
// Bits of the field "cut".
constexpr int CUT_BY_LIMITS = 1, CUT_BY_ROWS = 2, CUT_COUNT = 4;

// The states in the order of the wire, as JSON names them.
constexpr std::string_view STATES[] = {"runnable",    "db_wait",  "lock",     "network_wait", "io_wait",
                                       "object_wait", "sleeping", "rmi_wait", "other"};

bool ReadHead(std::string_view record, VirtualThreads *view) {
    Fields field = Split(record, FIELD_SEP);
    if (field.size() >= UNAVAILABLE_FIELDS && field[0] == UNAVAILABLE) {
        view->reason = field[1];
        return true;
    }
    if (field.size() < NOTE + 1 + std::size(STATES))
        return false;
    int64_t cut = 0;
    int64_t *const counts[COUNTS] = {&view->count,   &view->in_executors, &view->mounted,
                                     &view->sampled, &view->groups_found, &cut};
    for (size_t i = 0; i < COUNTS; ++i)
        if (!ReadNumber(field[i], counts[i]))
            return false;
    for (size_t i = 0; i < std::size(STATES); ++i)
        if (!ReadNumber(field[NOTE + 1 + i], &view->states.emplace_back(STATES[i], 0).second))
            return false;
    view->note = ReadOptional(field[NOTE]).value_or("");
    view->cut_by_limits = cut & CUT_BY_LIMITS;
    view->cut_by_rows = cut & CUT_BY_ROWS;
    view->count_cut = cut & CUT_COUNT;
    view->available = true;
    return true;
}

bool ReadGroup(std::string_view record, VirtualGroup *group) {
    Fields field = Split(record, FIELD_SEP);
    if (field.size() < GROUP_FIELDS || !ReadNumber(field[0], &group->number) ||
        !ReadKey(field[1], &group->member.key) || !ReadNumber(field[7], &group->depth))
        return false;
    group->member.request_url = ReadOptional(field[2]);
    group->member.request_detail = ReadOptional(field[3]);
    group->waits_for = ReadOptional(field[4]).value_or("");
    group->container = ReadOptional(field[6]).value_or("");
    if (field[5] != NO_VALUE && !ReadKey(field[5], &group->owner))
        return false;
    if (field[8] != NO_VALUE && !ReadFrameGroup(field[8], field[9], field[10], &group->member.call.emplace()))
        return false;
    return ReadStateOn(Fields(field.begin() + GROUP_FIELDS - 1, field.end()), &group->member);
}

struct OtherMember {
    ThreadKey group;
    Thread thread;
};

bool ReadOther(std::string_view record, OtherMember *other) {
    Fields field = Split(record, FIELD_SEP);
    if (field.size() < OTHER_FIELDS || !ReadKey(field[0], &other->group) ||
        !ReadKey(field[1], &other->thread.key))
        return false;
    other->thread.request_url = ReadOptional(field[2]);
    other->thread.request_detail = ReadOptional(field[3]);
    return ReadStateOn(Fields(field.begin() + OTHER_FIELDS - 1, field.end()), &other->thread);
}

// Those of which nothing was found add nothing.
void AddOther(OtherMember &&other, VirtualThreads *view) {
    const Thread &thread = other.thread;
    if (!thread.request_url && !(thread.db && (thread.db->sql || thread.db->url)))
        return;
    for (VirtualGroup &group : view->groups)
        if (group.member.key.thread == other.group.thread) {
            group.others.push_back(std::move(other.thread));
            return;
        }
}

// The first record is of the whole, the others are groups.
struct HeadOrGroup {
    VirtualThreads head;
    VirtualGroup group;
};

void ReadGroups(const Section &section, RecordReader *reader, VirtualThreads *view) {
    bool first = true;
    auto read = [&](std::string_view record, HeadOrGroup *value) {
        return first ? ReadHead(record, &value->head) : ReadGroup(record, &value->group);
    };
    reader->Each<HeadOrGroup>(section, read, [&](HeadOrGroup &&value) {
        if (first)
            *view = std::move(value.head);
        else
            view->groups.push_back(std::move(value.group));
        first = false;
    });
}

} // namespace

std::string VirtualThreadsRequest(const VirtualQuestion &question) {
    uint32_t flags = (question.repeated ? 0u : FLAG_NOT_A_POLL) | (question.details ? FLAG_DETAILS : 0u) |
                     (question.all ? FLAG_ALL_THREADS : 0u);
    std::string text =
        fmt::format("{}|showstack|{}|ARG=x,{}={}", flags, uint32_t(REQ_VIRTUAL_THREADS), SLOT_OF_MEMBERS,
                    question.details ? MEMBERS_READ_WITH_DETAILS : MEMBERS_READ);
    return question.match.empty() ? text : fmt::format("{},{}={}", text, SLOT_OF_TEXT, question.match);
}

VirtualThreads DecodeVirtualThreads(const Reply &reply) {
    VirtualThreads view;
    RecordReader reader(reply);
    bool titled = false;
    size_t stacks = 0;
    for (const Section &section : reply.sections) {
        if (section.title == TITLE_VIRTUAL_THREADS) {
            titled = true;
            ReadGroups(section, &reader, &view);
        } else if (section.title == TITLE_VIRTUAL_CALLS) {
            reader.Each<OtherMember>(section, ReadOther,
                                     [&](OtherMember &&other) { AddOther(std::move(other), &view); });
        } else if (section.title == TITLE_CALL_STACK && stacks < view.groups.size()) {
            std::vector<Frame> &stack = view.groups[stacks++].member.stack;
            reader.Each<Frame>(section, ReadStackRow,
                               [&](Frame &&frame) { stack.push_back(std::move(frame)); });
        } else {
            reader.Unknown(section);
        }
    }
    if (!titled)
        throw Failure("the agent in this JVM is older than qorctl and doesn't know virtual threads",
                      "restart the JVM, which keeps the agent that it has loaded");
    view.jvm_microseconds = reply.jvm_microseconds;
    view.cut = reader.cut();
    return view;
}

} // namespace qorctl
