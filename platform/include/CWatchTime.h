// For hosts and plug-ins: the platform interface that libQRV_IPM is built on.
//
// Stopwatch of the QRV platform: brackets a piece of work with start() and
// stop() on a monotonic clock and keeps simple statistics of the intervals.
#pragma once

#include <chrono>
#include <cstdint>

class CWatchTime {
public:
    CWatchTime() = default;

    void start();
    // Ends the interval begun by start(); without a start() it does nothing.
    void stop();

    // Read-outs in microseconds; all 0 before the first completed interval.
    double lastMicros() const;
    double meanMicros() const;
    double maxMicros() const;
    uint64_t count() const;

private:
    std::chrono::steady_clock::time_point begin_{};
    bool running_ = false;
    double last_ = 0.0;
    double total_ = 0.0;
    double max_ = 0.0;
    uint64_t count_ = 0;
};
