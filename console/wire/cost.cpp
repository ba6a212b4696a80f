#include "cost.h"

#include "protocol.h"
#include "records.h"
#include "request.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>

namespace qorctl {

namespace {

bool ReadMilliseconds(std::string_view text, double *value) {
    const std::string copy(text);
    char *end = nullptr;
    *value = strtod(copy.c_str(), &end);
    return !copy.empty() && *end == 0 && *value >= 0;
}

} // namespace

void Cost::Add(const Cost &other) {
    calls += other.calls;
    largest_ms = std::max(largest_ms, other.largest_ms);
    sum_ms += other.sum_ms;
    walk_left_out |= other.walk_left_out;
}

std::string WithCost(std::string_view request) {
    const size_t bar = request.find('|');
    uint32_t flags = 0;
    if (bar == request.npos || !ReadNumber(request.substr(0, bar), &flags))
        return std::string(request);
    return fmt::format("{}{}", flags | FLAG_COST, request.substr(bar));
}

std::optional<Cost> TakeCost(std::string *reply) {
    const size_t start = reply->rfind(fmt::format("{}{}", TITLE_COST, RECORD_END));
    if (start == std::string::npos || reply->back() != SECTION_END)
        return std::nullopt;
    const size_t from = start + TITLE_COST.size() + 1;
    const std::string_view record(reply->data() + from, reply->size() - from - 1);
    const Fields field = Split(record, FIELD_SEP);
    Cost cost;
    if (field.size() < 4 || !ReadNumber(field[0], &cost.calls) ||
        !ReadMilliseconds(field[1], &cost.largest_ms) || !ReadMilliseconds(field[2], &cost.sum_ms))
        return std::nullopt;
    cost.walk_left_out = field[3] == "1";
    reply->resize(start);
    return cost;
}

std::string LastCostRequest() {
    return SettingRequest("lastcost", "");
}

std::optional<LastCost> ReadLastCost(std::string_view reply) {
    LastCost cost;
    struct {
        std::string_view key;
        std::optional<double> *figure;
    } const rows[] = {{"stacks=", &cost.stacks},
                      {"locks=", &cost.locks},
                      {"locals=", &cost.locals},
                      {"heap=", &cost.heap},
                      {"copy=", &cost.copy}};
    for (const auto &row : rows) {
        const size_t at = reply.find(row.key);
        if (at == reply.npos)
            return std::nullopt;
        const std::string_view value = reply.substr(at + row.key.size());
        int64_t usec = -1;
        if (!ReadNumber(value.substr(0, value.find(' ')), &usec))
            return std::nullopt;
        if (usec >= 0)
            *row.figure = static_cast<double>(usec) / 1000;
    }
    return cost;
}

} // namespace qorctl
