// Encodes Gray8, RGB888 and BGR888 images as PNG through libpng. A build
// without libpng still compiles: available() is then false and write() fails.
#pragma once

#include <cstdio>
#include <string>

#include "QRV_Image.h"

class PngWriter {
public:
    static bool available();

    // Writes the image as an 8-bit grey or RGB PNG (BGR888 is stored as RGB).
    // False with a message for other formats, an image without pixels, or a
    // libpng failure.
    static bool write(std::FILE* file, const qrv_img::QRV_Image& image, std::string& error);
};
