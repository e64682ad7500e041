// Addressing rule of every converter.
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

}  // namespace qrv_convert
