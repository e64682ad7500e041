// What the processing manager adds to a processing list: end-to-end latency
// from onNewFrame() to the last step's report, the rate at which the worker
// processes frames when more arrive than it can take, the highest frame rate
// it sustains without dropping a frame, and the same list run directly
// through the function table. Prints Markdown tables.
//
// A virtual machine loses its processors to the host now and then, for
// milliseconds at a time; a frame that arrives during such a stall is dropped
// at a rate the worker otherwise keeps up with. So the search for the highest
// rate without a drop runs several times, and each search reports the share
// of processor time that the host took during it (steal time, /proc/stat).
//
// On such a machine an idle virtual processor also goes back to the host at
// once unless the guest's haltpoll driver spins first, and waking it again can
// take milliseconds; the program prints that setting when the driver is there.
//
// bench_manager [frames [searches]]   (frames per measurement, 200 by
// default; searches of the highest rate, 3 by default)
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchImage.h"
#include "CImageProcessMng.h"
#include "CIpmFuncTable.h"

using ipmcommon::CIpmFuncTable;
using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using Clock = std::chrono::steady_clock;

namespace {

constexpr uint32_t kWidth = 1920;
constexpr uint32_t kHeight = 1080;
constexpr int kYuvToRgb = 0;
constexpr int kRgbToGray = 2;
constexpr int kTrivialIndex = 0x7fff0001;

double micros(Clock::duration duration)
{
    return std::chrono::duration<double, std::micro>(duration).count();
}

struct Spread {
    double median;
    double p99;
};

Spread spreadOf(std::vector<double> samples)
{
    std::sort(samples.begin(), samples.end());
    const size_t last = samples.size() - 1;
    return {samples[last / 2], samples[std::min(last, (samples.size() * 99) / 100)]};
}

// Timestamps the report of the list's last step, frame by frame.
class LastStepClock {
public:
    explicit LastStepClock(int lastPosition) : lastPosition_(lastPosition) {}

    CImageProcessMng::DisplayerCallback callback()
    {
        return [this](int tag, int position, const QRV_Image&) {
            if (position != lastPosition_) return;
            const Clock::time_point now = Clock::now();
            std::lock_guard<std::mutex> lock(mutex_);
            lastTag_ = tag;
            lastAt_ = now;
            ++reported_;
            cv_.notify_all();
        };
    }
    Clock::time_point waitFor(int tag)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        cv_.wait(lock, [&] { return lastTag_ == tag; });
        return lastAt_;
    }
    int reported()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return reported_;
    }

private:
    const int lastPosition_;
    std::mutex mutex_;
    std::condition_variable cv_;
    int lastTag_ = -1;
    int reported_ = 0;
    Clock::time_point lastAt_;
};

// A manager with its list and images.
struct Pipeline {
    QRV_Image source;
    std::vector<QRV_Image> destinations;
    LastStepClock clock;
    CImageProcessMng manager;

    explicit Pipeline(int steps) : clock(steps - 1) {}
};

void buildConverterList(Pipeline& pipeline)
{
    pipeline.destinations.emplace_back(kWidth, kHeight, En_ImageFormat::RGB888, true, 1);
    pipeline.destinations.emplace_back(kWidth, kHeight, En_ImageFormat::Gray8, true, 1);
    pipeline.manager.addProcList(EnProcessBackend::CPU_Parallel, EnIpmModule::Converter, kYuvToRgb,
                                 &pipeline.source, &pipeline.destinations[0], nullptr, nullptr);
    pipeline.manager.addProcList(EnProcessBackend::CPU_Parallel, EnIpmModule::Converter, kRgbToGray, nullptr,
                                 &pipeline.destinations[1], nullptr, nullptr);
    pipeline.manager.registerDisplayerCallback(pipeline.clock.callback());
    pipeline.manager.initialize();
}

// onNewFrame to the last report, one frame at a time; also the producer's
// own cost of onNewFrame.
void measureLatency(Pipeline& pipeline, QRV_Image& frame, int frames, std::vector<double>& latency,
                    std::vector<double>& producer)
{
    for (int i = -5; i < frames; ++i) {
        frame.frameTag = i + 1000000;
        const Clock::time_point start = Clock::now();
        pipeline.manager.onNewFrame(frame);
        const Clock::time_point handedOver = Clock::now();
        const Clock::time_point reported = pipeline.clock.waitFor(frame.frameTag);
        if (i < 0) continue;
        latency.push_back(micros(reported - start));
        producer.push_back(micros(handedOver - start));
    }
}

