#include "SyntheticCamera.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

#include "BitmapFont.h"

using qrv_img::En_YuvLayout;

const uint8_t SyntheticCamera::kBars[8][3] = {
    {255, 255, 255}, {255, 255, 0}, {0, 255, 255}, {0, 255, 0},
    {255, 0, 255},   {255, 0, 0},   {0, 0, 255},   {0, 0, 0},
};

namespace {

// Byte positions of Y0, U, Y1 and V within a four-byte group.
struct GroupOrder {
    int y0, u, y1, v;
};

GroupOrder groupOrder(En_YuvLayout layout)
{
    switch (layout) {
    case En_YuvLayout::UYVY: return {1, 0, 3, 2};
    case En_YuvLayout::YVYU: return {0, 3, 2, 1};
    case En_YuvLayout::VYUY: return {1, 2, 3, 0};
    case En_YuvLayout::YUYV:
    default: return {0, 1, 2, 3};
    }
}

// Position along a path that runs from 0 to range and back.
uint32_t bounce(uint64_t travelled, uint32_t range)
{
    if (range == 0) return 0;
    const uint64_t period = 2ull * range;
    const uint64_t phase = travelled % period;
    return static_cast<uint32_t>(phase <= range ? phase : period - phase);
}

void setPixel(uint8_t* rgb, uint32_t x, const uint8_t* colour)
{
    std::memcpy(rgb + 3 * static_cast<size_t>(x), colour, 3);
}

}  // namespace

SyntheticCamera::SyntheticCamera(uint32_t width, uint32_t height, En_YuvLayout layout)
    : width_(width),
      height_(height),
      layout_(layout),
      rgbRow_(3 * static_cast<size_t>(width)),
      previousRgbRow_(3 * static_cast<size_t>(width))
{
}

bool SyntheticCamera::nextFrame(qrv_img::QRV_Image& frame)
{
    render(next_++, frame);
    return true;
}

std::string SyntheticCamera::description() const
{
    return "synthetic camera";
}

void SyntheticCamera::rgbToYuv(int r, int g, int b, int& y, int& u, int& v)
{
    // The studio-swing BT.601 matrix, rounded once at the end, so that the
    // primaries land on the textbook values (red is 81, 90, 240).
    y = static_cast<int>(std::lround(16.0 + (65.481 * r + 128.553 * g + 24.966 * b) / 255.0));
    u = static_cast<int>(std::lround(128.0 + (-37.797 * r - 74.203 * g + 112.0 * b) / 255.0));
    v = static_cast<int>(std::lround(128.0 + (112.0 * r - 93.786 * g - 18.214 * b) / 255.0));
}

void SyntheticCamera::renderRgbRow(uint64_t frameNumber, uint32_t row, uint8_t* rgb) const
{
    const uint32_t w = width_;
    const uint32_t h = height_;
    const uint32_t scale = std::max<uint32_t>(1, h / 120);

    // Colour bars above, a grey ramp below.
    const uint32_t barsEnd = h - h / 3;
    if (row < barsEnd) {
        const uint64_t shift = frameNumber * std::max<uint32_t>(1, w / 320);
        for (uint32_t x = 0; x < w; ++x) {
            const uint64_t bar = ((x + shift) % w) * 8 / w;
            setPixel(rgb, x, kBars[bar]);
        }
    } else {
        for (uint32_t x = 0; x < w; ++x) {
            const uint8_t level = static_cast<uint8_t>(w > 1 ? x * 255ull / (w - 1) : 0);
            const uint8_t grey[3] = {level, level, level};
            setPixel(rgb, x, grey);
        }
    }

    // The bouncing square: white with a black centre.
    const uint32_t side = std::max<uint32_t>(2, h / 6);
    if (side < w && side < h) {
        const uint32_t left = bounce(frameNumber * 3 * scale, w - side);
        const uint32_t top = bounce(frameNumber * 2 * scale, h - side);
        if (row >= top && row < top + side) {
            const uint32_t border = side / 4;
            const bool centreRow = row >= top + border && row < top + side - border;
            for (uint32_t x = left; x < left + side; ++x) {
                const bool centre = centreRow && x >= left + border && x < left + side - border;
                setPixel(rgb, x, centre ? kBars[7] : kBars[0]);
            }
        }
    }

    // The frame number, white on black, at the top left.
    const std::string digits = std::to_string(frameNumber);
    const uint32_t pad = 2 * scale;
    const uint32_t boxWidth = 2 * pad + static_cast<uint32_t>(BitmapFont::textWidth(digits)) * scale;
    const uint32_t boxHeight = 2 * pad + BitmapFont::kGlyphHeight * scale;
    if (row < boxHeight) {
        const int fontRow = row >= pad ? static_cast<int>((row - pad) / scale) : -1;
        for (uint32_t x = 0; x < std::min(boxWidth, w); ++x) {
            bool lit = false;
            if (x >= pad && fontRow >= 0) {
                const uint32_t fontColumn = (x - pad) / scale;
                const uint32_t cell = BitmapFont::kGlyphWidth + BitmapFont::kSpacing;
                const size_t glyph = fontColumn / cell;
                if (glyph < digits.size()) {
                    lit = BitmapFont::pixel(digits[glyph], static_cast<int>(fontColumn % cell), fontRow);
                }
            }
            setPixel(rgb, x, lit ? kBars[0] : kBars[7]);
        }
    }
}

void SyntheticCamera::render(uint64_t frameNumber, qrv_img::QRV_Image& frame)
{
    const GroupOrder order = groupOrder(layout_);
    uint8_t* out = frame.pixels();
    const size_t yuvRowBytes = static_cast<size_t>(width_) * 2;
    for (uint32_t row = 0; row < height_; ++row) {
        // Most rows repeat the one above (bars, ramp): converting each row
        // anew would keep a 720p camera from reaching 30 fps.
        rgbRow_.swap(previousRgbRow_);
        renderRgbRow(frameNumber, row, rgbRow_.data());
        uint8_t* group = out + row * yuvRowBytes;
        if (row > 0 && rgbRow_ == previousRgbRow_) {
            std::memcpy(group, group - yuvRowBytes, yuvRowBytes);
            continue;
        }
        const uint8_t* rgb = rgbRow_.data();
        for (uint32_t x = 0; x + 1 < width_; x += 2, rgb += 6, group += 4) {
            int y0, u0, v0, y1, u1, v1;
            rgbToYuv(rgb[0], rgb[1], rgb[2], y0, u0, v0);
            rgbToYuv(rgb[3], rgb[4], rgb[5], y1, u1, v1);
            group[order.y0] = static_cast<uint8_t>(y0);
            group[order.y1] = static_cast<uint8_t>(y1);
            group[order.u] = static_cast<uint8_t>((u0 + u1 + 1) / 2);
            group[order.v] = static_cast<uint8_t>((v0 + v1 + 1) / 2);
        }
    }
    frame.yuvLayout = static_cast<int32_t>(layout_);
}
