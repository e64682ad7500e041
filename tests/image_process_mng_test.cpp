#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "CImageProcessMng.h"
#include "CIpmFuncTable.h"
#include "LogCapture.h"

using ipmcommon::CIpmFuncTable;
using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;
using qrv_img::En_ImageFormat;
using qrv_img::En_YuvLayout;
using qrv_img::QRV_Image;
using namespace std::chrono_literals;
namespace result = ipmcommon::result;

// Allocation probe: every new[] of the watched size is counted, and the first
// failures of them throw std::bad_alloc as an exhausted heap would. Pixel
// buffers are the only allocations of such odd sizes.
namespace {
std::atomic<size_t> watchedSize{SIZE_MAX};
std::atomic<int> watchedAllocations{0};
std::atomic<int> failuresLeft{0};
}  // namespace

void* operator new[](std::size_t size)
{
    if (size == watchedSize.load(std::memory_order_relaxed)) {
        int left = failuresLeft.load(std::memory_order_relaxed);
        while (left > 0 && !failuresLeft.compare_exchange_weak(left, left - 1)) {
        }
        if (left > 0) throw std::bad_alloc();
        watchedAllocations.fetch_add(1, std::memory_order_relaxed);
    }
    if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}

namespace {

constexpr auto kTimeout = 20s;
constexpr int kProbeIndex = 4242;
constexpr auto kSerial = EnProcessBackend::CPU_Serial;
constexpr auto kParallel = EnProcessBackend::CPU_Parallel;

void watchAllocations(size_t size, int failures = 0)
{
    watchedSize = SIZE_MAX;
    watchedAllocations = 0;
    failuresLeft = failures;
    watchedSize = size;
}

// ThreadSanitizer and qemu are an order of magnitude slower.
bool slowBuild()
{
#ifdef QRV_TSAN_BUILD
    return true;
#else
    const char* emulator = std::getenv("QRV_TEST_EMULATOR");
    return emulator != nullptr && *emulator != '\0';
#endif
}

int scaled(int count, int slowCount)
{
    return slowBuild() ? slowCount : count;
}

template <typename Condition>
bool eventually(Condition condition)
{
    const auto deadline = std::chrono::steady_clock::now() + kTimeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Every byte of a frame derives from its tag: the frame is a window into a
// fixed run of random bytes, starting at an offset set by the tag. Frames of
// different tags differ in nearly every byte, so a frame mixing two tags is
// caught, and stamping or checking one costs a memcpy or a memcmp.
constexpr size_t kPatternBytes = 1 << 16;

const uint8_t* patternFor(int32_t tag)
{
    static const std::vector<uint8_t> run = [] {
        std::vector<uint8_t> bytes(2 * kPatternBytes);
        uint32_t state = 12345;
        for (size_t i = 0; i < kPatternBytes; ++i) {
            state = state * 1664525u + 1013904223u;
            bytes[i] = bytes[i + kPatternBytes] = static_cast<uint8_t>(state >> 24);
        }
        return bytes;
    }();
    return run.data() + (static_cast<uint32_t>(tag) * 97u) % kPatternBytes;
}

void stamp(QRV_Image& image, int32_t tag)
{
    image.frameTag = tag;
    std::memcpy(image.pixels(), patternFor(tag), image.pixelBytes());
}

bool carriesItsTag(const QRV_Image& image)
{
    if (image.pixels() == nullptr || image.pixelBytes() == 0) return false;
    return std::memcmp(image.pixels(), patternFor(image.frameTag), image.pixelBytes()) == 0;
}

QRV_Image makeFrame(uint32_t width, uint32_t height, int32_t tag,
                    En_ImageFormat format = En_ImageFormat::YUV422_8,
                    En_YuvLayout layout = En_YuvLayout::YUYV)
{
    QRV_Image frame(width, height, format, true, 1);
    frame.yuvLayout = static_cast<int32_t>(layout);
    stamp(frame, tag);
    return frame;
}

// A test step: the table calls the StepBody that user1 points to.
using StepBody = std::function<int(const QRV_Image& source, QRV_Image& destination)>;

class ProbeRegistration : public ::testing::Environment {
public:
    void SetUp() override
    {
        CIpmFuncTable::Instance()->registerFunc(
            kSerial, EnIpmModule::Splitter, kProbeIndex,
            [](const QRV_Image* source, QRV_Image* destination, void* user1, void*) {
                return (*static_cast<StepBody*>(user1))(*source, *destination);
            },
            L"test step");
    }
};
::testing::Environment* const probeRegistration =
    ::testing::AddGlobalTestEnvironment(new ProbeRegistration);

int addStep(CImageProcessMng& manager, StepBody& body, QRV_Image* source, QRV_Image* destination)
{
    return manager.addProcList(kSerial, EnIpmModule::Splitter, kProbeIndex, source,
                               destination, &body, nullptr);
}

StepBody succeeding()
{
    return [](const QRV_Image&, QRV_Image&) { return result::Success; };
}

// What the displayer callback received, with a copy of the image's pixels.
struct Report {
    int tag;
    int position;
    const QRV_Image* image;
    std::vector<uint8_t> pixels;
};

class Reports {
public:
    CImageProcessMng::DisplayerCallback callback()
    {
        return [this](int tag, int position, const QRV_Image& image) {
            std::vector<uint8_t> pixels;
            if (image.pixels() != nullptr) pixels.assign(image.pixels(), image.pixels() + image.pixelBytes());
            std::lock_guard<std::mutex> lock(mutex_);
            list_.push_back({tag, position, &image, std::move(pixels)});
        };
    }
    std::vector<Report> list() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return list_;
    }
    std::vector<int> tags(int position = 0) const
    {
        std::vector<int> out;
        for (const Report& report : list()) {
            if (report.position == position) out.push_back(report.tag);
        }
        return out;
    }
    bool waitForTag(int tag, int position = 0) const
    {
        return eventually([&] {
            const std::vector<int> seen = tags(position);
            return std::find(seen.begin(), seen.end(), tag) != seen.end();
        });
    }

private:
    mutable std::mutex mutex_;
    std::vector<Report> list_;
};

// Holds every pass that reaches it until opened (or until the timeout, so
// that a failing test cannot hang).
class Gate {
public:
    void pass()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        ++arrivals_;
        cv_.notify_all();
        cv_.wait_for(lock, kTimeout, [this] { return open_; });
    }
    bool waitForArrivals(int count)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, kTimeout, [&] { return arrivals_ >= count; });
    }
    void open()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        cv_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    int arrivals_ = 0;
    bool open_ = false;
};

