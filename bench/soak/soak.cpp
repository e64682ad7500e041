// Long-run test of the processing managers as a camera product uses them:
// several managers, each with its own producer at camera rate, frames that
// change size and YUV layout, start/stop and deinitialize/initialize cycles,
// the built-in converters and the example plug-in in every pass. At the end
// it accounts for every delivered frame and checks that memory stayed flat.
//
//   soak [--seconds N] [--managers N] [--fps N] [--cycle SECONDS]
//
// Accounting. Tags count up from 1 per manager. The first step of every pass
// is a probe that records the tag of the frame the pass claimed, and every
// later step reports to the displayer. A frame is processed when a pass
// claimed it; it is dropped by newest-wins when the next frame was published
// before any pass claimed it (a pass always claims the newest published
// frame, so the frames between two claimed tags are exactly those dropped).
// The manager has no other way of losing a frame, so the soak checks that:
//   - the claimed tags rise strictly: no frame twice, never an older one;
//   - every claimed frame is reported for every step, and nothing else is;
//   - the newest frame is processed once the producer stops;
//   - every drop has its reason, from what the producer saw when the next
//     frame arrived: the manager stopped, a pass running, or the worker
//     woken but still waiting for a processor (the machine's scheduling,
//     counted and reported). A frame dropped while the worker slept (its
//     thread asleep, the frame unclaimed) was lost, and fails the run.
// Memory: the resident set is sampled every second; the largest sample of
// the second half may exceed that of the first half by at most 10 % + 4 MiB.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include "CImageProcessMng.h"
#include "CIpmFuncTable.h"
#include "Converter/CConverter.h"

using ipmcommon::CIpmFuncTable;
using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

constexpr int kProbeIndex = 0;  // under CPU Serial / Splitter, where nothing else lives
constexpr int kMirror = 0;      // the example plug-in's functions
constexpr int kThreshold = 1;
constexpr int kSteps = 5;
constexpr uint8_t kAllSteps = (1u << kSteps) - 1;

struct Options {
    int seconds = 60;
    int managers = 3;
    int fps = 30;
    double cycleSeconds = 2.0;
};

struct Geometry {
    uint32_t width;
    uint32_t height;
    int32_t layout;
};

// The largest comes first, so that the first half of any run holds the
// largest buffers.
constexpr Geometry kGeometries[] = {
    {640, 480, 10}, {160, 120, 11}, {320, 240, 12}, {96, 64, 13}, {64, 48, 10}, {320, 240, 11},
};

// What the producer saw when it began delivering a frame: the manager
// stopped, a pass running, or the worker idle; when the worker was idle and
// the previous frame still unclaimed (so that it is about to be dropped),
// also whether the worker was runnable, waiting for a processor (or in the
// kernel), or asleep.
enum DeliveryState : uint8_t { Idle, Stopped, PassRunning, IdleWorkerRunnable, IdleWorkerAsleep };

// The scheduler state of one of this process's threads ('R' running or
// runnable, 'S' asleep, 'D' in an uninterruptible wait), or '?' when the
// thread is gone.
char threadState(pid_t tid)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string text;
    std::getline(stat, text);
    const size_t close = text.rfind(')');
    return close != std::string::npos && close + 2 < text.size() ? text[close + 2] : '?';
}

