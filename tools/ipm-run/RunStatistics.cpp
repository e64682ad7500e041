#include "RunStatistics.h"

#include <algorithm>
#include <cmath>

namespace {

double nearestRank(const std::vector<double>& sorted, double percent)
{
    const size_t rank = static_cast<size_t>(std::ceil(percent / 100.0 * static_cast<double>(sorted.size())));
    return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

}  // namespace

RunStatistics::Latency RunStatistics::Latency::of(std::vector<double> samples)
{
    Latency latency;
    if (samples.empty()) return latency;
    std::sort(samples.begin(), samples.end());
    latency.median = nearestRank(samples, 50.0);
    latency.p99 = nearestRank(samples, 99.0);
    latency.max = samples.back();
    return latency;
}

uint64_t RunStatistics::Step::failureCount() const
{
    uint64_t total = 0;
    for (const auto& entry : failures) total += entry.second;
    return total;
}

RunStatistics::RunStatistics(size_t stepCount) : deliveredAt_(kRing), origin_(Clock::now()), steps_(stepCount)
{
}

void RunStatistics::frameDelivered(int32_t tag, Clock::time_point when)
{
    deliveredAt_[static_cast<uint32_t>(tag) % kRing].store((when - origin_).count(),
                                                           std::memory_order_relaxed);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (delivered_.load(std::memory_order_relaxed) == 0) firstDelivery_ = when;
        lastDelivery_ = when;
    }
    delivered_.fetch_add(1, std::memory_order_release);
}

void RunStatistics::stepSucceeded(int32_t tag, int position, Clock::time_point when)
{
    if (position < 0 || static_cast<size_t>(position) >= steps_.size()) return;
    Step& step = steps_[static_cast<size_t>(position)];
    const Clock::duration sinceOrigin =
        Clock::duration(deliveredAt_[static_cast<uint32_t>(tag) % kRing].load(std::memory_order_relaxed));
    const std::chrono::duration<double, std::milli> latency = when - (origin_ + sinceOrigin);
    ++step.successes;
    step.latenciesMs.push_back(latency.count());
    step.lastSucceeded = true;
    step.lastSuccessTag = tag;
    stepReported_(tag, position);
}

void RunStatistics::stepFailed(int32_t tag, int code)
{
    if (steps_.empty()) return;
    const size_t position = cursor_ % steps_.size();
    Step& step = steps_[position];
    ++step.failures[code];
    step.lastSucceeded = false;
    stepReported_(tag, static_cast<int>(position));
}

void RunStatistics::managerError()
{
    managerErrors_.fetch_add(1, std::memory_order_release);
}

void RunStatistics::stepReported_(int32_t tag, int position)
{
    cursor_ = static_cast<size_t>(position) + 1;
    if (cursor_ < steps_.size()) return;
    cursor_ = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const int32_t previous = lastPassTag_.load(std::memory_order_relaxed);
        if (tag > previous + 1)
            dropped_.fetch_add(static_cast<uint64_t>(tag - previous - 1), std::memory_order_release);
        lastPassTag_.store(std::max(tag, previous), std::memory_order_release);
        lastPassEnd_ = Clock::now();
        if (passes_.load(std::memory_order_relaxed) == 0) firstPassEnd_ = lastPassEnd_;
        passes_.fetch_add(1, std::memory_order_release);
    }
    passDone_.notify_all();
}

bool RunStatistics::waitForPass(int32_t tag, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return passDone_.wait_for(lock, timeout,
                              [&] { return lastPassTag_.load(std::memory_order_relaxed) >= tag; });
}