// Tags of the frames that a step saw, and whether each was intact.
class SeenFrames {
public:
    StepBody body(Gate* gate = nullptr)
    {
        return [this, gate](const QRV_Image& source, QRV_Image&) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                tags_.push_back(source.frameTag);
                if (!carriesItsTag(source)) ++torn_;
            }
            if (gate != nullptr) gate->pass();
            return result::Success;
        };
    }
    std::vector<int> tags() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return tags_;
    }
    int torn() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return torn_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<int> tags_;
    int torn_ = 0;
};

// Images and observers outlive the manager, which is declared last.
class Manager : public ::testing::Test {
protected:
    QRV_Image source;
    QRV_Image destination{2, 2, En_ImageFormat::Gray8, true, 1};
    QRV_Image frame = makeFrame(16, 4, 1);
    Gate gate;
    Reports reports;
    SeenFrames seen;
    StepBody body = seen.body();
    CImageProcessMng manager;

    void deliver(int32_t tag)
    {
        stamp(frame, tag);
        manager.onNewFrame(frame);
    }
};

size_t threadCount()
{
    size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++count;
    return count;
}

std::vector<std::string> textsAt(const qrvtest::LogCapture& capture, qrvlog::LogLevel level)
{
    std::vector<std::string> texts;
    for (const auto& record : capture.records()) {
        if (record.file != "CImageProcessMng" || record.level != level) continue;
        texts.push_back(qrvtest::utf8(record.text));
    }
    return texts;
}

std::string sourceLine(int line)
{
    std::ifstream in(QRV_SOURCE_DIR "/ipm/CImageProcessMng.cpp");
    std::string text;
    for (int i = 0; i < line && std::getline(in, text); ++i) {
    }
    return text;
}

}  // namespace

