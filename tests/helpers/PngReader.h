// Decodes PNG files with libpng for the tests, keeping grey as one channel
// and colour as RGB.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qrvtest {

struct PngPicture {
    uint32_t width = 0;
    uint32_t height = 0;
    int channels = 0;  // 1 grey, 3 RGB
    std::vector<uint8_t> pixels;
};

// Whether this build can decode PNG (libpng found for the target).
bool pngReaderAvailable();

// False with a message when the file cannot be read as an 8-bit grey or RGB
// PNG without alpha.
bool readPng(const std::string& path, PngPicture& out, std::string& error);

}  // namespace qrvtest
