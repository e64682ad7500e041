// The names ipm-run uses on its command line and in its output for pixel
// formats and packed YUV 4:2:2 byte orders.
#pragma once

#include <string>

#include "QRV_Image.h"

class ImageNames {
public:
    // "Gray8", "RGB888", "BGR888", "YUV422"; other formats print as their number.
    static std::string formatName(qrv_img::En_ImageFormat format);
    // Exact, case-sensitive; false for anything but the four names above.
    static bool parseFormat(const std::string& text, qrv_img::En_ImageFormat& out);

    // "YUYV", "UYVY", "YVYU", "VYUY".
    static std::string layoutName(qrv_img::En_YuvLayout layout);
    // Accepts the four names in upper or lower case.
    static bool parseLayout(const std::string& text, qrv_img::En_YuvLayout& out);

    static const char* const kFormatChoices;  // for messages: "Gray8, RGB888, BGR888 or YUV422"
    static const char* const kLayoutChoices;  // for messages: "YUYV, UYVY, YVYU or VYUY"
};