size_t residentBytes()
{
    std::ifstream statm("/proc/self/statm");
    size_t pages = 0;
    size_t resident = 0;
    statm >> pages >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// One manager with its images, its producer and its accounting.
class Lane {
public:
    Lane(int id, const Options& options)
        : id_(id),
          frameInterval_(
              std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / options.fps))),
          // Deliveries cannot outrun the clock; the margin covers a late start.
          capacity_(static_cast<size_t>(options.seconds + 30) * static_cast<size_t>(options.fps) + 2),
          states_(capacity_),
          deliveredAt_(capacity_),
          reported_(capacity_),
          claims_(capacity_),
          claimedAt_(capacity_)
    {
        setGeometry(kGeometries[0]);
        buildList();
        manager_.initialize();
    }

    ~Lane() { manager_.deinitialize(); }

    void startProducer()
    {
        producer_ = std::thread([this] { produce(); });
    }

    void stopProducer()
    {
        producing_ = false;
        producer_.join();
    }

    // One start/stop cycle of the host's controlling thread.
    void cycle()
    {
        ++cycles_;
        stopped_ = true;
        switch (cycles_ % 4) {
        case 0:
            manager_.stop();
            switchGeometry();
            manager_.run();
            break;
        case 2:
            manager_.deinitialize();
            buildList();
            manager_.initialize();
            break;
        default:
            manager_.stop();
            std::this_thread::sleep_for(50ms);
            manager_.run();
            break;
        }
        stopped_ = false;
    }

    // Waits until the newest delivered frame has been claimed.
    bool drain() const
    {
        const auto deadline = Clock::now() + 10s;
        while (lastClaimed_.load() != lastDelivered_.load()) {
            if (Clock::now() > deadline) return false;
            std::this_thread::sleep_for(1ms);
        }
        return true;
    }

    void stop() { manager_.stop(); }

    // The first step of every pass, on the worker thread, right after the
    // pass claimed its frame.
    static int probe(const QRV_Image* source, QRV_Image*, void* user1, void*)
    {
        Lane& lane = *static_cast<Lane*>(user1);
        lane.passRunning_ = true;
        const auto tag = static_cast<uint32_t>(source->frameTag);
        if (lane.claimCount_ < lane.capacity_) lane.claims_[lane.claimCount_++] = tag;
        if (tag < lane.capacity_) lane.claimedAt_[tag] = Clock::now();
        lane.lastClaimed_ = tag;
        lane.workerTid_ = static_cast<pid_t>(syscall(SYS_gettid));
        return ipmcommon::result::Success;
    }

    // Prints the counts and returns whether the accounting holds.
    bool account() const
    {
        bool ok = true;
        const auto problem = [&](const std::string& text) {
            std::printf("manager %d: %s\n", id_, text.c_str());
            ok = false;
        };
        if (overflow_) problem("more frames than the accounting has room for");
        const uint32_t deliveries = lastDelivered_.load();
        uint32_t previous = 0;
        for (size_t i = 0; i < claimCount_; ++i) {
            if (claims_[i] <= previous) {
                problem("pass on tag " + std::to_string(claims_[i]) + " after tag " +
                        std::to_string(previous));
            }
            previous = claims_[i];
        }
        uint32_t passes = 0;
        uint32_t dropsStopped = 0;
        uint32_t dropsBusy = 0;
        uint32_t dropsLate = 0;
        uint32_t dropsAsleep = 0;
        uint32_t firstBadTag = 0;
        size_t claim = 0;
        // From onNewFrame to the first step of the pass, for frames that
        // found the worker idle.
        std::vector<Clock::duration> idleLatencies;
        for (uint32_t tag = 1; tag <= deliveries; ++tag) {
            const bool claimed = claim < claimCount_ && claims_[claim] == tag;
            if (claimed) {
                ++claim;
                ++passes;
                if (states_[tag] != Stopped && states_[tag] != PassRunning)
                    idleLatencies.push_back(claimedAt_[tag] - deliveredAt_[tag]);
                if (reported_[tag] != kAllSteps && firstBadTag == 0) firstBadTag = tag;
                continue;
            }
            if (reported_[tag] != 0 && firstBadTag == 0) firstBadTag = tag;
            if (tag == deliveries) {
                problem("the newest frame was never processed");
                continue;
            }
            switch (states_[tag + 1]) {
            case Stopped: ++dropsStopped; break;
            case PassRunning: ++dropsBusy; break;
            case IdleWorkerRunnable: ++dropsLate; break;
            default: ++dropsAsleep; break;
            }
        }
        if (claim != claimCount_) problem("a pass claimed a tag that was never delivered");
        if (firstBadTag != 0) {
            problem("frame " + std::to_string(firstBadTag) +
                    " was reported for other steps than its pass ran");
        }
        const uint32_t drops = dropsStopped + dropsBusy + dropsLate + dropsAsleep;
        if (dropsAsleep != 0) problem("frames were lost while the worker slept");
        std::printf(
            "manager %d (%s converters): %u deliveries = %u passes + %u drops (%u while stopped, %u behind "
            "a running pass, %u while the woken worker waited for a processor, %u lost while it slept); %d "
            "cycles, %d geometry changes\n",
            id_, id_ % 2 == 0 ? "serial" : "parallel", deliveries, passes, drops, dropsStopped, dropsBusy,
            dropsLate, dropsAsleep, cycles_, geometryChanges_);
        if (!idleLatencies.empty()) {
            std::sort(idleLatencies.begin(), idleLatencies.end());
            const auto at = [&](double share) {
                const size_t index =
                    static_cast<size_t>(share * static_cast<double>(idleLatencies.size() - 1));
                return std::chrono::duration<double, std::milli>(idleLatencies[index]).count();
            };
            std::printf(
                "manager %d: delivery to pass start on an idle worker: median %.2f ms, 99.9th "
                "percentile %.2f ms, max %.2f ms\n",
                id_, at(0.5), at(0.999), at(1.0));
        }
        return ok;
    }

