// The processing manager as a host drives it: built-in converters as steps,
// frames from a producer, reports to the displayer callback.
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <future>
#include <stdexcept>

#include "CImageProcessMng.h"
#include "CIpmFuncTable.h"
#include "Converter/CConverter.h"
#include "TestSupport.h"

using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using namespace std::chrono_literals;

// Pixel buffers of the watched size (no other allocation has it) are counted,
// and the next one can be made to fail as on an exhausted heap.
static std::atomic<size_t> watchedSize{0};
static std::atomic<int> watchedAllocations{0};
static std::atomic<bool> failNext{false};

void* operator new[](std::size_t size)
{
    if (size == watchedSize && failNext.exchange(false)) throw std::bad_alloc();
    if (size == watchedSize) ++watchedAllocations;
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

constexpr int kSerial = 0, kParallel = 1, kConverter = 0;
constexpr int kToRgb = int(CConverter::F::YUV422_8_To_RGB888), kToGray = int(CConverter::F::RGB888_To_Gray8);
constexpr auto kSafety = 20s;  // only a failing test waits this long

struct Report {
    int tag, position;
    bool intact;  // every byte of the image equals the tag's low byte
};

// The displayer: records what it receives, and holds the worker in the report
// of holdTag until release().
class Reports {
public:
    int holdTag = -1;          // set while no worker runs
    std::vector<Report> list;  // read once the worker has stopped

    void operator()(int tag, int position, const QRV_Image& image)
    {
        const uint8_t* pixels = image.pixels();
        const bool intact = pixels != nullptr && std::all_of(pixels, pixels + image.pixelBytes(),
                                                             [&](uint8_t b) { return b == (tag & 0xFF); });
        std::unique_lock<std::mutex> lock(mutex_);
        list.push_back({tag, position, intact});
        cv_.notify_all();
        const bool released = tag != holdTag || cv_.wait_for(lock, kSafety, [this] { return released_; });
        EXPECT_TRUE(released) << "the producer waited for the pass";
    }
    void release()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        released_ = true;
        cv_.notify_all();
    }
    bool await(int tag, int position = 0)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, kSafety, [&] {
            return std::any_of(list.begin(), list.end(),
                               [&](const Report& r) { return r.tag == tag && r.position == position; });
        });
    }
    // Every pass saw a whole frame, newer than the one before: none torn, none twice.
    void expectIntactAndRising() const
    {
        for (size_t i = 0; i < list.size(); ++i) {
            ASSERT_TRUE(list[i].intact && (i == 0 || list[i - 1].tag < list[i].tag))
                << "frame " << list[i].tag;
        }
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool released_ = false;
};

std::vector<std::string> texts(const qrvtest::LogCapture& capture, qrvlog::LogLevel level)
{
    std::vector<std::string> texts;
    for (const auto& r : capture.records()) {
        if (r.file == "CImageProcessMng" && r.level == level && r.text != L"Called") {
            texts.push_back(qrvlog::toUtf8(r.text));
        }
    }
    return texts;
}

// Frames are RGB with every byte equal to the tag's low byte, and the gray
// converter keeps a gray pixel's value: a step's gray image carries its frame's
// tag in every byte, and a frame mixing two shows. Images and observers outlive
// the manager, declared last.
class Manager : public ::testing::Test {
protected:
    QRV_Image source, gray{125, 61, En_ImageFormat::Gray8, true, 1};
    QRV_Image frame{125, 61, En_ImageFormat::RGB888, true, 1};
    Reports reports;
    CImageProcessMng manager;

    int addStep(QRV_Image* destination, int backend = kSerial, int module = kConverter, int index = kToGray)
    {
        return manager.addProcList(ipmcommon::EnProcessBackend(backend), ipmcommon::EnIpmModule(module),
                                   index, &source, destination, nullptr, nullptr);
    }
    void deliver(int tag)
    {
        frame.frameTag = tag;
        std::memset(frame.pixels(), tag & 0xFF, frame.pixelBytes());
        manager.onNewFrame(frame);
    }
};

}  // namespace

