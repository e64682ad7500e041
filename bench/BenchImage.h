// The benchmarks' input: an image of pseudo-random bytes, the same on every
// run, so that the conversions meet every value and every clamp.
#pragma once

#include <cstdint>

#include "QRV_Image.h"

namespace qrv_bench {

// Allocated and filled; YUV images are YUYV.
inline qrv_img::QRV_Image filledImage(uint32_t width, uint32_t height, qrv_img::En_ImageFormat format)
{
    qrv_img::QRV_Image image(width, height, format, true, 1);
    uint32_t state = 12345;
    for (size_t i = 0; i < image.dataSize; ++i) {
        state = state * 1664525u + 1013904223u;
        image.data[i] = static_cast<uint8_t>(state >> 24);
    }
    image.yuvLayout = static_cast<int32_t>(qrv_img::En_YuvLayout::YUYV);
    return image;
}

}  // namespace qrv_bench
