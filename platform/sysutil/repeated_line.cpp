#include "sysutil/sysutil.h"

#include <cstdio>
#include <mutex>

namespace
{

constexpr std::chrono::seconds PERIOD(10);
constexpr unsigned PRINTED_IN_A_PERIOD = 20;

std::mutex lock; // of all lines; what is printed under it is short and comes seldom
RepeatedLine *all_lines;

} // namespace

void RepeatedLine::end_period(Clock::time_point now)
{
    if (printed_ == 0 || now - since_ < PERIOD)
        return;
    if (more_ != 0)
        printf("\n\"%s\": %u more within %d seconds\n", name_, more_, static_cast<int>(PERIOD.count()));
    printed_ = more_ = 0;
}

bool RepeatedLine::due()
{
    const std::lock_guard guard(lock);
    const auto now = Clock::now();
    end_period(now);
    if (printed_ == 0)
        since_ = now;
    if (!listed_) {
        listed_ = true;
        next_ = all_lines;
        all_lines = this;
    }
    const bool print = printed_ < PRINTED_IN_A_PERIOD;
    ++(print ? printed_ : more_);
    return print;
}

void RepeatedLine::tell()
{
    const std::lock_guard guard(lock);
    const auto now = Clock::now();
    for (RepeatedLine *line = all_lines; line != nullptr; line = line->next_)
        line->end_period(now);
}
