#include "ImageNames.h"

#include <algorithm>
#include <cctype>
#include <utility>

using qrv_img::En_ImageFormat;
using qrv_img::En_YuvLayout;

namespace {

const std::pair<const char*, En_ImageFormat> kFormats[] = {
    {"Gray8", En_ImageFormat::Gray8},
    {"RGB888", En_ImageFormat::RGB888},
    {"BGR888", En_ImageFormat::BGR888},
    {"YUV422", En_ImageFormat::YUV422_8},
};

const std::pair<const char*, En_YuvLayout> kLayouts[] = {
    {"YUYV", En_YuvLayout::YUYV},
    {"UYVY", En_YuvLayout::UYVY},
    {"YVYU", En_YuvLayout::YVYU},
    {"VYUY", En_YuvLayout::VYUY},
};

}  // namespace

const char* const ImageNames::kFormatChoices = "Gray8, RGB888, BGR888 or YUV422";
const char* const ImageNames::kLayoutChoices = "YUYV, UYVY, YVYU or VYUY";

std::string ImageNames::formatName(En_ImageFormat format)
{
    for (const auto& [name, value] : kFormats) {
        if (value == format) return name;
    }
    return std::to_string(static_cast<int>(format));
}

bool ImageNames::parseFormat(const std::string& text, En_ImageFormat& out)
{
    for (const auto& [name, value] : kFormats) {
        if (text == name) {
            out = value;
            return true;
        }
    }
    return false;
}

std::string ImageNames::layoutName(En_YuvLayout layout)
{
    for (const auto& [name, value] : kLayouts) {
        if (value == layout) return name;
    }
    return std::to_string(static_cast<int>(layout));
}

bool ImageNames::parseLayout(const std::string& text, En_YuvLayout& out)
{
    std::string upper = text;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    for (const auto& [name, value] : kLayouts) {
        if (upper == name) {
            out = value;
            return true;
        }
    }
    return false;
}