TEST(ManagerConverterChain, ReportsEveryStepInOrderWithTheConvertersOwnPixels)
{
    // A multiple of 4, as the parallel kernels need, but of no vector width.
    constexpr uint32_t width = 68, height = 5;
    const QRV_Image frame = makeFrame(width, height, 77);
    CIpmFuncTable* table = CIpmFuncTable::Instance();
    const auto direct = [&](EnProcessBackend backend, int index, const QRV_Image& from,
                            En_ImageFormat format) {
        QRV_Image to(width, height, format, true, 1);
        EXPECT_EQ(table->process(backend, EnIpmModule::Converter, index, &from, &to, nullptr, nullptr),
                  result::Success);
        return to;
    };
    // The gray kernel equals the serial formula; the parallel YUV kernel has
    // arithmetic of its own, so its reference is the same function called
    // directly.
    const QRV_Image referenceRgb = direct(kSerial, 0, frame, En_ImageFormat::RGB888);
    const QRV_Image referenceGray = direct(kSerial, 2, referenceRgb, En_ImageFormat::Gray8);
    const QRV_Image referenceParallelRgb = direct(kParallel, 0, frame, En_ImageFormat::RGB888);

    QRV_Image source;
    QRV_Image rgb(width, height, En_ImageFormat::RGB888, true, 1);
    QRV_Image gray(width, height, En_ImageFormat::Gray8, true, 1);
    QRV_Image rgbAgain(width, height, En_ImageFormat::RGB888, true, 1);
    Reports reports;
    CImageProcessMng manager;
    manager.addProcList(kSerial, EnIpmModule::Converter, 0, &source, &rgb, nullptr, nullptr);
    manager.addProcList(kParallel, EnIpmModule::Converter, 2, nullptr, &gray, nullptr, nullptr);
    manager.addProcList(kParallel, EnIpmModule::Converter, 0, &source, &rgbAgain, nullptr, nullptr);
    manager.registerDisplayerCallback(reports.callback());
    ASSERT_TRUE(manager.initialize());
    manager.onNewFrame(frame);
    ASSERT_TRUE(reports.waitForTag(77, 2));
    manager.stop();

    const auto bytes = [](const QRV_Image& image) {
        return std::vector<uint8_t>(image.pixels(), image.pixels() + image.pixelBytes());
    };
    const std::vector<Report> list = reports.list();
    ASSERT_EQ(list.size(), 3u);
    const QRV_Image* expectedImages[] = {&rgb, &gray, &rgbAgain};
    const QRV_Image* expectedPixels[] = {&referenceRgb, &referenceGray, &referenceParallelRgb};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(list[i].tag, 77);
        EXPECT_EQ(list[i].position, i);
        EXPECT_EQ(list[i].image, expectedImages[i]);
        EXPECT_EQ(list[i].pixels, bytes(*expectedPixels[i])) << "step " << i;
    }
}

TEST_F(Manager, FramesArrivingDuringAPassAreFollowedByOnePassOnTheNewest)
{
    body = seen.body(&gate);
    addStep(manager, body, &source, &destination);
    manager.registerDisplayerCallback(reports.callback());
    manager.initialize();
    deliver(1);
    ASSERT_TRUE(gate.waitForArrivals(1));
    for (int tag : {2, 3, 4}) deliver(tag);
    gate.open();
    ASSERT_TRUE(reports.waitForTag(4));
    // A pass that is still owed shows up before the next frame's.
    deliver(5);
    ASSERT_TRUE(reports.waitForTag(5));
    manager.stop();
    EXPECT_EQ(seen.tags(), (std::vector<int>{1, 4, 5}));
    EXPECT_EQ(reports.tags(), (std::vector<int>{1, 4, 5}));
    EXPECT_EQ(seen.torn(), 0);
}

