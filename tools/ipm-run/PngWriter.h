// Encodes Gray8, RGB888 and BGR888 images as PNG, with stb_image_write: a
// header-only encoder, so that every target, the cross-built one included,
// writes pictures.
#pragma once

#include <cstdio>
#include <string>

#include "QRV_Image.h"

class PngWriter {
public:
    // Writes the image as an 8-bit grey or RGB PNG (BGR888 is stored as RGB).
    // False with a message for other formats, an image without pixels, or a
    // failed write.
    static bool write(std::FILE* file, const qrv_img::QRV_Image& image, std::string& error);
};
