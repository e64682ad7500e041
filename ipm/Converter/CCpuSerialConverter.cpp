#include "Converter/CCpuSerialConverter.h"

#include <cstddef>

#include "CIpmEnv.h"
#include "ConverterImages.h"
#include "PixelArithmetic.h"
#include "IpmTypes.h"

using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
namespace result = ipmcommon::result;

namespace {

using qrv_convert::clampToByte;
using qrv_convert::firstPixel;
using qrv_convert::isColour;

// The layout's byte positions are template arguments, so the compiler sees a
// fixed pattern for the whole image.
template <int Y0, int U, int Y1, int V, bool Bgr>
void yuvRows(const uint8_t* in, uint8_t* out, uint32_t width, uint32_t height)
{
    const size_t pairs = width / 2;
    for (uint32_t row = 0; row < height; ++row) {
        const uint8_t* group = in + 2 * static_cast<size_t>(width) * row;
        uint8_t* pixel = out + 3 * static_cast<size_t>(width) * row;
        for (size_t pair = 0; pair < pairs; ++pair, group += 4, pixel += 6) {
            const int32_t d = group[U] - 128;
            const int32_t e = group[V] - 128;
            const int32_t red = 409 * e + 128;
            const int32_t green = -100 * d - 208 * e + 128;
            const int32_t blue = 516 * d + 128;
            for (int half = 0; half < 2; ++half) {
                const int32_t luma = group[half == 0 ? Y0 : Y1] - 16;
                const int32_t c = 298 * (luma < 0 ? 0 : luma);
                uint8_t* target = half == 0 ? pixel : pixel + 3;
                target[Bgr ? 2 : 0] = clampToByte((c + red) >> 8);
                target[1] = clampToByte((c + green) >> 8);
                target[Bgr ? 0 : 2] = clampToByte((c + blue) >> 8);
            }
        }
    }
}

template <int Y0, int U, int Y1, int V>
void yuvRowsInOrder(const uint8_t* in, uint8_t* out, uint32_t width, uint32_t height, bool bgr)
{
    if (bgr) {
        yuvRows<Y0, U, Y1, V, true>(in, out, width, height);
    } else {
        yuvRows<Y0, U, Y1, V, false>(in, out, width, height);
    }
}

// The products of each weight with every byte value (the rounding term folded
// into the first): three lookups cost less than three multiplications.
struct GrayTables {
    uint16_t first[256], green[256], last[256];
};

constexpr GrayTables makeGrayTables(uint16_t firstWeight, uint16_t lastWeight)
{
    GrayTables tables{};
    for (uint16_t value = 0; value < 256; ++value) {
        tables.first[value] = static_cast<uint16_t>(firstWeight * value + 128);
        tables.green[value] = static_cast<uint16_t>(150 * value);
        tables.last[value] = static_cast<uint16_t>(lastWeight * value);
    }
    return tables;
}

constexpr GrayTables kRgbTables = makeGrayTables(77, 29);
constexpr GrayTables kBgrTables = makeGrayTables(29, 77);

void grayRows(const uint8_t* in, uint8_t* out, size_t pixels, const GrayTables& tables)
{
    for (size_t i = 0; i < pixels; ++i, in += 3) {
        out[i] = static_cast<uint8_t>((tables.first[in[0]] + tables.green[in[1]] + tables.last[in[2]]) >> 8);
    }
}

// A YUV conversion after the environment call: the checks, then the core.
int convertYuv(const QRV_Image* source, QRV_Image* destination, En_ImageFormat wanted)
{
    const int code = CCpuSerialConverter::validateYUV422ToRGB_(source, destination);
    if (code != result::Success) return code;
    if (destination->format != wanted) return result::Mismatch;
    CCpuSerialConverter::yuv422_to_rgb888_core_(*source, *destination);
    return result::Success;
}

}  // namespace

int CCpuSerialConverter::validateYUV422ToRGB_(const QRV_Image* source, QRV_Image* destination)
{
    if (source == nullptr || destination == nullptr) return result::MissingImage;
    if (!source->data || !destination->data) return result::MissingImage;
    if (source->format != En_ImageFormat::YUV422_8) return result::Mismatch;
    if (!isColour(destination->format)) return result::Mismatch;
    if (source->width != destination->width || source->height != destination->height) return result::Mismatch;
    if (source->width % 2 != 0) return result::Mismatch;
    return result::Success;
}

int CCpuSerialConverter::validateRGB888ToGray8_(const QRV_Image* source, QRV_Image* destination)
{
    if (source == nullptr || destination == nullptr) return result::MissingImage;
    if (!source->data || !destination->data) return result::MissingImage;
    if (!isColour(source->format)) return result::Mismatch;
    if (destination->format != En_ImageFormat::Gray8) return result::Mismatch;
    if (source->width != destination->width || source->height != destination->height) return result::Mismatch;
    return result::Success;
}

int CCpuSerialConverter::ConvertYUV422_8_To_RGB888(const QRV_Image* source, QRV_Image* destination, void*,
                                                   void*)
{
    // The first conversion a host runs may be what makes the library describe
    // the machine.
    ipm::CIpmEnv::Instance();
    return convertYuv(source, destination, En_ImageFormat::RGB888);
}

int CCpuSerialConverter::ConvertYUV422_8_To_BGR888(const QRV_Image* source, QRV_Image* destination, void*,
                                                   void*)
{
    return convertYuv(source, destination, En_ImageFormat::BGR888);
}

int CCpuSerialConverter::ConvertRGB888_To_Gray8(const QRV_Image* source, QRV_Image* destination, void*, void*)
{
    const int code = validateRGB888ToGray8_(source, destination);
    if (code != result::Success) return code;
    rgb888_to_gray8_core_(*source, *destination);
    return result::Success;
}

void CCpuSerialConverter::yuv422_to_rgb888_core_(const QRV_Image& source, QRV_Image& destination)
{
    const uint8_t* in = firstPixel(source);
    uint8_t* out = firstPixel(destination);
    const bool bgr = destination.format == En_ImageFormat::BGR888;
    switch (static_cast<qrv_img::En_YuvLayout>(source.yuvLayout)) {
    case qrv_img::En_YuvLayout::YUYV:
        yuvRowsInOrder<0, 1, 2, 3>(in, out, source.width, source.height, bgr);
        break;
    case qrv_img::En_YuvLayout::UYVY:
        yuvRowsInOrder<1, 0, 3, 2>(in, out, source.width, source.height, bgr);
        break;
    case qrv_img::En_YuvLayout::YVYU:
        yuvRowsInOrder<0, 3, 2, 1>(in, out, source.width, source.height, bgr);
        break;
    case qrv_img::En_YuvLayout::VYUY:
        yuvRowsInOrder<1, 2, 3, 0>(in, out, source.width, source.height, bgr);
        break;
    }
}

void CCpuSerialConverter::rgb888_to_gray8_core_(const QRV_Image& source, QRV_Image& destination)
{
    const size_t pixels = static_cast<size_t>(source.width) * source.height;
    const bool bgr = source.format == En_ImageFormat::BGR888;
    grayRows(firstPixel(source), firstPixel(destination), pixels, bgr ? kBgrTables : kRgbTables);
}
