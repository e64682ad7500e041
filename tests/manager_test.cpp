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
    watchedAllocations += size == watchedSize;
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

constexpr int kToRgb = int(CConverter::F::YUV422_8_To_RGB888), kToGray = int(CConverter::F::RGB888_To_Gray8);
constexpr auto kSafety = 20s;  // only a failing test waits this long

struct Report {
    int tag, position;
    bool intact;  // every byte of the image equals the tag's low byte
};

struct Reports {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<Report> list;  // read once the worker has stopped

    void operator()(int tag, int position, const QRV_Image& image)
    {
        const uint8_t* pixels = image.pixels();
        const bool intact = pixels != nullptr && std::all_of(pixels, pixels + image.pixelBytes(),
                                                             [&](uint8_t b) { return b == (tag & 0xFF); });
        std::unique_lock<std::mutex> lock(mutex);
        list.push_back({tag, position, intact});
        cv.notify_all();
    }
    bool await(int tag, int position = 0)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cv.wait_for(lock, kSafety, [&] {
            return std::any_of(list.begin(), list.end(),
                               [&](const Report& r) { return r.tag == tag && r.position == position; });
        });
    }
};

std::vector<std::string> texts(const qrvtest::LogCapture& capture, qrvlog::LogLevel level)
{
    std::vector<std::string> texts;
    for (const auto& r : capture.records()) {
        if (r.file == "CImageProcessMng" && r.level == level && r.text != L"Called")
            texts.push_back(qrvlog::toUtf8(r.text));
    }
    return texts;
}

// Frames are RGB, every byte the tag's low byte, which gray keeps: a frame mixing two tags shows.
class Manager : public ::testing::Test {
protected:
    QRV_Image source, gray{124, 61, En_ImageFormat::Gray8, true, 1};
    QRV_Image frame{124, 61, En_ImageFormat::RGB888, true, 1};
    Reports reports;
    CImageProcessMng manager;  // last: it goes before the images and observers it uses

    int addStep(QRV_Image* destination, int backend = 0, int index = kToGray)
    {
        return manager.addProcList(ipmcommon::EnProcessBackend(backend), ipmcommon::EnIpmModule::Converter,
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
    QRV_Image yuv(124, 61, En_ImageFormat::YUV422_8, true, 1), rgb(124, 61, En_ImageFormat::RGB888, true, 1);
    std::memset(yuv.pixels(), 128, yuv.pixelBytes());  // RGB (130, 130, 130), gray 130
    yuv.frameTag = 130;
    yuv.yuvLayout = 10;  // YUYV
    addStep(&rgb, 0, kToRgb);
    // A step without a source takes the previous step's destination.
    manager.addProcList(ipmcommon::EnProcessBackend::CPU_Parallel, ipmcommon::EnIpmModule::Converter, kToGray,
                        nullptr, &gray, nullptr, nullptr);
    manager.registerDisplayerCallback(std::ref(reports));
    ASSERT_TRUE(manager.initialize());
    manager.onNewFrame(yuv);
    ASSERT_TRUE(reports.await(130, 1));  // the last report; the destructor stops the worker
    ASSERT_EQ(reports.list.size(), 2u);
    EXPECT_TRUE(reports.list[0].position == 0 && reports.list[0].intact && reports.list[1].intact);
}

TEST_F(Manager, ProducerIsNeverBlockedNewestWinsAndNoPassSeesATornFrameOrOneTwice)
{
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    addStep(&gray);
    manager.registerDisplayerCallback([&](int tag, int position, const QRV_Image& image) {
        reports(tag, position, image);
        EXPECT_TRUE(tag != 1 || released.wait_for(kSafety) == std::future_status::ready)
            << "the producer waited for the pass";
    });
    manager.initialize();
    deliver(1);
    ASSERT_TRUE(reports.await(1));
    for (int tag = 2; tag <= 100; ++tag) deliver(tag);
    auto stopped = std::async(std::launch::async, [&] { manager.stop(); });
    // A stop that does not wait returns meanwhile; one that waits never fails here.
    EXPECT_EQ(stopped.wait_for(50ms), std::future_status::timeout);
    release.set_value();
    stopped.get();
    manager.run();  // the pending frame is the newest; the others were replaced
    ASSERT_TRUE(reports.await(100));
    ASSERT_EQ(reports.list.size(), 2u);
    constexpr int kLast = 5000;
    std::atomic<bool> producing{true};
    std::thread producer([&] {
        for (int tag = 101; tag <= kLast; ++tag) deliver(tag);
        producing = false;
    });
    while (producing) {
        manager.stop();
        manager.run();
        std::this_thread::sleep_for(100us);
    }
    producer.join();
    ASSERT_TRUE(reports.await(kLast)) << "the newest frame is processed";
    manager.stop();
    for (size_t i = 1; i < reports.list.size(); ++i)
        ASSERT_TRUE(reports.list[i].intact && reports.list[i - 1].tag < reports.list[i].tag) << i;
}

TEST_F(Manager, ListAndLifecycleOperations)
{
    qrvtest::LogCapture capture;
    QRV_Image last(124, 61, En_ImageFormat::Gray8, true, 1);
    EXPECT_EQ(addStep(nullptr), 8);
    EXPECT_EQ(addStep(&gray), 1);
    EXPECT_EQ(addStep(&last, 9), 1);  // checked at dispatch: fails on every pass, and the pass goes on
    addStep(&last);
    manager.registerDisplayerCallback(std::ref(reports));
    manager.stop();  // without a worker: the next one still runs
    EXPECT_TRUE(manager.run() && manager.run() && manager.initialize());
    deliver(1);
    ASSERT_TRUE(reports.await(1, 2));
    manager.deinitialize();  // empties the list, keeps the callback
    addStep(&gray);
    manager.run();
    deliver(2);
    ASSERT_TRUE(reports.await(2));
    manager.stop();
    EXPECT_TRUE(reports.list.size() == 3 && reports.list[1].position == 2);  // the failed step unreported
    EXPECT_TRUE(reports.list[0].position == 0 && reports.list[1].position == 2 &&
                reports.list[2].position == 0);
    EXPECT_EQ(texts(capture, qrvlog::LogLevel::Trace), std::vector<std::string>{"process error: 2"});
}

TEST_F(Manager, ExceptionsAreLoggedAtLevelOneAndNeitherTheWorkerNorTheProducerSeesThem)
{
    qrvtest::LogCapture capture;
    QRV_Image second(124, 61, En_ImageFormat::Gray8, true, 1);
    source = QRV_Image(124, 61, En_ImageFormat::BGR888, true, 1);  // replaced on the first pass
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
    EXPECT_LE(watchedAllocations, 4) << "three slots and the first source, once each";
    for (QRV_Image* image : {&frame, &gray, &second}) *image = QRV_Image(124, 60, image->format, true, 1);
    manager.run();
    deliver(41);  // only the height changed
    ASSERT_TRUE(reports.await(41, 1));
    manager.deinitialize();
    for (const Report& report : reports.list) EXPECT_EQ(report.intact, report.tag != 2) << report.tag;
    const std::vector<std::string> errors = texts(capture, qrvlog::LogLevel::Error);
    ASSERT_EQ(errors.size(), 3u);
    EXPECT_EQ(errors[0], std::string("frame 1 dropped: ") + std::bad_alloc().what());
    EXPECT_NE(errors[1].find(std::bad_alloc().what()), std::string::npos) << errors[1];
    EXPECT_NE(errors[2].find("display is gone"), std::string::npos) << errors[2];
}
