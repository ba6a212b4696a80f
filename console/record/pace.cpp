#include "pace.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace qorctl {

namespace {

constexpr size_t FEWEST = 3, REMEMBERED = 5; // samples
constexpr double WORTH_A_CHANGE = 0.1;       // smaller differences don't change the interval

} // namespace

bool Pace::Add(std::chrono::microseconds spent) {
    spent_.push_back(spent.count());
    if (spent_.size() > REMEMBERED)
        spent_.pop_front();
    if (spent_.size() < FEWEST)
        return false;
    std::vector<int64_t> sorted(spent_.begin(), spent_.end());
    std::sort(sorted.begin(), sorted.end());
    double needed_ms = static_cast<double>(sorted[(sorted.size() - 1) / 2]) / 1000 / share_;
    auto wanted = std::max(asked_, std::chrono::milliseconds(std::llround(needed_ms)));
    auto difference = std::abs(static_cast<double>((wanted - interval_).count()));
    if (wanted == interval_ ||
        (wanted != asked_ && difference < WORTH_A_CHANGE * static_cast<double>(interval_.count())))
        return false;
    interval_ = wanted;
    return true;
}

std::chrono::microseconds Pace::Budget() const {
    return std::chrono::microseconds(std::llround(share_ * 1000 * static_cast<double>(interval_.count())));
}

} // namespace qorctl
