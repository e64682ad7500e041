// Plain C++ models of the colour-space kernels: the same arguments, the same
// bytes written, one pixel at a time.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kernel_model {

// Byte positions of Y0, U, Y1 and V within a four-byte group, by layout index.
constexpr int kPositions[4][4] = {{0, 1, 2, 3}, {1, 0, 3, 2}, {0, 3, 2, 1}, {1, 2, 3, 0}};

inline int coveredPixels(int width)
{
    return width <= 0 ? 0 : width / 8 * 8 + (width % 8 == 4 ? 4 : 0);
}

inline uint8_t clampToByte(int32_t value)
{
    return static_cast<uint8_t>(value < 0 ? 0 : (value > 255 ? 255 : value));
}

}  // namespace kernel_model

inline void yuv422_to_rgb888_c_layout(const uint8_t* source, uint8_t* destination, int width, int height,
                                      bool swap, int layout)
{
    using namespace kernel_model;
    const bool known = layout >= 0 && layout < 4;
    const int covered = coveredPixels(width);
    for (int row = 0; row < height; ++row) {
        const uint8_t* in = source + 2 * static_cast<size_t>(width) * row;
        uint8_t* out = destination + 3 * static_cast<size_t>(width) * row;
        for (int x = 0; x < covered; ++x) {
            const uint8_t* group = in + 4 * (x / 2);
            int32_t y = 0;
            int32_t d = -128;
            int32_t e = -128;
            if (known) {
                y = group[kPositions[layout][x % 2 == 0 ? 0 : 2]];
                d = group[kPositions[layout][1]] - 128;
                e = group[kPositions[layout][3]] - 128;
            }
            const uint8_t red = clampToByte((64 * y + 90 * e) >> 6);
            const uint8_t green = clampToByte((64 * y - 22 * d - 46 * e) >> 6);
            const uint8_t blue = clampToByte((64 * y + 113 * d) >> 6);
            out[3 * x] = swap ? blue : red;
            out[3 * x + 1] = green;
            out[3 * x + 2] = swap ? red : blue;
        }
    }
}

inline void rgb888_to_gray8_c(const uint8_t* source, uint8_t* destination, int width, int height, bool bgr)
{
    const int covered = kernel_model::coveredPixels(width);
    for (int row = 0; row < height; ++row) {
        const uint8_t* in = source + 3 * static_cast<size_t>(width) * row;
        uint8_t* out = destination + static_cast<size_t>(width) * row;
        for (int x = 0; x < covered; ++x) {
            const uint8_t* p = in + 3 * x;
            const uint32_t red = bgr ? p[2] : p[0];
            const uint32_t blue = bgr ? p[0] : p[2];
            out[x] = static_cast<uint8_t>((77 * red + 150 * p[1] + 29 * blue + 128) >> 8);
        }
    }
}
