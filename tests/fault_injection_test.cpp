// Faults from outside the library: displayer callbacks that sleep, feed
// frames back or try to stop their own worker. The faults of user plug-ins
// (register entry points breaking their contract, files that are no shared
// object, functions that throw) are injected by the plug-in loader's own tests.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CImageProcessMng.h"
#include "LogCapture.h"
#include "Subprocess.h"

using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using namespace std::chrono_literals;

namespace {

constexpr auto kTimeout = 20s;
constexpr int kRgbToGray = 2;

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

// Tags the displayer received, in order.
class Tags {
public:
    void add(int tag)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        tags_.push_back(tag);
    }
    std::vector<int> list() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return tags_;
    }
    size_t size() const { return list().size(); }

private:
    mutable std::mutex mutex_;
    std::vector<int> tags_;
};

// A manager with one step, serial RGB to gray, on 8x2 frames. The images and
// the observers outlive the manager, which is declared last.
class Displayer : public ::testing::Test {
protected:
    QRV_Image source;
    QRV_Image gray{8, 2, En_ImageFormat::Gray8, true, 1};
    QRV_Image frame{8, 2, En_ImageFormat::RGB888, true, 1};
    Tags tags;
    CImageProcessMng manager;

    void SetUp() override
    {
        manager.addProcList(EnProcessBackend::CPU_Serial, EnIpmModule::Converter, kRgbToGray, &source, &gray,
                            nullptr, nullptr);
    }
    void deliver(int tag)
    {
        frame.frameTag = tag;
        manager.onNewFrame(frame);
    }
};

}  // namespace

TEST_F(Displayer, SleepingASecondNeitherBlocksTheProducerNorLosesTheNewestFrameAndStopWaitsForIt)
{
    std::atomic<bool> asleep{false};
    manager.registerDisplayerCallback([&](int tag, int, const QRV_Image&) {
        tags.add(tag);
        if (tag != 1) return;
        asleep = true;
        std::this_thread::sleep_for(1s);
        asleep = false;
    });
    manager.initialize();
    deliver(1);
    ASSERT_TRUE(eventually([&] { return asleep.load(); }));
    for (int tag = 2; tag <= 100; ++tag) deliver(tag);
    EXPECT_TRUE(asleep) << "the deliveries waited for the displayer";
    manager.stop();
    EXPECT_FALSE(asleep) << "stop returned while the pass was still in the displayer";
    EXPECT_EQ(tags.list(), std::vector<int>{1});
    manager.run();
    ASSERT_TRUE(eventually([&] { return tags.size() == 2; }));
    EXPECT_EQ(tags.list(), (std::vector<int>{1, 100})) << "the next pass works on the newest frame";
}

TEST_F(Displayer, FeedingEachFrameBackProcessesEveryOneOnceInOrder)
{
    constexpr int kFrames = 50;
    // The worker is the only producer once the first frame is in.
    manager.registerDisplayerCallback([&](int tag, int, const QRV_Image&) {
        tags.add(tag);
        if (tag < kFrames) deliver(tag + 1);
    });
    manager.initialize();
    deliver(1);
    ASSERT_TRUE(eventually([&] { return tags.size() == kFrames; }));
    manager.stop();
    std::vector<int> expected;
    for (int tag = 1; tag <= kFrames; ++tag) expected.push_back(tag);
    EXPECT_EQ(tags.list(), expected);
}

TEST_F(Displayer, CallingStopOnItsOwnWorkerEndsTheWorkerWithALoggedErrorInsteadOfHanging)
{
#ifdef QRV_TSAN_BUILD
    GTEST_SKIP()
        << "ThreadSanitizer's pthread_join interceptor forgets a thread that tried to join itself, and "
           "its runtime then fails the host's join";
#endif
    qrvtest::LogCapture capture;
    manager.registerDisplayerCallback([&](int tag, int, const QRV_Image&) {
        tags.add(tag);
        if (tag == 1) manager.stop();
    });
    manager.initialize();
    deliver(1);
    ASSERT_TRUE(eventually([&] { return tags.size() == 1; }));
    auto stopped = std::async(std::launch::async, [&] { manager.stop(); });
    ASSERT_EQ(stopped.wait_for(kTimeout), std::future_status::ready) << "the host's stop hung";
    std::vector<std::string> errors;
    for (const auto& record : capture.records()) {
        if (record.file == "CImageProcessMng" && record.level == qrvlog::LogLevel::Error) {
            errors.push_back(qrvtest::utf8(record.text));
        }
    }
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find("step 0 interrupted"), std::string::npos) << errors[0];
    manager.run();
    deliver(2);
    ASSERT_TRUE(eventually([&] { return tags.size() == 2; })) << "a new worker runs after the host's stop";
    manager.stop();
}
