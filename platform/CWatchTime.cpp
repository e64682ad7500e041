#include "CWatchTime.h"

void CWatchTime::start()
{
    begin_ = std::chrono::steady_clock::now();
    running_ = true;
}

void CWatchTime::stop()
{
    if (!running_) {
        return;
    }
    running_ = false;
    last_ = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin_).count();
    total_ += last_;
    if (last_ > max_) {
        max_ = last_;
    }
    ++count_;
}

double CWatchTime::lastMicros() const
{
    return last_;
}

double CWatchTime::meanMicros() const
{
    return count_ ? total_ / static_cast<double>(count_) : 0.0;
}

double CWatchTime::maxMicros() const
{
    return max_;
}

uint64_t CWatchTime::count() const
{
    return count_;
}
