// Where frames come from: the synthetic camera or a raw YUV file.
#pragma once

#include <string>

#include "QRV_Image.h"

class FrameSource {
public:
    virtual ~FrameSource() = default;

    // Writes the next picture into frame's pixels; frame has the source's
    // width and height, format YUV422_8 and the source's layout. False at the
    // end of the source, or on a read error (then error() says what).
    virtual bool nextFrame(qrv_img::QRV_Image& frame) = 0;

    // What the source is, for the summary: "synthetic camera" or the file name.
    virtual std::string description() const = 0;

    // Empty unless nextFrame failed on a read error.
    virtual std::string error() const { return {}; }
};
