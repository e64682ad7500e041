// Arbitrary host operations within the calling rules while a producer delivers
// arbitrary frames: a report names a step of the host's list with that step's
// destination, and none comes after stop returned.
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "CImageProcessMng.h"
#include "FuzzInput.h"

using qrv_img::QRV_Image;

// Buffer pick, format, width, height, YUV layout and frameTag, a byte each.
static std::unique_ptr<QRV_Image> makeImage(FuzzInput& in)
{
    static constexpr int32_t kFormats[] = {208, 301, 302, 101};
    const bool withBuffer = in.byte() < 220;
    const auto format = static_cast<qrv_img::En_ImageFormat>(kFormats[in.byte() % 4]);
    const uint32_t width = in.byte() % 40;
    auto image = std::make_unique<QRV_Image>(width, in.byte() % 6, format, withBuffer, 1);
    image->yuvLayout = 10 + in.byte() % 5;
    image->frameTag = in.byte();
    return image;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput in{data, size};
    const auto frameInterval = std::chrono::microseconds(in.byte() % 32 * 20);  // meets passes at every stage
    std::vector<std::unique_ptr<QRV_Image>> images, frames;                     // they outlive the manager
    for (int i = 1 + in.byte() % 6; i > 0; --i) images.push_back(makeImage(in));
    for (int i = in.byte() % 8; i > 0; --i) frames.push_back(makeImage(in));
    std::vector<const QRV_Image*> destinations;  // of the list; changed only while no worker runs
    std::atomic<bool> workerMayRun{false};
    const auto report = [&](int tag, int position, const QRV_Image& image) {
        const auto step = static_cast<size_t>(position);
        const bool listed = position >= 0 && step < destinations.size() && &image == destinations[step];
        if (!workerMayRun || !listed || tag < 0 || tag > 255) std::abort();
    };
    CImageProcessMng manager;
    std::atomic<bool> producing{true};
    std::thread producer([&] {
        for (size_t i = 0; producing && !frames.empty() && i < 50; ++i) {
            manager.onNewFrame(*frames[i % frames.size()]);
            std::this_thread::sleep_for(frameInterval);
        }
    });
    while (!in.empty()) {
        const uint8_t operation = in.byte() % 8;
        if (workerMayRun && operation <= 2) continue;
        if (operation == 0) {
            const uint8_t sourcePick = in.byte(), destinationPick = in.byte();
            const auto backend = static_cast<ipmcommon::EnProcessBackend>(in.byte() % 6);
            const auto module = static_cast<ipmcommon::EnIpmModule>(in.byte() % 5);
            const int index = in.byte() % 5 - 1;
            QRV_Image* source = sourcePick < 48 ? nullptr : images[sourcePick % images.size()].get();
            QRV_Image* target =
                destinationPick < 240 ? images[destinationPick % images.size()].get() : nullptr;
            const int code = manager.addProcList(backend, module, index, source, target, nullptr, nullptr);
            if (code != (target != nullptr ? 1 : 8)) std::abort();
            if (target != nullptr) destinations.push_back(target);
        } else if (operation == 2) {
            const uint8_t pick = in.byte() % 3;  // none, one that checks, one that checks and throws
            manager.registerDisplayerCallback([&report, pick](int tag, int position, const QRV_Image& image) {
                report(tag, position, image);
                if (pick == 2) throw std::runtime_error("display refused the frame");
            });
            if (pick == 0) manager.registerDisplayerCallback(nullptr);
        } else if (operation == 3 || operation == 5) {
            workerMayRun = true;
            operation == 3 ? manager.run() : manager.initialize();
        } else if (operation == 7) {
            std::this_thread::sleep_for(std::chrono::microseconds(in.byte() * 10));
        } else {  // clearProcList, stop or deinitialize
            if (operation == 1) manager.clearProcList();
            if (operation == 4) manager.stop();
            if (operation == 6) manager.deinitialize();
            workerMayRun = false;
            if (operation != 4) destinations.clear();
        }
    }
    producing = false;
    producer.join();
    return 0;  // the manager's destructor stops the worker
}
