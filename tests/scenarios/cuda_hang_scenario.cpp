// The first initialize of a process while the CUDA driver hangs in cuInit
// (the stub driver of tests/fault, found through LD_LIBRARY_PATH). Prints one
// line per observation for the test to compare, then lets cuInit return by
// creating the file that QRV_TEST_CUINIT_RELEASE names.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <unistd.h>

#include "CImageProcessMng.h"
#include "CIpmEnv.h"
#include "CIpmFuncTable.h"
#include "QRV_Log.h"

using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using namespace std::chrono_literals;

namespace {

constexpr auto kPatience = 20s;      // for anything that should finish
constexpr auto kBlockedFor = 300ms;  // how long a blocked call is watched

bool exists(const char* path)
{
    return path != nullptr && access(path, F_OK) == 0;
}

bool waitForFile(const char* path)
{
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!exists(path)) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

template <typename T>
bool finishes(std::future<T>& future, std::chrono::milliseconds within)
{
    return future.wait_for(within) == std::future_status::ready;
}

}  // namespace

int main()
{
    qrvlog::QRV_Log::Instance()->setSink([](const qrvlog::LogRecord&) {});
    const char* entered = std::getenv("QRV_TEST_CUINIT_ENTERED");
    const char* release = std::getenv("QRV_TEST_CUINIT_RELEASE");
    if (entered == nullptr || release == nullptr) return 2;

    QRV_Image source;
    QRV_Image gray(4, 2, En_ImageFormat::Gray8, true, 1);
    std::promise<int> processed;
    CImageProcessMng manager;
    manager.addProcList(EnProcessBackend::CPU_Serial, EnIpmModule::Converter, 2, &source, &gray, nullptr,
                        nullptr);
    manager.registerDisplayerCallback([&processed, once = true](int tag, int, const QRV_Image&) mutable {
        if (once) processed.set_value(tag);
        once = false;
    });

    auto initialized = std::async(std::launch::async, [&] { return manager.initialize(); });
    if (!waitForFile(entered)) {
        std::puts("cuInit never called");
        return 1;
    }
    std::puts("cuInit entered");

    QRV_Image frame(4, 2, En_ImageFormat::RGB888, true, 1);
    frame.frameTag = 7;
    auto delivered = std::async(std::launch::async, [&] { manager.onNewFrame(frame); });
    std::puts(finishes(delivered, kPatience) ? "frame accepted" : "frame delivery blocked");

    auto dispatched = std::async(std::launch::async, [] {
        QRV_Image rgb(4, 2, En_ImageFormat::RGB888, true, 1);
        QRV_Image out(4, 2, En_ImageFormat::Gray8, true, 1);
        return ipmcommon::CIpmFuncTable::Instance()->process(
            EnProcessBackend::CPU_Serial, EnIpmModule::Converter, 2, &rgb, &out, nullptr, nullptr);
    });
    if (finishes(dispatched, kPatience)) {
        std::printf("serial RGB to gray dispatch: %d\n", dispatched.get());
    } else {
        std::puts("serial RGB to gray dispatch blocked");
    }

    auto environment = std::async(std::launch::async, [] { return ipm::CIpmEnv::Instance(); });
    auto yuvDispatch = std::async(std::launch::async, [] {
        QRV_Image yuv(4, 2, En_ImageFormat::YUV422_8, true, 1);
        yuv.yuvLayout = 10;
        QRV_Image out(4, 2, En_ImageFormat::RGB888, true, 1);
        return ipmcommon::CIpmFuncTable::Instance()->process(
            EnProcessBackend::CPU_Serial, EnIpmModule::Converter, 0, &yuv, &out, nullptr, nullptr);
    });
    std::this_thread::sleep_for(kBlockedFor);
    std::puts(finishes(initialized, 0ms) ? "initialize returned early" : "initialize waits");
    std::puts(finishes(environment, 0ms) ? "environment returned early" : "environment waits");
    std::puts(finishes(yuvDispatch, 0ms) ? "serial YUV dispatch returned early"
                                         : "serial YUV dispatch waits");

    if (FILE* file = std::fopen(release, "w")) std::fclose(file);
    const bool allReturned = finishes(initialized, kPatience) && finishes(environment, kPatience) &&
                             finishes(yuvDispatch, kPatience);
    std::puts(allReturned ? "all returned after the release" : "still blocked after the release");
    if (!allReturned) return 1;
    std::printf("serial YUV dispatch: %d\n", yuvDispatch.get());

    auto tag = processed.get_future();
    if (tag.wait_for(kPatience) == std::future_status::ready) {
        std::printf("processed frame %d\n", tag.get());
    } else {
        std::puts("the frame was not processed");
    }
    const ipm::GpuInfo gpu =
        ipm::CIpmEnv::Instance()->gpu.getGpu(ipm::CIpmEnv::Instance()->gpu.getGpuCount() - 1);
    std::printf("last adapter: %s, CUDA %s\n", gpu.name.c_str(),
                gpu.cudaState == ipm::En_ApiState::Available ? "available" : "not available");
    manager.deinitialize();
    return 0;
}
