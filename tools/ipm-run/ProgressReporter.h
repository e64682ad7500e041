// The progress line on stderr while a run goes on: frames delivered and
// processed, the processing rate and the drops. On a terminal one line is
// rewritten in place a few times a second; otherwise (a log file, a pipe) a
// plain line is written every second.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

class ProgressReporter {
public:
    struct Counts {
        uint64_t delivered = 0;
        uint64_t processed = 0;
        uint64_t dropped = 0;
    };

    // terminal: rewrite one line with \r; otherwise write whole lines.
    ProgressReporter(std::FILE* out, bool terminal, std::function<Counts()> counts);
    ~ProgressReporter();
    ProgressReporter(const ProgressReporter&) = delete;
    ProgressReporter& operator=(const ProgressReporter&) = delete;

    void start();
    // Ends the reporting; on a terminal the line is cleared.
    void stop();

    static std::string format(const Counts& counts, double fps);

private:
    void run_();

    std::FILE* out_;
    bool terminal_;
    std::function<Counts()> counts_;
    std::chrono::milliseconds interval_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};
