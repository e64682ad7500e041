// A camera that needs no hardware: a moving test pattern in packed YUV 4:2:2.
//
// Colour bars scroll across the upper two thirds, a grey ramp fills the lower
// third, a white square bounces over both, and the frame number stands in a
// black box at the top left, so a saved picture shows which frame it is and
// whether colours, motion and byte order came through.
#pragma once

#include <cstdint>
#include <vector>

#include "FrameSource.h"

class SyntheticCamera : public FrameSource {
public:
    SyntheticCamera(uint32_t width, uint32_t height, qrv_img::En_YuvLayout layout);

    bool nextFrame(qrv_img::QRV_Image& frame) override;
    std::string description() const override;

    // Draws picture number frameNumber into frame (width, height and layout as
    // given at construction); the same number always gives the same bytes.
    void render(uint64_t frameNumber, qrv_img::QRV_Image& frame);

    // The RGB colour of every pixel of one row of picture frameNumber.
    void renderRgbRow(uint64_t frameNumber, uint32_t row, uint8_t* rgb) const;

    // Limited-range BT.601, the inverse of the library's YUV to RGB
    // conversion.
    static void rgbToYuv(int r, int g, int b, int& y, int& u, int& v);

    // The eight bar colours, left to right: white, yellow, cyan, green,
    // magenta, red, blue, black.
    static const uint8_t kBars[8][3];

private:
    uint32_t width_;
    uint32_t height_;
    qrv_img::En_YuvLayout layout_;
    uint64_t next_ = 0;
    std::vector<uint8_t> rgbRow_;
    std::vector<uint8_t> previousRgbRow_;
};