TEST_F(Manager, FirstSourceIsReallocatedOnlyWhenGeometryOrFormatChanges)
{
    struct Seen {
        const uint8_t* buffer;
        int32_t layout;
        bool intact;
    };
    std::vector<Seen> passes;  // written by the worker, read after each report
    body = [&](const QRV_Image& s, QRV_Image&) {
        passes.push_back({s.data.get(), s.yuvLayout, carriesItsTag(s)});
        return result::Success;
    };
    addStep(manager, body, &source, &destination);
    manager.registerDisplayerCallback(reports.callback());
    manager.initialize();
    const struct {
        uint32_t width;
        En_ImageFormat format;
        En_YuvLayout layout;
        bool reallocates;
    } frames[] = {
        {16, En_ImageFormat::YUV422_8, En_YuvLayout::YUYV, true},
        {16, En_ImageFormat::YUV422_8, En_YuvLayout::YUYV, false},
        {24, En_ImageFormat::YUV422_8, En_YuvLayout::YUYV, true},
        {24, En_ImageFormat::YUV422_8, En_YuvLayout::YUYV, false},
        {24, En_ImageFormat::YUV422_8, En_YuvLayout::UYVY, false},
        {24, En_ImageFormat::RGB888, En_YuvLayout::UYVY, true},
        {24, En_ImageFormat::RGB888, En_YuvLayout::UYVY, false},
    };
    for (int i = 0; i < static_cast<int>(std::size(frames)); ++i) {
        manager.onNewFrame(makeFrame(frames[i].width, 3, i + 1, frames[i].format, frames[i].layout));
        ASSERT_TRUE(reports.waitForTag(i + 1));
        const Seen pass = passes.back();
        EXPECT_TRUE(pass.intact) << "frame " << i;
        EXPECT_EQ(pass.layout, static_cast<int32_t>(frames[i].layout)) << "frame " << i;
        if (i > 0) {
            EXPECT_EQ(pass.buffer != passes[i - 1].buffer, frames[i].reallocates) << "frame " << i;
        }
    }
}

TEST_F(Manager, SteadyFramesAllocateNothingPerFrame)
{
    // Odd sizes, so that only pixel buffers have them.
    QRV_Image first = makeFrame(38, 7, 0);
    QRV_Image second = makeFrame(38, 9, 0);
    addStep(manager, body, &source, &destination);
    manager.registerDisplayerCallback(reports.callback());
    manager.initialize();
    const int frames = 40;
    int tag = 0;
    for (QRV_Image* image : {&first, &second}) {
        watchAllocations(image->pixelBytes());
        for (int i = 0; i < frames; ++i) {
            stamp(*image, ++tag);
            manager.onNewFrame(*image);
        }
        ASSERT_TRUE(reports.waitForTag(tag));
        // At most the three slots and the first source, however many frames.
        EXPECT_LE(watchedAllocations.load(), 4) << image->height << " rows";
        EXPECT_GE(watchedAllocations.load(), 2) << image->height << " rows";
    }
    watchAllocations(SIZE_MAX);
    EXPECT_EQ(seen.torn(), 0);
}

TEST_F(Manager, FastProducerNeverHandsATornFrameToAPass)
{
    const int frames = scaled(20000, 5000);
    std::atomic<int> lastTag{0};
    std::atomic<int> torn{0}, backwards{0};
    body = [&](const QRV_Image& s, QRV_Image&) {
        if (!carriesItsTag(s)) ++torn;
        if (s.frameTag <= lastTag.load()) ++backwards;
        lastTag = s.frameTag;
        return result::Success;
    };
    addStep(manager, body, &source, &destination);
    manager.initialize();
    // Large enough that the copies of the producer and of a pass take long
    // enough to overlap if they ever shared a slot.
    QRV_Image produced = makeFrame(128, 128, 0);
    ASSERT_LE(produced.pixelBytes(), kPatternBytes);
    std::thread producer([&] {
        for (int tag = 1; tag <= frames; ++tag) {
            stamp(produced, tag);
            manager.onNewFrame(produced);
        }
    });
    producer.join();
    EXPECT_TRUE(eventually([&] { return lastTag.load() == frames; })) << "last pass on " << lastTag.load();
    manager.stop();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(backwards.load(), 0);
}

