// Writes step destinations as PNG pictures into the output directory.
//
// During a run the displayer callback only copies the image and queues it;
// a thread of the saver encodes and writes it, so that encoding does not
// hold up the worker that is being measured. Queued copies are limited in
// bytes: a picture that would exceed the limit is skipped and counted.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "OutputDirectory.h"
#include "QRV_Image.h"

class ImageSaver {
public:
    // Converts a YUV422_8 image into an RGB888 image of the same size;
    // returns the library's result code (1 on success).
    using YuvToRgb = std::function<int(const qrv_img::QRV_Image& yuv, qrv_img::QRV_Image& rgb)>;

    ImageSaver(OutputDirectory directory, YuvToRgb yuvToRgb, size_t maxQueuedBytes);
    ~ImageSaver();
    ImageSaver(const ImageSaver&) = delete;
    ImageSaver& operator=(const ImageSaver&) = delete;

    // "frame000042-step1-Gray8.png"
    static std::string pictureName(int32_t frameTag, size_t position, qrv_img::En_ImageFormat format);

    // Copies the image and queues it for the saver's thread; false when the
    // queue is full (the picture is then skipped) or the copy fails.
    bool enqueue(const std::string& name, const qrv_img::QRV_Image& image);

    // Writes the picture on the calling thread.
    bool save(const std::string& name, const qrv_img::QRV_Image& image);

    // Writes everything queued and ends the saver's thread.
    void finish();

    // Read after finish().
    std::vector<std::string> written() const;
    std::vector<std::string> errors() const;
    uint64_t skipped() const;

private:
    struct Job {
        std::string name;
        qrv_img::QRV_Image image;
    };

    void run_();

    OutputDirectory directory_;
    YuvToRgb yuvToRgb_;
    size_t maxQueuedBytes_;

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Job> queue_;
    size_t queuedBytes_ = 0;
    bool finishing_ = false;
    uint64_t skipped_ = 0;
    std::vector<std::string> written_;
    std::vector<std::string> errors_;
    std::thread thread_;
};
