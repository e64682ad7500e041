#include "ImageSaver.h"

#include <cstdio>
#include <cstring>
#include <exception>

#include "ImageNames.h"
#include "PngWriter.h"

using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;

ImageSaver::ImageSaver(OutputDirectory directory, YuvToRgb yuvToRgb, size_t maxQueuedBytes)
    : directory_(std::move(directory)), yuvToRgb_(std::move(yuvToRgb)), maxQueuedBytes_(maxQueuedBytes)
{
    thread_ = std::thread([this] { run_(); });
}

ImageSaver::~ImageSaver()
{
    finish();
}

std::string ImageSaver::pictureName(int32_t frameTag, size_t position, En_ImageFormat format)
{
    char name[96];
    std::snprintf(name, sizeof name, "frame%06d-step%zu-%s.png", frameTag, position,
                  ImageNames::formatName(format).c_str());
    return name;
}

bool ImageSaver::enqueue(const std::string& name, const QRV_Image& image)
{
    const size_t bytes = image.pixelBytes();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (finishing_ || queuedBytes_ + bytes > maxQueuedBytes_ || !image.pixels() ||
            image.dataSize < bytes) {
            ++skipped_;
            return false;
        }
        queuedBytes_ += bytes;
    }
    try {
        Job job{name, QRV_Image(image.width, image.height, image.format, true, 1)};
        if (bytes != 0) std::memcpy(job.image.pixels(), image.pixels(), bytes);
        job.image.yuvLayout = image.yuvLayout;
        job.image.frameTag = image.frameTag;
        std::lock_guard<std::mutex> lock(mutex_);
        queue_.push_back(std::move(job));
    } catch (const std::exception&) {
        std::lock_guard<std::mutex> lock(mutex_);
        queuedBytes_ -= bytes;
        ++skipped_;
        return false;
    }
    wake_.notify_one();
    return true;
}

bool ImageSaver::save(const std::string& name, const QRV_Image& image)
{
    std::string error;
    const QRV_Image* picture = &image;
    QRV_Image converted;
    if (image.format == En_ImageFormat::YUV422_8) {
        converted = QRV_Image(image.width, image.height, En_ImageFormat::RGB888, true, 1);
        const int code = yuvToRgb_ ? yuvToRgb_(image, converted) : 0;
        if (code != 1) {
            error =
                "converting YUV422 to RGB888 for the picture failed with result code " + std::to_string(code);
        }
        picture = &converted;
    }
    const bool ok = error.empty() && directory_.writeFile(
                                         name,
                                         [&](std::FILE* file, std::string& message) {
                                             return PngWriter::write(file, *picture, message);
                                         },
                                         error);
    std::lock_guard<std::mutex> lock(mutex_);
    if (ok) {
        written_.push_back(name);
    } else {
        errors_.push_back(name + ": " + error);
    }
    return ok;
}

void ImageSaver::run_()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [&] { return finishing_ || !queue_.empty(); });
        if (queue_.empty()) return;
        Job job = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        save(job.name, job.image);
        lock.lock();
        queuedBytes_ -= job.image.pixelBytes();
    }
}

void ImageSaver::finish()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        finishing_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) thread_.join();
}

std::vector<std::string> ImageSaver::written() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return written_;
}

std::vector<std::string> ImageSaver::errors() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return errors_;
}

uint64_t ImageSaver::skipped() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return skipped_;
}