private:
    EnProcessBackend converterBackend() const
    {
        return id_ % 2 == 0 ? EnProcessBackend::CPU_Serial : EnProcessBackend::CPU_Parallel;
    }

    void setGeometry(const Geometry& geometry)
    {
        rgb_ = QRV_Image(geometry.width, geometry.height, En_ImageFormat::RGB888, true, 1);
        mirrored_ = QRV_Image(geometry.width, geometry.height, En_ImageFormat::RGB888, true, 1);
        gray_ = QRV_Image(geometry.width, geometry.height, En_ImageFormat::Gray8, true, 1);
        binary_ = QRV_Image(geometry.width, geometry.height, En_ImageFormat::Gray8, true, 1);
    }

    // Probe, YUV to RGB, mirror (plug-in), RGB to gray, threshold (plug-in);
    // the last three take the previous step's destination.
    void buildList()
    {
        const EnProcessBackend converters = converterBackend();
        manager_.addProcList(EnProcessBackend::CPU_Serial, EnIpmModule::Splitter, kProbeIndex, &source_,
                             &probed_, this, nullptr);
        manager_.addProcList(converters, EnIpmModule::Converter,
                             static_cast<int>(CConverter::F::YUV422_8_To_RGB888), &source_, &rgb_, nullptr,
                             nullptr);
        manager_.addProcList(EnProcessBackend::CPU_Serial, EnIpmModule::User_Custom, kMirror, nullptr,
                             &mirrored_, nullptr, nullptr);
        manager_.addProcList(converters, EnIpmModule::Converter,
                             static_cast<int>(CConverter::F::RGB888_To_Gray8), nullptr, &gray_, nullptr,
                             nullptr);
        manager_.addProcList(EnProcessBackend::CPU_Serial, EnIpmModule::User_Custom, kThreshold, nullptr,
                             &binary_, nullptr, nullptr);
        manager_.registerDisplayerCallback([this](int tag, int position, const QRV_Image&) {
            if (tag > 0 && static_cast<size_t>(tag) < capacity_) {
                reported_[tag] |= static_cast<uint8_t>(1u << position);
            }
            if (position == kSteps - 1) passRunning_ = false;
        });
    }

    // While the manager is stopped: the producer changes the frame geometry,
    // and once a frame of the new geometry is the newest, the destinations
    // follow.
    void switchGeometry()
    {
        ++geometryChanges_;
        const Geometry& next = kGeometries[static_cast<size_t>(geometryChanges_) % std::size(kGeometries)];
        std::unique_lock<std::mutex> lock(geometryMutex_);
        requested_ = next;
        ++requestedGeneration_;
        geometryCv_.wait(lock, [this] { return appliedGeneration_ == requestedGeneration_ || !producing_; });
        setGeometry(next);
    }

    void produce()
    {
        QRV_Image frame;
        int applied = -1;
        auto due = Clock::now();
        for (uint32_t tag = 1; producing_; ++tag) {
            std::this_thread::sleep_until(due);
            due += frameInterval_;
            bool announce = false;
            {
                std::lock_guard<std::mutex> lock(geometryMutex_);
                if (applied != requestedGeneration_) {
                    const Geometry& geometry = requestedGeneration_ == 0 ? kGeometries[0] : requested_;
                    frame = QRV_Image(geometry.width, geometry.height, En_ImageFormat::YUV422_8, true, 1);
                    frame.yuvLayout = geometry.layout;
                    applied = requestedGeneration_;
                    announce = true;
                }
            }
            if (tag >= capacity_) {
                overflow_ = true;
                break;
            }
            std::memset(frame.pixels(), static_cast<int>(tag & 0xFF), frame.pixelBytes());
            frame.frameTag = static_cast<int32_t>(tag);
            states_[tag] = deliveryState(tag);
            deliveredAt_[tag] = Clock::now();
            manager_.onNewFrame(frame);
            lastDelivered_ = tag;
            if (announce) {
                std::lock_guard<std::mutex> lock(geometryMutex_);
                appliedGeneration_ = applied;
                geometryCv_.notify_all();
            }
        }
        std::lock_guard<std::mutex> lock(geometryMutex_);
        geometryCv_.notify_all();
    }

    DeliveryState deliveryState(uint32_t tag) const
    {
        if (stopped_) return Stopped;
        if (passRunning_) return PassRunning;
        if (lastClaimed_.load() + 1 >= tag) return Idle;
        // A worker started since the last pass has not told its thread yet;
        // the old one is gone ('?'), and the new one is given the benefit of
        // the doubt.
        const char state = threadState(workerTid_.load());
        return state == 'S' ? IdleWorkerAsleep : IdleWorkerRunnable;
    }

    const int id_;
    const Clock::duration frameInterval_;
    const size_t capacity_;

    // The host's images, which outlive the manager (declared last).
    QRV_Image source_;
    QRV_Image probed_{1, 1, En_ImageFormat::Gray8, true, 1};
    QRV_Image rgb_, mirrored_, gray_, binary_;

    // Producer side.
    std::thread producer_;
    std::atomic<bool> producing_{true};
    std::vector<uint8_t> states_;                 // by tag
    std::vector<Clock::time_point> deliveredAt_;  // by tag: when onNewFrame was called
    std::atomic<uint32_t> lastDelivered_{0};
    std::atomic<bool> overflow_{false};
    std::mutex geometryMutex_;
    std::condition_variable geometryCv_;
    Geometry requested_{};
    int requestedGeneration_ = 0;
    int appliedGeneration_ = 0;

    // Controller side.
    std::atomic<bool> stopped_{false};
    int cycles_ = 0;
    int geometryChanges_ = 0;

    // Worker side.
    std::atomic<bool> passRunning_{false};
    std::vector<uint8_t> reported_;             // by tag: a bit per step position
    std::vector<uint32_t> claims_;              // tags in the order passes claimed them
    std::vector<Clock::time_point> claimedAt_;  // by tag: when the pass's first step ran
    size_t claimCount_ = 0;
    std::atomic<uint32_t> lastClaimed_{0};
    std::atomic<pid_t> workerTid_{0};

    CImageProcessMng manager_;
};

