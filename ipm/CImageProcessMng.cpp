#include "CImageProcessMng.h"

#include <exception>
#include <string>

#include "CIpmEnv.h"
#include "CIpmFuncTable.h"
#include "CWatchTime.h"
#include "Converter/CConverter.h"

#define IPM_LOG_FILE "CImageProcessMng"
#include "IpmLog.h"
#include "TripleBuffer.h"

using qrv_img::QRV_Image;

namespace {

// The text of the exception being handled, for a log line.
std::string currentExceptionText()
{
    try {
        throw;
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "exception of unknown type";
    }
}

}  // namespace

CImageProcessMng::CImageProcessMng() : buffer_(std::make_unique<TripleBuffer>())
{
    IPM_LOG(Trace, L"Called");
}

CImageProcessMng::~CImageProcessMng()
{
    IPM_LOG(Trace, L"Called");
    deinitialize();
}

bool CImageProcessMng::initialize()
{
    IPM_LOG(Trace, L"Called");
    env_ = ipm::CIpmEnv::Instance();
    funcTable_.store(ipmcommon::CIpmFuncTable::Instance(), std::memory_order_release);
    converter_ = CConverter::Instance();
    return run();
}

void CImageProcessMng::deinitialize()
{
    IPM_LOG(Trace, L"Called");
    stop();
    clearProcList();
}

bool CImageProcessMng::run()
{
    IPM_LOG(Trace, L"Called");
    if (worker_.joinable()) return true;
    stop_.store(false, std::memory_order_release);
    worker_ = std::thread(&CImageProcessMng::threadEntry_, this);
    return true;
}

void CImageProcessMng::stop()
{
    IPM_LOG(Trace, L"Called");
    {
        // Under the mutex, so that a worker between its check and its wait
        // cannot miss the request.
        std::lock_guard<std::mutex> lock(mutex_);
        stop_.store(true, std::memory_order_release);
        cv_.notify_all();
    }
    if (worker_.joinable()) worker_.join();
}

int CImageProcessMng::addProcList(ipmcommon::EnProcessBackend backend, ipmcommon::EnIpmModule module,
                                  int index, QRV_Image* source, QRV_Image* destination, void* user1,
                                  void* user2)
{
    if (destination == nullptr) return ipmcommon::result::MissingImage;
    procList_.push_back(ProcEntry{module, index, backend, source, destination, user1, user2});
    return ipmcommon::result::Success;
}

void CImageProcessMng::clearProcList()
{
    procList_.clear();
}

void CImageProcessMng::registerDisplayerCallback(DisplayerCallback callback)
{
    displayer_ = std::move(callback);
}

void CImageProcessMng::onNewFrame(const QRV_Image& frame)
{
    IPM_LOG(Trace, L"Called");
    QRV_Image& slot = buffer_->slots[buffer_->back];
    try {
        if (!slot.data || slot.width != frame.width || slot.height != frame.height ||
            slot.format != frame.format || slot.yuvLayout != frame.yuvLayout) {
            // Built before it replaces the slot: a failed allocation leaves the
            // slot as it was.
            slot = QRV_Image(frame.width, frame.height, frame.format, true, 1);
            slot.yuvLayout = frame.yuvLayout;
        }
        slot.copy(frame, qrv_img::CopyMode::Capture);
        slot.frameTag = frame.frameTag;
    } catch (...) {
        IPM_LOG(Error, L"frame %d dropped: %s", frame.frameTag, currentExceptionText().c_str());
        return;
    }
    buffer_->publish();
    // Notified while the mutex is held, as in stop(): the producer touches the
    // condition variable only inside the worker's critical section.
    std::lock_guard<std::mutex> lock(mutex_);
    frameReady_ = true;
    cv_.notify_all();
}

void CImageProcessMng::threadEntry_()
{
    CWatchTime watch;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stop_.load(std::memory_order_acquire)) {
        cv_.wait(lock, [this] { return stop_.load(std::memory_order_acquire) || frameReady_; });
        if (stop_.load(std::memory_order_acquire)) break;
        frameReady_ = false;
        lock.unlock();
        watch.start();
        processOneFrame_();
        watch.stop();
        lock.lock();
    }
}

void CImageProcessMng::processOneFrame_()
{
    const ipmcommon::CIpmFuncTable* table = funcTable_.load(std::memory_order_acquire);
    if (procList_.empty() || table == nullptr) return;
    // A wake-up can find the frame already taken by the pass before it.
    const QRV_Image* frame = buffer_->claimNewest();
    if (frame == nullptr) return;

    copyIntoFirstSource_(*frame);
    for (size_t i = 0; i < procList_.size(); ++i) {
        const int position = static_cast<int>(i);
        ProcEntry& step = procList_[i];
        try {
            if (i >= 1 && step.src == nullptr) step.src = procList_[i - 1].dst;
            const int code = table->process(step.backend, step.module, step.index, step.src, step.dst,
                                            step.user1, step.user2);
            if (code != ipmcommon::result::Success) {
                IPM_LOG(Trace, L"process error: %d", code);
            } else if (displayer_) {
                displayer_(frame->frameTag, position, *step.dst);
            }
        } catch (...) {
            IPM_LOG(Error, L"step %d interrupted: %s", position, currentExceptionText().c_str());
        }
    }
}

void CImageProcessMng::copyIntoFirstSource_(const QRV_Image& frame)
{
    QRV_Image* source = procList_.front().src;
    if (source == nullptr) return;
    try {
        if (source->width != frame.width || source->height != frame.height ||
            source->format != frame.format) {
            *source = QRV_Image(frame.width, frame.height, frame.format, true, 1);
            source->frameTag = frame.frameTag;
            source->yuvLayout = frame.yuvLayout;
        }
        source->copy(frame, qrv_img::CopyMode::Processing);
    } catch (...) {
        // The steps still run, on whatever the source held before.
        IPM_LOG(Error, L"frame %d not copied into the first source: %s", frame.frameTag,
                currentExceptionText().c_str());
    }
}
