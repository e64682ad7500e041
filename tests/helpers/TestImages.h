// Images for converter tests: buffers with an optional prefix before the
// first pixel, random content and YUV groups written in any layout.
#pragma once

#include <cstdint>
#include <vector>

#include "QRV_Image.h"

namespace qrvtest {

constexpr uint8_t kPrefixByte = 0xCD;  // fills the bytes before the first pixel

// An image owning width x height pixels after `offset` bytes of kPrefixByte,
// its pixel bytes set to `fill`.
qrv_img::QRV_Image makeImage(uint32_t width, uint32_t height, qrv_img::En_ImageFormat format,
                             int64_t offset = 0, uint8_t fill = 0);

// The pixel bytes (from the first pixel on) and the whole buffer.
std::vector<uint8_t> pixelBytes(const qrv_img::QRV_Image& image);
std::vector<uint8_t> bufferBytes(const qrv_img::QRV_Image& image);

void fillRandom(qrv_img::QRV_Image& image, uint32_t seed);

// Writes pixel pair `pair` (counted over the whole image) of a YUV 4:2:2 image
// in the image's yuvLayout (10 to 13).
void setYuvPair(qrv_img::QRV_Image& image, size_t pair, uint8_t y0, uint8_t u, uint8_t y1, uint8_t v);

}  // namespace qrvtest