bool parse(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        if (i + 1 >= argc) return false;
        const char* value = argv[++i];
        if (flag == "--seconds") {
            options.seconds = std::atoi(value);
        } else if (flag == "--managers") {
            options.managers = std::atoi(value);
        } else if (flag == "--fps") {
            options.fps = std::atoi(value);
        } else if (flag == "--cycle") {
            options.cycleSeconds = std::atof(value);
        } else {
            return false;
        }
    }
    return options.seconds > 0 && options.managers > 0 && options.fps > 0 && options.cycleSeconds > 0;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr, "usage: soak [--seconds N] [--managers N] [--fps N] [--cycle SECONDS]\n");
        return 2;
    }
    CIpmFuncTable* table = CIpmFuncTable::Instance();
    if (table->getAlgorithmList(EnProcessBackend::CPU_Serial, EnIpmModule::User_Custom).size() != 2) {
        std::fprintf(stderr,
                     "soak: the example plug-in was not found (plugins/libCIpmUserCustom.so beside soak)\n");
        return 2;
    }
    // Registered before any worker runs, as the table requires.
    table->registerFunc(EnProcessBackend::CPU_Serial, EnIpmModule::Splitter, kProbeIndex, &Lane::probe,
                        L"soak pass probe");

    std::printf("soak: %d managers, %d fps, a cycle every %.1f s per manager, %d s\n", options.managers,
                options.fps, options.cycleSeconds, options.seconds);
    std::fflush(stdout);
    std::vector<std::unique_ptr<Lane>> lanes;
    for (int id = 0; id < options.managers; ++id) lanes.push_back(std::make_unique<Lane>(id, options));
    for (auto& lane : lanes) lane->startProducer();

    const auto start = Clock::now();
    const auto end = start + std::chrono::seconds(options.seconds);
    const auto cycle =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.cycleSeconds));
    std::vector<Clock::time_point> nextCycle;
    for (int id = 0; id < options.managers; ++id)
        nextCycle.push_back(start + cycle * (id + 1) / options.managers);
    std::vector<size_t> resident;
    resident.reserve(static_cast<size_t>(options.seconds) + 2);
    auto nextSample = start;
    while (Clock::now() < end) {
        const auto now = Clock::now();
        if (now >= nextSample) {
            resident.push_back(residentBytes());
            nextSample += 1s;
        }
        for (size_t id = 0; id < lanes.size(); ++id) {
            if (now < nextCycle[id]) continue;
            lanes[id]->cycle();
            nextCycle[id] += cycle;
        }
        std::this_thread::sleep_for(10ms);
    }

    for (auto& lane : lanes) lane->stopProducer();
    bool ok = true;
    for (auto& lane : lanes) {
        if (!lane->drain()) ok = false;
        lane->stop();
    }
    for (auto& lane : lanes) ok = lane->account() && ok;

    const size_t half = resident.size() / 2;
    const size_t firstMax = half == 0 ? 0 : *std::max_element(resident.begin(), resident.begin() + half);
    const size_t secondMax = half == 0 ? 0 : *std::max_element(resident.begin() + half, resident.end());
    const bool flat = half == 0 || secondMax <= firstMax + firstMax / 10 + (4u << 20);
    std::printf("resident memory: %zu samples, first half max %.1f MiB, second half max %.1f MiB: %s\n",
                resident.size(), firstMax / 1048576.0, secondMax / 1048576.0, flat ? "flat" : "GREW");
    ok = ok && flat;
    std::printf("soak: %s\n", ok ? "PASSED" : "FAILED");
    return ok ? 0 : 1;
}