// Delivers frames at a fixed period; the number of frames processed. A
// producer that wakes late sends the frames it owes at once, as a camera
// thread does that finds several buffers queued.
int deliver(Pipeline& pipeline, QRV_Image& frame, double framesPerSecond, int frames, int& firstTag)
{
    const int reportedBefore = pipeline.clock.reported();
    const auto period =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / framesPerSecond));
    Clock::time_point next = Clock::now();
    for (int i = 0; i < frames; ++i) {
        std::this_thread::sleep_until(next);
        next += period;
        frame.frameTag = firstTag++;
        pipeline.manager.onNewFrame(frame);
    }
    pipeline.clock.waitFor(frame.frameTag);
    return pipeline.clock.reported() - reportedBefore;
}

// Processor time so far, all processors together, in the kernel's ticks: the
// total and the part the host took (steal).
struct CpuTicks {
    unsigned long long total = 0;
    unsigned long long steal = 0;
};

CpuTicks cpuTicks()
{
    std::ifstream stat("/proc/stat");
    std::string line;
    std::getline(stat, line);
    std::istringstream fields(line);
    std::string name;
    fields >> name;
    CpuTicks ticks;
    unsigned long long value = 0;
    // user nice system idle iowait irq softirq steal (guest time is in user).
    for (int field = 0; field < 8 && fields >> value; ++field) {
        ticks.total += value;
        if (field == 7) ticks.steal = value;
    }
    return ticks;
}

double stealPercent(const CpuTicks& before, const CpuTicks& after)
{
    const unsigned long long total = after.total - before.total;
    return total == 0 ? 0.0
                      : 100.0 * static_cast<double>(after.steal - before.steal) / static_cast<double>(total);
}

// The guest's halt polling in nanoseconds, or an empty string outside a
// guest with the haltpoll driver.
std::string guestHaltPolling()
{
    std::ifstream parameter("/sys/module/haltpoll/parameters/guest_halt_poll_ns");
    std::string nanoseconds;
    parameter >> nanoseconds;
    return nanoseconds;
}

struct Search {
    double rate;
    double steal;
};

// The highest rate, in steps of 5 % down from `start`, at which no frame out
// of `frames` is dropped.
Search searchRate(Pipeline& pipeline, QRV_Image& frame, double start, int frames, int& tag)
{
    const CpuTicks before = cpuTicks();
    double rate = start;
    while (rate > 1.0 && deliver(pipeline, frame, rate, frames, tag) != frames) rate *= 0.95;
    return {rate, stealPercent(before, cpuTicks())};
}

void printRow(const char* what, const Spread& spread)
{
    std::printf("| %s | %.0f | %.0f |\n", what, spread.median, spread.p99);
}

}  // namespace

