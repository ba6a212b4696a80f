#include "cross_tier.h"

#include "protocol.h"

namespace qorctl {

namespace {

constexpr size_t SHORT_DB_FIELDS = 7, DB_FIELDS = 10, RMI_FIELDS = 4;

// The fields that both forms of a database call begin with.
bool ReadDbStart(const Fields &field, DbWait *db) {
    if (!ReadNumber(field[2], &db->local_port) || !ReadNumber(field[3], &db->remote_port) ||
        !ReadNumber(field[5], &db->sample_time) || !ReadNumber(field[6], &db->sql_ref))
        return false;
    db->url = ReadOptional(field[0]);
    db->user = ReadOptional(field[1]);
    db->remote_host = ReadOptional(field[4]);
    return true;
}

bool ReadDbWait(const Fields &field, DbWait *db) {
    if (field.size() < DB_FIELDS || !ReadDbStart(field, db))
        return false;
    db->sql = ReadOptional(field[7]);
    db->type = ReadOptional(field[8]);
    return true;
}

bool ReadRmiWait(const Fields &field, RmiWait *rmi) {
    if (field.size() < RMI_FIELDS || !ReadNumber(field[0], &rmi->call_id) ||
        !ReadNumber(field[1], &rmi->remote_port))
        return false;
    if (field[2] != NO_VALUE)
        rmi->remote_host = TrueAddress(field[2]);
    rmi->jndi_name = field[3] == "NA" ? std::nullopt : ReadOptional(field[3]);
    return true;
}

// The block's marks are before its first field: 28 and 27 for a remote call, 28, the number of fields
// and 26 for a database call; 28 alone for the shorter one of a JVM read by address. The number of fields
// read, 0 when it isn't a block.
size_t ReadBlock(Fields field, Thread *thread) {
    std::string_view &first = field[0];
    if (!first.empty() && first[0] == DETAIL_RMI) {
        first.remove_prefix(1);
        return ReadRmiWait(field, &thread->rmi.emplace()) ? RMI_FIELDS : 0;
    }
    size_t mark = first.find(DETAIL_COUNTED), count = 0;
    if (mark == first.npos) {
        if (field.size() < SHORT_DB_FIELDS || !ReadDbStart(field, &thread->db.emplace()))
            return 0;
        thread->db->sql_by_ref = thread->db->sql_ref != 0;
        return SHORT_DB_FIELDS;
    }
    if (!ReadNumber(first.substr(0, mark), &count) || count != DB_FIELDS)
        return 0;
    first.remove_prefix(mark + 1);
    return ReadDbWait(field, &thread->db.emplace()) ? DB_FIELDS : 0;
}

constexpr std::pair<std::string_view, std::optional<int64_t> EndToEnd::*> FIGURES[] = {
    {"cpu", &EndToEnd::cpu_nanoseconds},
    {"alloc", &EndToEnd::allocated_bytes},
};
constexpr std::pair<std::string_view, std::optional<int64_t> EndToEnd::*> MARKS[] = {
    {"stuck", &EndToEnd::stuck},
    {"hogger", &EndToEnd::hogger},
};
constexpr std::pair<std::string_view, std::optional<std::string> EndToEnd::*> DETAILS[] = {
    {"file", &EndToEnd::file},       {"application", &EndToEnd::application},
    {"module", &EndToEnd::module},   {"workmanager", &EndToEnd::work_manager},
    {"session", &EndToEnd::session}, {"peer", &EndToEnd::peer},
    {"rule", &EndToEnd::rule},       {"virtual", &EndToEnd::carrier},
    {"carries", &EndToEnd::carries}, {"owner", &EndToEnd::lock_owner},
};

struct Pair {
    std::string_view key, value;
};

// "key=value"; the key is empty when there is none.
Pair CutPair(std::string_view text) {
    size_t sign = text.find('=');
    return sign == text.npos ? Pair{{}, text} : Pair{text.substr(0, sign), text.substr(sign + 1)};
}

// Pairs of key and number, with blanks between them. False, with nothing read, for any other text.
bool ReadFigures(std::string_view field, EndToEnd *told) {
    EndToEnd read = *told;
    for (std::string_view text : Split(field, ' ')) {
        Pair pair = CutPair(text);
        int64_t number = 0;
        if (pair.key.empty() || !ReadNumber(pair.value, &number))
            return false;
        for (auto &[key, figure] : FIGURES)
            if (pair.key == key)
                read.*figure = number;
    }
    *told = std::move(read);
    return true;
}

// A pair that fills its field, of a key that is known.
bool ReadDetail(std::string_view field, EndToEnd *told) {
    Pair pair = CutPair(field);
    for (auto &[key, detail] : DETAILS)
        if (pair.key == key && !(told->*detail)) {
            (told->*detail) = pair.value;
            return true;
        }
    int64_t number = 0;
    for (auto &[key, mark] : MARKS)
        if (pair.key == key && ReadNumber(pair.value, &number)) {
            (told->*mark) = number;
            return true;
        }
    return false;
}

void ReadAdded(std::string_view field, EndToEnd *told) {
    if (!field.empty() && field != NO_VALUE && !ReadDetail(field, told) && !ReadFigures(field, told))
        told->texts.emplace_back(field);
}

} // namespace

bool ReadStateOn(const Fields &field, Thread *thread) {
    std::string_view state = field[0];
    size_t start = state.find(DETAIL_START), used = 1;
    if (start != state.npos) {
        Fields block = field;
        block[0].remove_prefix(start + 1);
        used = ReadBlock(std::move(block), thread);
        state = state.substr(0, start);
    }
    if (!state.empty() && state[0] == STATE_MARK)
        state.remove_prefix(1);
    thread->state = state;
    if (state.empty() || used == 0)
        return false;
    for (size_t i = used; i < field.size(); ++i)
        ReadAdded(field[i], &thread->end_to_end);
    if (thread->end_to_end.carrier && thread->name == NO_VALUE)
        thread->name.clear();
    return true;
}

bool ReadShortDbWait(const Fields &field, DbWait *db) {
    return field.size() >= SHORT_DB_FIELDS && ReadDbStart(field, db);
}

std::string TrueAddress(std::string_view text) {
    constexpr int64_t UNITS[] = {1 << 24, 1 << 16, 1 << 8, 1};
    Fields parts = Split(text, '.');
    int64_t address = 0, part = 0;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (parts.size() != 4 || !ReadNumber(parts[i], &part) || part < -255 || part > 255)
            return std::string(text);
        address += part * UNITS[i];
    }
    uint32_t bits = static_cast<uint32_t>(address);
    return fmt::format("{}.{}.{}.{}", bits >> 24, bits >> 16 & 0xff, bits >> 8 & 0xff, bits & 0xff);
}

} // namespace qorctl
