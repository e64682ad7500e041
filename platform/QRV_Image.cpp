#include "QRV_Image.h"

#include <cstring>
#include <stdexcept>

namespace qrv_img {

size_t bytesPerPixel(En_ImageFormat format)
{
    switch (format) {
    case En_ImageFormat::YUV422_8: return 2;
    case En_ImageFormat::RGB888:
    case En_ImageFormat::BGR888: return 3;
    case En_ImageFormat::Gray8:
    default: return 1;
    }
}

QRV_Image::QRV_Image(unsigned int w, unsigned int h, En_ImageFormat fmt, bool allocate, unsigned int planes)
    : width(w), height(h), format(fmt)
{
    if (planes != 1) {
        throw std::invalid_argument("QRV_Image: packed formats have exactly one plane");
    }
    if (allocate) {
        dataSize = pixelBytes();
        data.reset(new uint8_t[dataSize]());
    }
}

size_t QRV_Image::rowBytes() const
{
    return static_cast<size_t>(width) * bytesPerPixel(format);
}

size_t QRV_Image::pixelBytes() const
{
    return rowBytes() * height;
}

uint8_t* QRV_Image::pixels() const
{
    return data ? data.get() + dataOffset : nullptr;
}

bool QRV_Image::copy(const QRV_Image& src, CopyMode /*mode*/)
{
    if (width != src.width || height != src.height || format != src.format) {
        return false;
    }
    const size_t bytes = pixelBytes();
    if (!data || !src.data || dataSize < bytes || src.dataSize < bytes) {
        return false;
    }
    if (bytes != 0 && pixels() != src.pixels()) {
        std::memmove(pixels(), src.pixels(), bytes);
    }
    frameTag = src.frameTag;
    yuvLayout = src.yuvLayout;
    subFormat = src.subFormat;
    return true;
}

}  // namespace qrv_img
