#include "Converter/CCpuParaConverter.h"

#include "CIpmEnv.h"
#include "ConverterImages.h"
#include "Converter/CpuConvertKernel.h"
#include "IpmTypes.h"

#define IPM_LOG_FILE "Converter/CCpuParaConverter"
#include "IpmLog.h"

using qrv_convert::firstPixel;
using qrv_convert::isColour;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
namespace result = ipmcommon::result;

namespace {

// Whether the kernels can run: on Arm every level from NEON up; elsewhere the
// levels on which the SIMDe build of the kernels (AVX2 code) runs.
int simdCheck()
{
    const ipm::En_SimdLevel level = ipm::CIpmEnv::Instance()->cpu.bestSimdFor(ipm::En_OpProfile::Integer);
#if defined(__aarch64__)
    const bool usable = level == ipm::En_SimdLevel::NEON || level == ipm::En_SimdLevel::SVE ||
                        level == ipm::En_SimdLevel::SVE2;
#else
    const bool usable = level == ipm::En_SimdLevel::AVX2 || level == ipm::En_SimdLevel::AVX512F ||
                        level == ipm::En_SimdLevel::AVX512BW;
#endif
    return usable ? result::Success : result::NoSimd;
}

// Checks shared by both validators: the images exist and the source has rows
// and a width the kernels convert completely.
int checkSourceGeometry(const QRV_Image* source, const QRV_Image* destination)
{
    if (source == nullptr || destination == nullptr) return result::MissingImage;
    const auto width = static_cast<int32_t>(source->width);
    const auto height = static_cast<int32_t>(source->height);
    if (height <= 0 || width <= 0) return result::BadSize;
    if (width % 4 != 0) return result::BadSize;
    return result::Success;
}

// What the kernels need beyond the validators: both pixel buffers, and a
// destination as large as the source.
int checkImagesForKernel(const QRV_Image& source, const QRV_Image& destination)
{
    if (!source.data || !destination.data) return result::MissingImage;
    if (source.width != destination.width || source.height != destination.height) return result::BadSize;
    return result::Success;
}

int layoutIndex(int32_t yuvLayout)
{
    switch (static_cast<qrv_img::En_YuvLayout>(yuvLayout)) {
    case qrv_img::En_YuvLayout::UYVY: return 1;
    case qrv_img::En_YuvLayout::YVYU: return 2;
    case qrv_img::En_YuvLayout::VYUY: return 3;
    default: return 0;
    }
}

void runYuvKernel(const QRV_Image& source, QRV_Image& destination, bool swap)
{
    yuv422_to_rgb888_neon_layout(firstPixel(source), firstPixel(destination), static_cast<int>(source.width),
                                 static_cast<int>(source.height), swap, layoutIndex(source.yuvLayout));
}

void runGrayKernel(const QRV_Image& source, QRV_Image& destination)
{
    rgb888_to_gray8_neon(firstPixel(source), firstPixel(destination), static_cast<int>(source.width),
                         static_cast<int>(source.height), source.format == En_ImageFormat::BGR888);
}

// The rest of a YUV conversion once the destination format has been checked.
int convertYuv(const QRV_Image* source, QRV_Image* destination, bool swap)
{
    int code = CCpuParaConverter::validateYUV422ToRGB_(source, destination);
    if (code == result::Success) code = checkImagesForKernel(*source, *destination);
    if (code != result::Success) return code;
    runYuvKernel(*source, *destination, swap);
    return result::Success;
}

}  // namespace

int CCpuParaConverter::validateYUV422ToRGB_(const QRV_Image* source, QRV_Image* destination)
{
    const int geometry = checkSourceGeometry(source, destination);
    if (geometry != result::Success) return geometry;
    if (source->format != En_ImageFormat::YUV422_8) return result::FormatMismatch;
    if (source->subFormat != 0) return result::FormatMismatch;
    if (!isColour(destination->format)) return result::FormatMismatch;
    IPM_LOG(Trace, L"Called");
    return simdCheck();
}

int CCpuParaConverter::validateRGB888ToGray8_(const QRV_Image* source, QRV_Image* destination)
{
    const int geometry = checkSourceGeometry(source, destination);
    if (geometry != result::Success) return geometry;
    if (!isColour(source->format)) return result::FormatMismatch;
    if (destination->format != En_ImageFormat::Gray8) return result::FormatMismatch;
    IPM_LOG(Trace, L"Called");
    return simdCheck();
}

int CCpuParaConverter::ConvertYUV422_8_To_RGB888(const QRV_Image* source, QRV_Image* destination, void*,
                                                 void*)
{
    if (destination == nullptr || destination->format != En_ImageFormat::RGB888)
        return result::FormatMismatch;
    IPM_LOG(Trace, L"Called");
    return convertYuv(source, destination, false);
}

int CCpuParaConverter::ConvertYUV422_8_To_BGR888(const QRV_Image* source, QRV_Image* destination, void*,
                                                 void*)
{
    if (destination == nullptr || destination->format != En_ImageFormat::BGR888)
        return result::FormatMismatch;
    IPM_LOG(Trace, L"Called");
    return convertYuv(source, destination, true);
}

int CCpuParaConverter::ConvertRGB888_To_Gray8(const QRV_Image* source, QRV_Image* destination, void*, void*)
{
    if (destination == nullptr || destination->format != En_ImageFormat::Gray8) return result::FormatMismatch;
    IPM_LOG(Trace, L"Called");
    int code = validateRGB888ToGray8_(source, destination);
    if (code == result::Success) code = checkImagesForKernel(*source, *destination);
    if (code != result::Success) return code;
    runGrayKernel(*source, *destination);
    return result::Success;
}

void CCpuParaConverter::yuv422_to_rgb888_core_(const QRV_Image& source, QRV_Image& destination)
{
    IPM_LOG(Trace, L"Called");
    runYuvKernel(source, destination, destination.format == En_ImageFormat::BGR888);
}

void CCpuParaConverter::rgb888_to_gray8_core_(const QRV_Image& source, QRV_Image& destination)
{
    IPM_LOG(Trace, L"Called");
    runGrayKernel(source, destination);
}
