#include "Pacer.h"

#include <thread>

Pacer::Pacer(double fps)
{
    if (fps > 0.0) {
        period_ = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / fps));
    }
}

Pacer::Clock::time_point Pacer::nextDue(Clock::time_point now)
{
    if (period_ == Clock::duration::zero()) return now;
    if (!started_) {
        started_ = true;
        origin_ = now;
        ticks_ = 0;
        return now;
    }
    ++ticks_;
    Clock::time_point due = origin_ + period_ * static_cast<int64_t>(ticks_);
    if (now - due > period_) {
        origin_ = now;
        ticks_ = 0;
        due = now;
    }
    return due;
}

Pacer::Clock::time_point Pacer::waitForNextFrame()
{
    const Clock::time_point now = Clock::now();
    const Clock::time_point due = nextDue(now);
    if (due > now) std::this_thread::sleep_until(due);
    return due > now ? due : now;
}
