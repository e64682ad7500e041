// The processing manager driven by an arbitrary sequence of host operations
// on the controlling thread while a producer thread delivers arbitrary frames,
// keeping to the host's calling rules: the processing list and the callback
// change only while no worker runs, and onNewFrame comes from one producer.
// A watchdog turns a hang into a crash, so a deadlock is a finding too, and
// every report the callback receives is checked against the list the host
// built.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "CImageProcessMng.h"
#include "FuzzInput.h"

namespace {

using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using qrvfuzz::Input;

constexpr En_ImageFormat kFormats[] = {En_ImageFormat::YUV422_8, En_ImageFormat::RGB888,
                                       En_ImageFormat::BGR888, En_ImageFormat::Gray8};

QRV_Image makeImage(Input& in)
{
    const bool withBuffer = in.byte() < 220;
    const En_ImageFormat format = kFormats[in.byte() % 4];
    const uint32_t width = in.byte() % 40;
    const uint32_t height = in.byte() % 6;
    QRV_Image image(width, height, format, withBuffer, 1);
    image.yuvLayout = 10 + in.byte() % 5;
    image.frameTag = in.byte();
    for (size_t i = 0; i < image.dataSize; ++i) image.data[i] = static_cast<uint8_t>(i * 31 + image.frameTag);
    return image;
}

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "manager fuzzer: %s\n", what);
    std::abort();
}

// Aborts the process when one input runs longer than the limit.
class Watchdog {
public:
    explicit Watchdog(std::chrono::seconds limit)
        : thread_([this, limit] {
              std::unique_lock<std::mutex> lock(mutex_);
              if (!cv_.wait_for(lock, limit, [this] { return done_; })) fail("the manager hung");
          })
    {
    }
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        cv_.notify_all();
        thread_.join();
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    bool done_ = false;
    std::thread thread_;
};

// What the host knows of its manager, for checking the reports. Written by
// the controlling thread only while no worker runs; read by the worker.
struct HostView {
    std::vector<const QRV_Image*> destinations;  // of the processing list, in order
    bool possibleTags[256] = {};
    std::atomic<bool> workerMayRun{false};

    void check(int tag, int position, const QRV_Image& image) const
    {
        if (!workerMayRun.load()) fail("a report after stop returned");
        if (position < 0 || static_cast<size_t>(position) >= destinations.size()) {
            fail("a report for no step");
        }
        if (&image != destinations[static_cast<size_t>(position)]) fail("a report with another step's image");
        if (tag < 0 || tag > 255 || !possibleTags[tag]) fail("a report with a tag no frame carried");
    }
};

CImageProcessMng::DisplayerCallback makeCallback(uint8_t pick, const HostView& view)
{
    switch (pick % 3) {
    case 0: return nullptr;
    case 1:
        return [&view](int tag, int position, const QRV_Image& image) { view.check(tag, position, image); };
    default:
        return [&view](int tag, int position, const QRV_Image& image) {
            view.check(tag, position, image);
            throw std::runtime_error("display refused the frame");
        };
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    qrvfuzz::quietLibrary();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Watchdog watchdog(std::chrono::seconds(20));
    Input in(data, size);
    // Frames back to back or up to 0.6 ms apart, so that they meet passes at
    // every stage.
    const auto frameInterval = std::chrono::microseconds(in.byte() % 32 * 20);

    // The host's images outlive the manager, as the calling rules demand.
    std::vector<std::unique_ptr<QRV_Image>> images;
    const int imageCount = 1 + in.byte() % 6;
    for (int i = 0; i < imageCount; ++i) images.push_back(std::make_unique<QRV_Image>(makeImage(in)));
    std::vector<QRV_Image> frames;
    HostView view;
    const int frameCount = in.byte() % 8;
    for (int i = 0; i < frameCount; ++i) {
        frames.push_back(makeImage(in));
        view.possibleTags[frames.back().frameTag] = true;
    }

    {
        CImageProcessMng manager;
        std::atomic<bool> producing{true};
        std::thread producer([&] {
            for (int round = 0; producing.load() && !frames.empty() && round < 50; ++round) {
                manager.onNewFrame(frames[static_cast<size_t>(round) % frames.size()]);
                std::this_thread::sleep_for(frameInterval);
            }
        });
        bool running = false;
        const auto start = [&](bool (CImageProcessMng::*operation)()) {
            view.workerMayRun = true;
            (manager.*operation)();
            running = true;
        };
        const auto end = [&](void (CImageProcessMng::*operation)()) {
            (manager.*operation)();
            view.workerMayRun = false;
            running = false;
        };
        while (!in.empty()) {
            const uint8_t operation = in.byte() % 8;
            if (running && operation <= 2) continue;  // the list and the callback stay while a worker runs
            switch (operation) {
            case 0: {
                const uint8_t sourcePick = in.byte();
                const uint8_t destinationPick = in.byte();
                const auto backend = static_cast<EnProcessBackend>(in.byte() % 6);
                const auto module = static_cast<EnIpmModule>(in.byte() % 5);
                const int index = in.byte() % 5 - 1;
                QRV_Image* source = sourcePick < 48 ? nullptr : images[sourcePick % images.size()].get();
                QRV_Image* destination =
                    destinationPick < 240 ? images[destinationPick % images.size()].get() : nullptr;
                const int code =
                    manager.addProcList(backend, module, index, source, destination, nullptr, nullptr);
                if (code != (destination != nullptr ? 1 : 8)) fail("addProcList gave the wrong code");
                if (destination != nullptr) view.destinations.push_back(destination);
                break;
            }
            case 1:
                manager.clearProcList();
                view.destinations.clear();
                break;
            case 2: manager.registerDisplayerCallback(makeCallback(in.byte(), view)); break;
            case 3: start(&CImageProcessMng::run); break;
            case 4: end(&CImageProcessMng::stop); break;
            case 5: start(&CImageProcessMng::initialize); break;
            case 6:
                end(&CImageProcessMng::deinitialize);
                view.destinations.clear();
                break;
            case 7: std::this_thread::sleep_for(std::chrono::microseconds(in.byte() * 10)); break;
            }
        }
        end(&CImageProcessMng::stop);
        producing = false;
        producer.join();
    }
    return 0;
}
