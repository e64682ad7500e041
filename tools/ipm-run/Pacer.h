// Paces frame delivery like a camera: one frame every 1/fps seconds on a
// fixed schedule, so that slow frames do not slow the rate down. A producer
// that falls more than a frame behind starts a new schedule instead of
// catching up in a burst, as a camera would drop the frames it missed.
#pragma once

#include <chrono>
#include <cstdint>

class Pacer {
public:
    using Clock = std::chrono::steady_clock;

    // fps 0: no pacing.
    explicit Pacer(double fps);

    // Sleeps until the next frame is due and returns that moment (now when
    // not pacing).
    Clock::time_point waitForNextFrame();

    // The moment at which the next frame is due; the first call to
    // waitForNextFrame starts the schedule.
    Clock::time_point nextDue(Clock::time_point now);

private:
    Clock::duration period_{};
    bool started_ = false;
    Clock::time_point origin_{};
    uint64_t ticks_ = 0;
};