TEST_F(Manager, ConverterChainReportsEveryStepInOrderWithTheConvertersPixels)
{
    QRV_Image yuv(16, 4, En_ImageFormat::YUV422_8, true, 1), rgb(16, 4, En_ImageFormat::RGB888, true, 1);
    QRV_Image expected[] = {{16, 4, En_ImageFormat::RGB888, true, 1},
                            {16, 4, En_ImageFormat::Gray8, true, 1}};
    gray = QRV_Image(16, 4, En_ImageFormat::Gray8, true, 1);
    for (size_t i = 0; i < yuv.pixelBytes(); ++i) yuv.pixels()[i] = static_cast<uint8_t>(i * 37);
    yuv.frameTag = 77;
    addStep(&rgb, kSerial, kConverter, kToRgb);
    // A step without a source takes the previous step's destination.
    manager.addProcList(ipmcommon::EnProcessBackend::CPU_Parallel, ipmcommon::EnIpmModule::Converter, kToGray,
                        nullptr, &gray, nullptr, nullptr);
    manager.registerDisplayerCallback([&](int tag, int position, const QRV_Image& image) {
        EXPECT_EQ(&image, position == 0 ? &rgb : &gray);
        reports(tag, position, image);
    });
    ASSERT_TRUE(manager.initialize());
    manager.onNewFrame(yuv);
    ASSERT_TRUE(reports.await(77, 1));
    manager.stop();
    ASSERT_EQ(reports.list.size(), 2u);
    EXPECT_TRUE(reports.list[0].tag == 77 && reports.list[1].tag == 77 && reports.list[1].position == 1);
    auto* table = ipmcommon::CIpmFuncTable::Instance();
    table->process(ipmcommon::EnProcessBackend::CPU_Serial, ipmcommon::EnIpmModule::Converter, kToRgb, &yuv,
                   &expected[0], nullptr, nullptr);
    table->process(ipmcommon::EnProcessBackend::CPU_Parallel, ipmcommon::EnIpmModule::Converter, kToGray,
                   &expected[0], &expected[1], nullptr, nullptr);
    EXPECT_EQ(std::memcmp(rgb.pixels(), expected[0].pixels(), rgb.pixelBytes()), 0);
    EXPECT_EQ(std::memcmp(gray.pixels(), expected[1].pixels(), gray.pixelBytes()), 0);
}

TEST_F(Manager, HeldPassBlocksNeitherTheProducerNorNewestWinsAndStopWaitsForIt)
{
    reports.holdTag = 1;
    addStep(&gray);
    manager.registerDisplayerCallback(std::ref(reports));
    manager.initialize();
    deliver(1);
    ASSERT_TRUE(reports.await(1));
    // Were onNewFrame to wait for the pass, the held callback would time out.
    for (int tag = 2; tag <= 100; ++tag) deliver(tag);
    auto stopped = std::async(std::launch::async, [&] { manager.stop(); });
    // A stop that does not wait returns meanwhile; one that waits never fails here.
    EXPECT_EQ(stopped.wait_for(50ms), std::future_status::timeout);
    reports.release();
    stopped.get();
    manager.run();  // the pending frame is the newest; the others were replaced
    ASSERT_TRUE(reports.await(100));
    deliver(101);
    ASSERT_TRUE(reports.await(101));
    manager.stop();
    ASSERT_EQ(reports.list.size(), 3u);
    EXPECT_EQ(reports.list[1].tag, 100);
    reports.expectIntactAndRising();
}

TEST_F(Manager, FastProducerAcrossRunStopCyclesNeverHandsAPassATornFrameOrAFrameTwice)
{
    constexpr int kFrames = 5000;
    addStep(&gray);
    manager.registerDisplayerCallback(std::ref(reports));
    manager.initialize();
    std::atomic<bool> producing{true};
    std::thread producer([&] {
        for (int tag = 1; tag <= kFrames; ++tag) deliver(tag);
        producing = false;
    });
    while (producing) {
        manager.stop();
        manager.run();
        std::this_thread::sleep_for(100us);
    }
    producer.join();
    ASSERT_TRUE(reports.await(kFrames)) << "the newest frame is processed";
    manager.stop();
    reports.expectIntactAndRising();
}

