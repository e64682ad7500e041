// Per-pixel arithmetic and byte positions shared by the serial converter and
// the kernels.
#pragma once

#include <cstdint>

namespace qrv_convert {
// Internal linkage: the kernels' files are built with their own instruction
// sets, and a shared out-of-line copy from one of them could end up serving
// the other files too.
namespace {

inline uint8_t clampToByte(int32_t value)
{
    return static_cast<uint8_t>(value < 0 ? 0 : (value > 255 ? 255 : value));
}

// The weights sum to 256, so the result never exceeds 255.
inline uint8_t grayFromRgb(uint32_t red, uint32_t green, uint32_t blue)
{
    return static_cast<uint8_t>((77 * red + 150 * green + 29 * blue + 128) >> 8);
}

// Byte positions of Y0, U, Y1 and V within a four-byte group, by layout index
// (0 YUYV, 1 UYVY, 2 YVYU, 3 VYUY).
struct YuvPositions {
    uint8_t y0, u, y1, v;
};
inline constexpr YuvPositions kYuvPositions[4] = {{0, 1, 2, 3}, {1, 0, 3, 2}, {0, 3, 2, 1}, {1, 2, 3, 0}};

}  // namespace
}  // namespace qrv_convert
