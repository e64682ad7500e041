// What happened during a run: frames delivered, processing passes, frames
// that newer ones replaced, and for every step its successes, its failures
// by result code and its latencies.
//
// Frames carry the tags 0, 1, 2, ... in delivery order. The producer reports
// deliveries; the worker reports, in step order, each step's outcome of each
// pass: a success through the displayer callback (which names the step), a
// failure through the manager's "process error" log line (which does not, so
// a failure belongs to the step after the last one reported). A pass is
// complete when its last step has reported.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

class RunStatistics {
public:
    using Clock = std::chrono::steady_clock;

    struct Latency {
        // Nearest-rank percentiles, in milliseconds; all 0 without samples.
        static Latency of(std::vector<double> samples);
        double median = 0.0;
        double p99 = 0.0;
        double max = 0.0;
    };

    struct Step {
        uint64_t successes = 0;
        std::map<int, uint64_t> failures;  // result code -> count
        std::vector<double> latenciesMs;   // onNewFrame to the step's callback
        bool lastSucceeded = false;        // the step's latest outcome
        int32_t lastSuccessTag = -1;
        uint64_t failureCount() const;
    };

    explicit RunStatistics(size_t stepCount);

    // Producer thread: frame `tag` enters onNewFrame at `when`.
    void frameDelivered(int32_t tag, Clock::time_point when);

    // Worker thread: a step of the pass on frame `tag` succeeded or failed.
    void stepSucceeded(int32_t tag, int position, Clock::time_point when);
    void stepFailed(int32_t tag, int code);
    // The manager logged an error: an exception it caught while taking a
    // frame or running a pass.
    void managerError();

    // Waits until the pass on frame `tag` has completed, or the timeout has
    // passed; true if it completed.
    bool waitForPass(int32_t tag, std::chrono::milliseconds timeout);

    // Readable at any time.
    uint64_t delivered() const { return delivered_.load(std::memory_order_acquire); }
    uint64_t passes() const { return passes_.load(std::memory_order_acquire); }
    // Frames that a newer frame replaced before a pass took them, counted
    // when a later pass completes.
    uint64_t droppedSoFar() const { return dropped_.load(std::memory_order_acquire); }
    uint64_t managerErrors() const { return managerErrors_.load(std::memory_order_acquire); }
    int32_t lastPassTag() const { return lastPassTag_.load(std::memory_order_acquire); }

    // Read only after the worker has stopped.
    const std::vector<Step>& steps() const { return steps_; }
    Clock::time_point firstDelivery() const { return firstDelivery_; }
    Clock::time_point lastDelivery() const { return lastDelivery_; }
    Clock::time_point firstPassEnd() const { return firstPassEnd_; }
    Clock::time_point lastPassEnd() const { return lastPassEnd_; }

private:
    void stepReported_(int32_t tag, int position);

    static constexpr size_t kRing = 4096;  // delivery times kept, by tag
    std::vector<std::atomic<int64_t>> deliveredAt_;
    std::atomic<uint64_t> delivered_{0};
    std::atomic<uint64_t> passes_{0};
    std::atomic<uint64_t> dropped_{0};
    std::atomic<uint64_t> managerErrors_{0};
    std::atomic<int32_t> lastPassTag_{-1};
    Clock::time_point origin_;
    Clock::time_point firstDelivery_{};
    Clock::time_point lastDelivery_{};
    Clock::time_point firstPassEnd_{};
    Clock::time_point lastPassEnd_{};

    std::vector<Step> steps_;
    size_t cursor_ = 0;  // the position of the next step to report in the current pass

    std::mutex mutex_;
    std::condition_variable passDone_;
};