TEST_F(Manager, ProducerIsNotBlockedByAPassThatNeverEnds)
{
    body = seen.body(&gate);
    addStep(manager, body, &source, &destination);
    manager.registerDisplayerCallback(reports.callback());
    manager.initialize();
    deliver(1);
    ASSERT_TRUE(gate.waitForArrivals(1));
    auto producer = std::async(std::launch::async, [&] {
        for (int tag = 2; tag <= 1001; ++tag) deliver(tag);
    });
    const bool returned = producer.wait_for(kTimeout) == std::future_status::ready;
    gate.open();
    producer.wait();
    EXPECT_TRUE(returned) << "onNewFrame waited for the pass";
    EXPECT_TRUE(reports.waitForTag(1001));
    EXPECT_EQ(seen.tags(), (std::vector<int>{1, 1001}));
}

TEST_F(Manager, RunStartsOneWorkerAndStopEndsIt)
{
    // The first initialize in the process starts whatever threads the
    // machine's GPU runtimes keep, and sanitizer runtimes start one of their
    // own at the first thread creation.
    manager.initialize();
    manager.stop();
    const size_t before = threadCount();
    manager.stop();
    EXPECT_EQ(threadCount(), before) << "stop without a worker";
    manager.run();
    EXPECT_EQ(threadCount(), before + 1);
    manager.run();
    manager.initialize();
    EXPECT_EQ(threadCount(), before + 1) << "run and initialize on a running manager";
    manager.stop();
    EXPECT_TRUE(eventually([&] { return threadCount() == before; }));
    manager.stop();
    manager.run();
    EXPECT_EQ(threadCount(), before + 1) << "a stop without a worker does not keep the next one from running";
}

TEST_F(Manager, FrameDeliveredWhileStoppedIsProcessedByTheNextRun)
{
    addStep(manager, body, &source, &destination);
    manager.registerDisplayerCallback(reports.callback());
    manager.initialize();
    manager.stop();
    deliver(1);
    deliver(2);
    manager.run();
    ASSERT_TRUE(reports.waitForTag(2));
    deliver(3);
    ASSERT_TRUE(reports.waitForTag(3));
    EXPECT_EQ(seen.tags(), (std::vector<int>{2, 3}));
}

TEST_F(Manager, DeinitializeEmptiesTheListAndKeepsTheCallback)
{
    StepBody other = succeeding();
    QRV_Image otherDestination(1, 1, En_ImageFormat::Gray8, true, 1);
    addStep(manager, body, &source, &destination);
    manager.registerDisplayerCallback(reports.callback());
    manager.initialize();
    manager.deinitialize();
    addStep(manager, other, &source, &otherDestination);
    manager.run();
    deliver(1);
    ASSERT_TRUE(reports.waitForTag(1));
    EXPECT_TRUE(seen.tags().empty()) << "the old step was still in the list";
    EXPECT_EQ(reports.list().front().image, &otherDestination);
}

TEST_F(Manager, SurvivesRunStopCyclesWithFramesInFlight)
{
    const int cycles = scaled(1000, 150);
    addStep(manager, body, &source, &destination);
    manager.registerDisplayerCallback(reports.callback());
    manager.initialize();
    std::atomic<bool> done{false};
    std::atomic<int> delivered{0};
    std::thread producer([&] {
        QRV_Image produced = makeFrame(16, 4, 0);
        for (int tag = 1; !done.load(); ++tag) {
            stamp(produced, tag);
            manager.onNewFrame(produced);
            delivered = tag;
        }
    });
    for (int i = 0; i < cycles; ++i) {
        manager.run();
        manager.stop();
    }
    done = true;
    producer.join();
    manager.run();
    ASSERT_TRUE(reports.waitForTag(delivered.load())) << "the newest frame is processed after the cycles";
    EXPECT_EQ(seen.torn(), 0);
    const std::vector<int> tags = seen.tags();
    EXPECT_TRUE(std::is_sorted(tags.begin(), tags.end()));
    EXPECT_EQ(std::adjacent_find(tags.begin(), tags.end()), tags.end()) << "a frame was processed twice";
}

