#include "SampleReply.h"

#include "RequestHandler/RequestHandler.h"

#include "reply/records.h"

#include <cstdlib>

std::string Ask(uint32_t request, const std::string &slot0, const std::string &slot1, int32_t size) {
    std::string first = slot0, second = slot1;
    char *args[CONSOLE_ARG_COUNT] = {first.empty() ? nullptr : first.data(),
                                     second.empty() ? nullptr : second.data()};
    static std::vector<char> page(PAGEBUF_SIZE);
    page[0] = 0;
    QorHandleShowJVMRequest(request, page.data(), size, args);
    return page.data();
}

std::vector<std::string> Split(const std::string &text, char separator) {
    std::vector<std::string> pieces(1);
    for (char c : text)
        if (c == separator)
            pieces.emplace_back();
        else
            pieces.back() += c;
    return pieces;
}

namespace {

// The state, with the detail block behind it; the fields of a block are those of the row.
bool TakeState(const std::vector<std::string> &fields, size_t first, SampleThread *thread) {
    const std::string databaseMark = {WAIT_DETAIL, '1', '0', FIELD_COUNT_MARK},
                      rmiMark = {WAIT_DETAIL, RMI_MARK};
    thread->state = fields[first].substr(0, fields[first].find(WAIT_DETAIL));
    std::vector<std::string> block(fields.begin() + static_cast<long>(first), fields.end());
    block[0] = block[0].substr(thread->state.size());
    if (thread->state == "DB Wait" && block[0].rfind(databaseMark, 0) == 0) {
        block[0] = block[0].substr(databaseMark.size());
        thread->detail10 = block;
        return block.size() == 10 && block[9] == "^";
    }
    if (thread->state == "RMI Wait" && block[0].rfind(rmiMark, 0) == 0) {
        block[0] = block[0].substr(rmiMark.size());
        thread->detail4 = block;
        return block.size() == 4;
    }
    return block.size() == 1 && block[0].empty();
}

bool TakeRow(const std::string &row, bool withMarker, SampleThread *thread) {
    std::vector<std::string> fields = Split(row, FIELD_SEP);
    if (withMarker) {
        thread->marker = fields[0];
        fields.erase(fields.begin());
    }
    if (fields.size() < 9 || fields[1] != "^")
        return false;
    thread->name = fields[0];
    thread->url = fields[2];
    thread->detail = fields[3];
    thread->key = fields[4];
    thread->call = fields[5];
    thread->file = fields[6];
    thread->line = fields[7];
    return TakeState(fields, 8, thread);
}

bool TakeStack(const std::string &section, SampleThread *thread) {
    const std::vector<std::string> rows = Split(section, RECORD_END);
    for (size_t i = 1; i < rows.size(); ++i) {
        const std::vector<std::string> f = Split(rows[i], FIELD_SEP);
        if (f.size() == 4 && f[3].empty()) {
            thread->frames.push_back({f[0], f[1], f[2], -1, -1, -1});
            continue;
        }
        if (f.size() != 8 || f[6] != "^" || f[7] != "^")
            return false;
        thread->frames.push_back(
            {f[0], f[1], f[2], atoll(f[3].c_str()), atoll(f[4].c_str()), atoll(f[5].c_str())});
    }
    return rows.size() > 1;
}

bool TakeWanted(const std::string &section, SampleThread *thread) {
    const std::vector<std::string> parts = Split(section, RECORD_END);
    const std::vector<std::string> f =
        parts.size() == 2 ? Split(parts[1], FIELD_SEP) : std::vector<std::string>();
    if (f.size() != 4 || f[3] != "View Thread Holding this Lock")
        return false;
    thread->wanted.push_back({atoll(f[0].c_str()), f[1], f[2], -1});
    return true;
}

bool TakeOwned(const std::string &section, SampleThread *thread) {
    const std::vector<std::string> rows = Split(section, RECORD_END);
    for (size_t i = 1; i + 1 < rows.size(); ++i) {
        const std::vector<std::string> f = Split(rows[i], FIELD_SEP);
        if (f.size() != 4 || f[1] != "0")
            return false;
        thread->owned.push_back({atoll(f[0].c_str()), "", f[2], atoi(f[3].c_str())});
    }
    return rows.size() > 2 && rows.back().empty();
}

bool StartsWith(const std::string &text, const char *prefix) {
    return text.rfind(prefix, 0) == 0;
}

// Sections of the poll form: a title with a thread row, then what belongs to that thread.
bool TakeSection(const std::string &section, bool stacks, SampleReply *reply) {
    const std::string titleRecord = reply->title + RECORD_END;
    if (StartsWith(section, titleRecord.c_str())) {
        reply->threads.emplace_back();
        return TakeRow(section.substr(titleRecord.size()), !stacks, &reply->threads.back());
    }
    if (!stacks || reply->threads.empty())
        return false;
    SampleThread *thread = &reply->threads.back();
    if (StartsWith(section, TITLE_CALL_STACK))
        return TakeStack(section, thread);
    if (StartsWith(section, "Lock On"))
        return TakeWanted(section, thread);
    if (StartsWith(section, TITLE_PARKED)) {
        thread->parkedOn = section.substr(sizeof TITLE_PARKED);
        return true;
    }
    return StartsWith(section, TITLE_LOCKS) && TakeOwned(section, thread);
}

} // namespace

int64_t SampleThread::id() const {
    const size_t dash = key.find('-');
    return dash == std::string::npos ? -1 : atoll(key.c_str() + dash + 1);
}

SampleReply SampleReply::Parse(const std::string &text, bool pollForm, bool stacks) {
    SampleReply reply;
    const size_t titleEnd = text.find(RECORD_END);
    if (titleEnd == std::string::npos || text.back() != SECTION_END) {
        reply.error = "no title, or no section end";
        return reply;
    }
    reply.title = text.substr(0, titleEnd);
    const std::string body = text.substr(0, text.size() - 1);
    if (!pollForm) {
        std::vector<std::string> rows = Split(body.substr(titleEnd + 1), RECORD_END);
        if (!rows.back().empty())
            reply.error = "no record end: " + rows.back();
        rows.pop_back();
        for (const std::string &row : rows) {
            reply.threads.emplace_back();
            if (!TakeRow(row, true, &reply.threads.back()))
                reply.error = "row: " + row;
        }
        return reply;
    }
    if (titleEnd + 1 == body.size())
        return reply; // no thread
    for (const std::string &section : Split(body, SECTION_END))
        if (!TakeSection(section, stacks, &reply))
            reply.error = "section: " + section;
    return reply;
}

const SampleThread *SampleReply::Find(const std::string &name) const {
    for (const SampleThread &thread : threads)
        if (thread.name == name)
            return &thread;
    return nullptr;
}