TEST_F(Manager, ListAndLifecycleOperations)
{
    qrvtest::LogCapture capture;
    QRV_Image rgb(125, 61, En_ImageFormat::RGB888, true, 1), small(5, 1, En_ImageFormat::Gray8, true, 1);
    QRV_Image noPixels(125, 61, En_ImageFormat::Gray8, false, 1);
    EXPECT_EQ(addStep(nullptr), 8);
    EXPECT_EQ(addStep(&gray), 1);
    // Checked at dispatch: each fails on every pass, and the pass goes on.
    EXPECT_EQ(addStep(&small, 9, kConverter, kToGray), 1);
    addStep(&small, kSerial, 7, kToGray);
    addStep(&small, kSerial, kConverter, 99);
    addStep(&rgb, kParallel, kConverter, kToGray);
    addStep(&noPixels);
    addStep(&small);
    addStep(&gray);
    manager.registerDisplayerCallback(std::ref(reports));
    manager.stop();  // without a worker: the next one still runs
    EXPECT_TRUE(manager.run());
    EXPECT_TRUE(manager.run());
    EXPECT_TRUE(manager.initialize());
    deliver(1);
    ASSERT_TRUE(reports.await(1, 7));
    manager.deinitialize();  // empties the list, keeps the callback
    addStep(&gray);
    manager.run();
    deliver(2);
    ASSERT_TRUE(reports.await(2));
    manager.stop();
    ASSERT_EQ(reports.list.size(), 3u);
    EXPECT_TRUE(reports.list[0].position == 0 && reports.list[1].position == 7 &&
                reports.list[2].position == 0);
    EXPECT_EQ(texts(capture, qrvlog::LogLevel::Trace),
              (std::vector<std::string>{"process error: 2", "process error: 3", "process error: 4",
                                        "process error: 6", "process error: 8", "process error: 9"}));
}

TEST_F(Manager, ExceptionsAreLoggedAtLevelOneAndNeitherTheWorkerNorTheProducerSeesThem)
{
    qrvtest::LogCapture capture;
    QRV_Image second(125, 61, En_ImageFormat::Gray8, true, 1);
    source = QRV_Image(125, 61, En_ImageFormat::BGR888, true, 1);  // replaced on the first pass
    addStep(&gray);
    addStep(&second);
    manager.registerDisplayerCallback([&](int tag, int position, const QRV_Image& image) {
        reports(tag, position, image);
        if (tag == 3 && position == 0) throw std::runtime_error("display is gone");
    });
    manager.initialize();
    watchedSize = frame.pixelBytes();
    failNext = true;
    deliver(1);  // no slot for it: the frame is dropped
    manager.stop();
    deliver(2);
    failNext = true;  // frame 2 waits while stopped: the next buffer of its size is the first source's
    manager.run();
    ASSERT_TRUE(reports.await(2, 1)) << "the steps ran on the source as it was";
    deliver(3);
    ASSERT_TRUE(reports.await(3, 1)) << "the step after the throwing callback ran";
    for (int tag = 4; tag <= 40; ++tag) deliver(tag);
    ASSERT_TRUE(reports.await(40, 1));
    manager.stop();
    watchedSize = 0;
    EXPECT_LE(watchedAllocations, 4) << "three slots and the first source, once each";
    for (const Report& report : reports.list) EXPECT_EQ(report.intact, report.tag != 2) << report.tag;
    const std::vector<std::string> errors = texts(capture, qrvlog::LogLevel::Error);
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_EQ(errors[0], std::string("frame 1 dropped: ") + std::bad_alloc().what());
    EXPECT_NE(errors[1].find(std::bad_alloc().what()), std::string::npos) << errors[1];
    EXPECT_NE(errors[2].find("display is gone"), std::string::npos) << errors[2];
}