TEST(ManagerLifecycle, DestroyingARunningManagerWaitsForThePassInProgress)
{
    QRV_Image source, destination(1, 1, En_ImageFormat::Gray8, true, 1);
    Gate gate;
    Reports reports;
    StepBody body = [&gate](const QRV_Image&, QRV_Image&) {
        gate.pass();
        return result::Success;
    };
    auto manager = std::make_unique<CImageProcessMng>();
    addStep(*manager, body, &source, &destination);
    manager->registerDisplayerCallback(reports.callback());
    manager->initialize();
    manager->onNewFrame(makeFrame(4, 2, 9));
    ASSERT_TRUE(gate.waitForArrivals(1));
    auto destroyed = std::async(std::launch::async, [&] { manager.reset(); });
    EXPECT_EQ(destroyed.wait_for(100ms), std::future_status::timeout) << "the destructor left a pass running";
    gate.open();
    destroyed.wait();
    EXPECT_EQ(reports.tags(), std::vector<int>{9}) << "the callback was still there when the pass ended";
}

TEST(ManagerLifecycle, ManagersWithTheirOwnProducersShareTheTableWithoutCrosstalk)
{
    constexpr int kManagers = 4;
    const int frames = scaled(500, 100);
    struct Lane {
        QRV_Image source;
        QRV_Image destination{1, 1, En_ImageFormat::Gray8, true, 1};
        Reports reports;
        SeenFrames seen;
        StepBody body = seen.body();
        CImageProcessMng manager;
    };
    std::vector<std::unique_ptr<Lane>> lanes;
    for (int m = 0; m < kManagers; ++m) {
        lanes.push_back(std::make_unique<Lane>());
        Lane& lane = *lanes.back();
        addStep(lane.manager, lane.body, &lane.source, &lane.destination);
        lane.manager.registerDisplayerCallback(lane.reports.callback());
    }
    std::vector<std::thread> producers;
    for (int m = 0; m < kManagers; ++m) {
        producers.emplace_back([&, m] {
            Lane& lane = *lanes[m];
            lane.manager.initialize();
            QRV_Image produced = makeFrame(8 + 2 * m, 3, 0);
            for (int i = 1; i <= frames; ++i) {
                stamp(produced, m * 100000 + i);
                lane.manager.onNewFrame(produced);
            }
        });
    }
    for (auto& producer : producers) producer.join();
    for (int m = 0; m < kManagers; ++m) {
        Lane& lane = *lanes[m];
        EXPECT_TRUE(lane.reports.waitForTag(m * 100000 + frames)) << "manager " << m;
        lane.manager.stop();
        EXPECT_EQ(lane.seen.torn(), 0) << "manager " << m;
        for (int tag : lane.seen.tags()) ASSERT_EQ(tag / 100000, m) << "manager " << m << " saw " << tag;
        for (const Report& report : lane.reports.list()) ASSERT_EQ(report.image, &lane.destination);
    }
}

TEST_F(Manager, NullDestinationIsRefusedAndNullSourceChainsToThePreviousStep)
{
    QRV_Image second(1, 1, En_ImageFormat::Gray8, true, 1);
    std::vector<const QRV_Image*> sources;  // worker-written, read after the reports
    StepBody recordSource = [&](const QRV_Image& s, QRV_Image&) {
        sources.push_back(&s);
        return result::Success;
    };
    EXPECT_EQ(addStep(manager, body, &source, &destination), result::Success);
    EXPECT_EQ(addStep(manager, body, &source, nullptr), result::MissingImage);
    EXPECT_EQ(addStep(manager, recordSource, nullptr, &second), result::Success);
    manager.registerDisplayerCallback(reports.callback());
    manager.initialize();
    for (int tag : {1, 2}) {
        deliver(tag);
        ASSERT_TRUE(reports.waitForTag(tag, 1));
    }
    EXPECT_TRUE(reports.tags(2).empty()) << "the refused step is not in the list";
    EXPECT_EQ(sources, (std::vector<const QRV_Image*>{&destination, &destination}));
}

