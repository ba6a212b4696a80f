#include "patience.h"

#include "hung.h"

#include <cstdio>
#include <fmt/format.h>

namespace qorctl {

namespace {

constexpr std::chrono::seconds SILENCE(5);
constexpr std::chrono::milliseconds LAST_LOOK_LIMIT(1000);

HungReport LookWhileWaiting(pid_t pid) {
    HungOptions options;
    options.unanswered = true;
    options.limit = LAST_LOOK_LIMIT;
    return LookAtHung(pid, options);
}

} // namespace

Patience::Patience(pid_t pid, Clock::time_point deadline)
    : pid_(pid), look_at_(Clock::now() + SILENCE), deadline_(deadline) {}

void Patience::Check() {
    static bool told = false; // a series asks again and again
    if (pid_ == 0 || Clock::now() < look_at_ || look_at_ == Clock::time_point::max())
        return;
    look_at_ = Clock::time_point::max();
    if (told)
        return;
    told = true;
    const HungReport report = LookWhileWaiting(pid_);
    fmt::print(stderr, "qorctl: no answer for {} s\n{}", SILENCE.count(), report.text);
    if (report.text.empty() || report.text.back() != '\n')
        fputc('\n', stderr);
}

Failure Patience::Late(const Failure &otherwise) const {
    if (pid_ == 0)
        return otherwise;
    const HungReport report = LookWhileWaiting(pid_);
    if (!report.is_read || !report.is_hung)
        return otherwise;
    return Failure(report.sentence, fmt::format("'qorctl hung {}' shows more", pid_));
}

} // namespace qorctl
