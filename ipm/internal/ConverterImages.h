// What every converter asks of an image: where its first pixel lies, and
// whether its format is one of the 24-bit colour formats.
#pragma once

#include <cstdint>

#include "QRV_Image.h"

namespace qrv_convert {

// The first pixel lies dataOffset bytes into the buffer; an image without a
// buffer has no address.
inline uint8_t* firstPixel(const qrv_img::QRV_Image& image)
{
    return image.data ? image.data.get() + image.dataOffset : nullptr;
}

inline bool isColour(qrv_img::En_ImageFormat format)
{
    return format == qrv_img::En_ImageFormat::RGB888 || format == qrv_img::En_ImageFormat::BGR888;
}

}  // namespace qrv_convert