TEST_F(Manager, FailedStepsAreLoggedAndThePassGoesOn)
{
    qrvtest::LogCapture capture;
    StepBody returnsSix = [](const QRV_Image&, QRV_Image&) { return result::FormatMismatch; };
    StepBody throws = [](const QRV_Image&, QRV_Image&) -> int { throw std::runtime_error("step failure"); };
    StepBody last = seen.body();
    QRV_Image scratch(1, 1, En_ImageFormat::Gray8, true, 1);
    const struct {
        int backend, module, index;
        StepBody* body;
    } failing[] = {
        {9, 2, kProbeIndex, &returnsSix},  // bad backend
        {0, 7, kProbeIndex, &returnsSix},  // bad module
        {0, 2, kProbeIndex + 1, &returnsSix},  // nothing at the index
        {0, 2, kProbeIndex, &returnsSix},
        {0, 2, kProbeIndex, &throws},
    };
    addStep(manager, body, &source, &destination);
    for (const auto& step : failing) {
        manager.addProcList(static_cast<EnProcessBackend>(step.backend),
                            static_cast<EnIpmModule>(step.module), step.index, &source, &scratch, step.body,
                            nullptr);
    }
    addStep(manager, last, &source, &scratch);
    manager.registerDisplayerCallback(reports.callback());
    manager.initialize();
    for (int tag : {1, 2}) {
        deliver(tag);
        ASSERT_TRUE(reports.waitForTag(tag, 6)) << "the step after the failures runs, frame " << tag;
    }
    manager.stop();
    const std::vector<std::string> errors = {"process error: 2", "process error: 3", "process error: 4",
                                             "process error: 6", "process error: 9"};
    std::vector<std::string> expected = errors;
    expected.insert(expected.end(), errors.begin(), errors.end());
    std::vector<std::string> logged;
    for (const std::string& text : textsAt(capture, qrvlog::LogLevel::Trace)) {
        if (text.rfind("process error", 0) == 0) logged.push_back(text);
    }
    EXPECT_EQ(logged, expected);
    for (const Report& report : reports.list()) {
        EXPECT_TRUE(report.position == 0 || report.position == 6)
            << "failed step " << report.position << " reported";
    }
    EXPECT_EQ(seen.tags(), (std::vector<int>{1, 1, 2, 2})) << "the first and the last step";
}

TEST_F(Manager, FirstStepWithoutSourceFailsWithEightAndItsSuccessorUsesItsDestination)
{
    qrvtest::LogCapture capture;
    const QRV_Image* seenSource = nullptr;
    StepBody recordSource = [&](const QRV_Image& s, QRV_Image&) {
        seenSource = &s;
        return result::Success;
    };
    addStep(manager, body, nullptr, &destination);
    addStep(manager, recordSource, nullptr, &source);
    manager.registerDisplayerCallback(reports.callback());
    manager.initialize();
    deliver(1);
    ASSERT_TRUE(reports.waitForTag(1, 1));
    manager.stop();
    EXPECT_TRUE(seen.tags().empty());
    EXPECT_EQ(seenSource, &destination);
    const std::vector<std::string> traces = textsAt(capture, qrvlog::LogLevel::Trace);
    EXPECT_EQ(std::count(traces.begin(), traces.end(), "process error: 8"), 1);
}

TEST_F(Manager, NothingIsProcessedWithoutInitializeOrWithAnEmptyList)
{
    addStep(manager, body, &source, &destination);
    manager.registerDisplayerCallback(reports.callback());
    manager.run();
    deliver(1);
    CImageProcessMng empty;
    empty.registerDisplayerCallback(reports.callback());
    empty.initialize();
    empty.onNewFrame(frame);
    std::this_thread::sleep_for(100ms);
    EXPECT_TRUE(seen.tags().empty());
    EXPECT_TRUE(reports.list().empty());
    // The same manager processes once it is initialized.
    manager.stop();
    manager.initialize();
    deliver(2);
    ASSERT_TRUE(reports.waitForTag(2));
    EXPECT_EQ(seen.tags(), std::vector<int>{2});
}

TEST_F(Manager, ThrowingDisplayerIsLoggedAndTheWorkerGoesOn)
{
    qrvtest::LogCapture capture;
    QRV_Image second(1, 1, En_ImageFormat::Gray8, true, 1);
    StepBody other = succeeding();
    addStep(manager, body, &source, &destination);
    addStep(manager, other, nullptr, &second);
    std::atomic<int> secondReports{0};
    manager.registerDisplayerCallback([&](int tag, int position, const QRV_Image&) {
        if (position == 1) {
            ++secondReports;
            return;
        }
        if (tag == 1) throw std::runtime_error("display is gone");
        throw 42;
    });
    manager.initialize();
    deliver(1);
    ASSERT_TRUE(eventually([&] { return secondReports.load() == 1; })) << "the step after the callback ran";
    deliver(2);
    ASSERT_TRUE(eventually([&] { return secondReports.load() == 2; })) << "the worker still runs";
    manager.stop();
    const std::vector<std::string> errors = textsAt(capture, qrvlog::LogLevel::Error);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_NE(errors[0].find("display is gone"), std::string::npos) << errors[0];
    EXPECT_NE(errors[1].find("unknown"), std::string::npos) << errors[1];
}