int main(int argc, char** argv)
{
    const int frames = argc > 1 ? std::max(10, std::atoi(argv[1])) : 200;
    const int searches = argc > 2 ? std::max(1, std::atoi(argv[2])) : 3;
    CIpmFuncTable* table = CIpmFuncTable::Instance();
    table->registerFunc(
        EnProcessBackend::CPU_Serial, EnIpmModule::Splitter, kTrivialIndex,
        [](const QRV_Image*, QRV_Image*, void*, void*) { return 1; }, L"does nothing");
    QRV_Image frame = qrv_bench::filledImage(kWidth, kHeight, En_ImageFormat::YUV422_8);

    // The list without a manager: the two conversions back to back.
    QRV_Image rgb(kWidth, kHeight, En_ImageFormat::RGB888, true, 1);
    QRV_Image gray(kWidth, kHeight, En_ImageFormat::Gray8, true, 1);
    std::vector<double> direct;
    for (int i = -5; i < frames; ++i) {
        const Clock::time_point start = Clock::now();
        const int toRgb = table->process(EnProcessBackend::CPU_Parallel, EnIpmModule::Converter, kYuvToRgb,
                                         &frame, &rgb, nullptr, nullptr);
        const int toGray = table->process(EnProcessBackend::CPU_Parallel, EnIpmModule::Converter, kRgbToGray,
                                          &rgb, &gray, nullptr, nullptr);
        if (toRgb != 1 || toGray != 1) {
            std::fprintf(stderr, "the parallel converters refused: %d %d\n", toRgb, toGray);
            return 1;
        }
        if (i >= 0) direct.push_back(micros(Clock::now() - start));
    }

    // One frame copy, as the manager makes two per frame.
    QRV_Image copy(kWidth, kHeight, En_ImageFormat::YUV422_8, true, 1);
    std::vector<double> copies;
    for (int i = 0; i < frames; ++i) {
        const Clock::time_point start = Clock::now();
        copy.copy(frame, qrv_img::CopyMode::Capture);
        copies.push_back(micros(Clock::now() - start));
    }

    Pipeline converters(2);
    buildConverterList(converters);
    std::vector<double> latency, producer;
    measureLatency(converters, frame, frames, latency, producer);

    // Hand-over and wake-up alone: the same path with a one-byte frame and a
    // step that does nothing.
    Pipeline trivial(1);
    QRV_Image tiny = qrv_bench::filledImage(1, 1, En_ImageFormat::Gray8);
    trivial.destinations.emplace_back(1, 1, En_ImageFormat::Gray8, true, 1);
    trivial.manager.addProcList(EnProcessBackend::CPU_Serial, EnIpmModule::Splitter, kTrivialIndex,
                                &trivial.source, &trivial.destinations[0], nullptr, nullptr);
    trivial.manager.registerDisplayerCallback(trivial.clock.callback());
    trivial.manager.initialize();
    std::vector<double> handOver, tinyProducer;
    measureLatency(trivial, tiny, frames, handOver, tinyProducer);

    // The worker's throughput: frames offered at twice the one-frame rate,
    // more than it can take, so that it never waits for one.
    const Spread pass = spreadOf(latency);
    int tag = 2000000;
    const Clock::time_point floodStart = Clock::now();
    const int flooded = deliver(converters, frame, 2e6 / pass.median, frames, tag);
    const double throughput = flooded / std::chrono::duration<double>(Clock::now() - floodStart).count();

    std::vector<Search> found;
    for (int i = 0; i < searches; ++i)
        found.push_back(searchRate(converters, frame, 2e6 / pass.median, frames, tag));

    const Spread directSpread = spreadOf(direct);
    const Spread copySpread = spreadOf(copies);
    const Spread handOverSpread = spreadOf(handOver);
    std::printf(
        "1920x1080 YUYV, list [YUV422 -> RGB888 (CPU Parallel), RGB888 -> Gray8 (CPU Parallel)], "
        "%d frames per row\n\n",
        frames);
    std::printf("| measurement | median (us) | 99th percentile (us) |\n|---|---|---|\n");
    printRow("list run directly through process", directSpread);
    printRow("one 4 MB frame copy, cache-hot", copySpread);
    printRow("onNewFrame, producer side", spreadOf(producer));
    printRow("manager, onNewFrame to last report", pass);
    printRow("hand-over and wake-up (1-byte frame, empty step)", handOverSpread);
    std::printf("\n- manager overhead: %.1f %% of the direct list (median)\n",
                100.0 * (pass.median - directSpread.median) / directSpread.median);
    std::printf("- hand-over and wake-up: %.2f %% of the direct list (median)\n",
                100.0 * handOverSpread.median / directSpread.median);
    std::printf("- direct list alone: %.0f frames/s\n", 1e6 / directSpread.median);
    std::printf("- frames processed per second when offered %.0f: %.0f\n", 2e6 / pass.median, throughput);
    std::printf(
        "\n| search | highest rate without a dropped frame (frames/s) | steal time during the search |\n"
        "|---|---|---|\n");
    for (size_t i = 0; i < found.size(); ++i)
        std::printf("| %zu | %.0f | %.1f %% |\n", i + 1, found[i].rate, found[i].steal);
    std::vector<double> rates;
    for (const Search& search : found) rates.push_back(search.rate);
    std::printf("\n- highest rate without a dropped frame, median of %d searches: %.0f frames/s\n", searches,
                spreadOf(rates).median);
    const std::string polling = guestHaltPolling();
    if (!polling.empty())
        std::printf("- guest halt polling (haltpoll guest_halt_poll_ns): %s ns\n", polling.c_str());
    return 0;
}
