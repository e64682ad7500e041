// For hosts: part of the host interface of libQRV_IPM.
//
// The object a host creates to run image processing on a stream of frames.
//
// The host fills a processing list, registers a displayer callback and starts
// the manager; a producer thread then hands frames to onNewFrame(). A worker
// thread owned by the manager takes the newest frame, copies it into the first
// step's source image, runs every step through the function table and reports
// the destination of every step that succeeded to the callback. Frames that
// arrive while a pass runs replace one another: the next pass works on the
// newest one, and nothing is queued.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "IpmTypes.h"
#include "QRV_Image.h"

namespace ipm {
class CIpmEnv;
}
namespace ipmcommon {
class CIpmFuncTable;
}
class CConverter;

class CImageProcessMng {
public:
    // Called on the worker thread with the frame's tag, the step's position in
    // the list (from 0) and the step's destination, once per successful step.
    using DisplayerCallback = std::function<void(int, int, const qrv_img::QRV_Image&)>;

    // One step of the processing list. The images belong to the host and must
    // outlive the manager's use of them.
    struct ProcEntry {
        ipmcommon::EnIpmModule module;
        int index;
        ipmcommon::EnProcessBackend backend;
        // Receives every frame when this is the first step. A null source on a
        // later step is replaced, in the list itself, by the previous step's
        // destination on the first pass.
        qrv_img::QRV_Image* src;
        qrv_img::QRV_Image* dst;
        void* user1;
        void* user2;
    };

    CImageProcessMng();
    ~CImageProcessMng();
    CImageProcessMng(const CImageProcessMng&) = delete;
    CImageProcessMng& operator=(const CImageProcessMng&) = delete;

    // Binds the process-wide environment, function table and converter
    // catalogue, creating them on first use, and starts the worker.
    bool initialize();
    // Stops the worker and empties the processing list.
    void deinitialize();
    // Starts the worker unless one runs already; a frame that arrived while
    // none ran is processed at once.
    bool run();
    // Ends the worker after the pass it is in and waits for it. Must not be
    // called from the displayer callback.
    void stop();

    // 1, or 8 for a null destination. The coordinates are checked at dispatch
    // on every frame. The list and the callback may only change while no
    // worker runs.
    int addProcList(ipmcommon::EnProcessBackend backend, ipmcommon::EnIpmModule module, int index,
                    qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination, void* user1, void* user2);
    void clearProcList();
    // An empty callback switches reporting off.
    void registerDisplayerCallback(DisplayerCallback callback);

    // Copies the frame into the buffer and wakes the worker; never waits for
    // a pass. One producer thread at a time.
    void onNewFrame(const qrv_img::QRV_Image& frame);

private:
    // The frame buffer, shared by the producer and the worker (see
    // internal/TripleBuffer.h).
    struct TripleBuffer;

    void threadEntry_();
    // One pass over the processing list with the newest frame.
    void processOneFrame_();
    void copyIntoFirstSource_(const qrv_img::QRV_Image& frame);

    ipm::CIpmEnv* env_ = nullptr;
    CConverter* converter_ = nullptr;
    // Atomic because initialize() may bind the table while a worker, started
    // by an earlier run(), already reads it.
    std::atomic<ipmcommon::CIpmFuncTable*> funcTable_{nullptr};
    std::vector<ProcEntry> procList_;
    std::thread worker_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::condition_variable cv_;
    bool frameReady_ = false;  // guarded by mutex_
    std::unique_ptr<TripleBuffer> buffer_;
    DisplayerCallback displayer_;
};