TEST_F(Manager, FailedAllocationOfTheFirstSourceIsLoggedAndThePassGoesOn)
{
    qrvtest::LogCapture capture;
    frame = makeFrame(38, 11, 0);
    addStep(manager, body, &source, &destination);
    manager.registerDisplayerCallback(reports.callback());
    manager.initialize();
    manager.stop();
    deliver(1);  // buffered while stopped, so the next allocation is the first source's
    watchAllocations(frame.pixelBytes(), 1);
    manager.run();
    ASSERT_TRUE(reports.waitForTag(1)) << "the step ran without its frame";
    deliver(2);
    ASSERT_TRUE(reports.waitForTag(2));
    watchAllocations(SIZE_MAX);
    manager.stop();
    EXPECT_EQ(seen.tags(), (std::vector<int>{0, 2})) << "the source kept no frame, then received the next";
    EXPECT_EQ(seen.torn(), 1);
    const std::vector<std::string> errors = textsAt(capture, qrvlog::LogLevel::Error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find(std::bad_alloc().what()), std::string::npos) << errors[0];
}

TEST_F(Manager, FailedAllocationOfASlotDropsThatFrameOnly)
{
    qrvtest::LogCapture capture;
    frame = makeFrame(38, 13, 0);
    addStep(manager, body, &source, &destination);
    manager.registerDisplayerCallback(reports.callback());
    manager.initialize();
    watchAllocations(frame.pixelBytes(), 1);
    deliver(1);
    deliver(2);
    ASSERT_TRUE(reports.waitForTag(2));
    watchAllocations(SIZE_MAX);
    manager.stop();
    EXPECT_EQ(seen.tags(), std::vector<int>{2});
    EXPECT_EQ(seen.torn(), 0);
    const std::vector<std::string> errors = textsAt(capture, qrvlog::LogLevel::Error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find("frame 1"), std::string::npos) << errors[0];
    EXPECT_NE(errors[0].find(std::bad_alloc().what()), std::string::npos) << errors[0];
}

TEST(ManagerLog, OperationsLogCalledWithTheirSignatureAndLine)
{
    qrvtest::LogCapture capture;
    {
        QRV_Image destination(1, 1, En_ImageFormat::Gray8, true, 1);
        CImageProcessMng manager;
        manager.addProcList(kSerial, EnIpmModule::Splitter, 1, nullptr, &destination,
                            nullptr, nullptr);
        manager.clearProcList();
        manager.registerDisplayerCallback({});
        manager.run();
        manager.onNewFrame(makeFrame(2, 1, 1));
        manager.stop();
        manager.initialize();
        manager.deinitialize();
    }
    std::vector<std::string> functions;
    for (const auto& record : capture.records()) {
        if (record.file != "CImageProcessMng") continue;
        EXPECT_EQ(record.level, qrvlog::LogLevel::Trace);
        EXPECT_EQ(record.text, L"Called");
        EXPECT_NE(sourceLine(record.line).find("IPM_LOG(Trace, L\"Called\")"), std::string::npos)
            << record.function << " logged line " << record.line;
        functions.push_back(record.function);
    }
    const std::vector<std::string> expected = {
        "CImageProcessMng::CImageProcessMng()",
        "bool CImageProcessMng::run()",
        "void CImageProcessMng::onNewFrame(const qrv_img::QRV_Image&)",
        "void CImageProcessMng::stop()",
        "bool CImageProcessMng::initialize()",
        "bool CImageProcessMng::run()",
        "void CImageProcessMng::deinitialize()",
        "void CImageProcessMng::stop()",
        "CImageProcessMng::~CImageProcessMng()",
        "void CImageProcessMng::deinitialize()",
        "void CImageProcessMng::stop()",
    };
    EXPECT_EQ(functions, expected);
}
