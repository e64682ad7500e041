// Example user plug-in: a horizontal mirror for RGB888 and BGR888 images and a
// Gray8 threshold. Each function checks its images first and answers with the
// library's result codes.
#include <algorithm>
#include <cstdint>
#include <iterator>

#include "IpmUserCustom.h"
#include "QRV_Image.h"

namespace {

using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
namespace result = ipmcommon::result;

constexpr int kDefaultThreshold = 128;

// The image has a buffer holding all its packed pixels.
bool hasPixels(const QRV_Image& image)
{
    if (image.pixels() == nullptr) return false;
    // rowBytes() cannot overflow for 32-bit sizes; the product with the height
    // could, so compare by division.
    return image.height == 0 || image.rowBytes() <= image.dataSize / image.height;
}

// 8 for a missing image or buffer, 9 for formats outside `accepted` or
// differing between the two, or differing sizes; 1 when the pair is usable.
template <size_t N>
int checkPair(const QRV_Image* source, const QRV_Image* destination, const En_ImageFormat (&accepted)[N])
{
    if (source == nullptr || destination == nullptr) return result::MissingImage;
    if (!hasPixels(*source) || !hasPixels(*destination)) return result::MissingImage;
    if (std::find(accepted, accepted + N, source->format) == accepted + N ||
        destination->format != source->format) {
        return result::Mismatch;
    }
    if (destination->width != source->width || destination->height != source->height) return result::Mismatch;
    return result::Success;
}

// Mirrors the image left to right; the source may be the destination itself.
int mirrorHorizontal(const QRV_Image* source, QRV_Image* destination, void*, void*)
{
    static const En_ImageFormat kFormats[] = {En_ImageFormat::RGB888, En_ImageFormat::BGR888};
    const int check = checkPair(source, destination, kFormats);
    if (check != result::Success) return check;
    const size_t width = source->width;
    // Nothing to mirror; the in-place loop below needs at least one column.
    if (width == 0) return result::Success;
    const size_t rowBytes = source->rowBytes();
    for (size_t y = 0; y < source->height; ++y) {
        const uint8_t* in = source->pixels() + y * rowBytes;
        uint8_t* out = destination->pixels() + y * rowBytes;
        if (in == out) {
            for (size_t left = 0, right = width - 1; left < right; ++left, --right) {
                std::swap_ranges(out + 3 * left, out + 3 * left + 3, out + 3 * right);
            }
        } else {
            for (size_t x = 0; x < width; ++x) std::copy_n(in + 3 * (width - 1 - x), 3, out + 3 * x);
        }
    }
    return result::Success;
}

// Pixels at or above the threshold become 255, the others 0. user1, when
// set, points to the threshold as an int (default 128).
int threshold(const QRV_Image* source, QRV_Image* destination, void* user1, void*)
{
    static const En_ImageFormat kFormats[] = {En_ImageFormat::Gray8};
    const int check = checkPair(source, destination, kFormats);
    if (check != result::Success) return check;
    const int level = user1 != nullptr ? *static_cast<const int*>(user1) : kDefaultThreshold;
    const uint8_t* in = source->pixels();
    std::transform(in, in + source->pixelBytes(), destination->pixels(),
                   [level](uint8_t value) -> uint8_t { return value >= level ? 255 : 0; });
    return result::Success;
}

// The library copies these right after registration; they stay here.
AlgEntry entries[] = {
    {0, mirrorHorizontal, L"Mirror horizontal (RGB888/BGR888)"},
    {1, threshold, L"Threshold (Gray8)"},
};

}  // namespace

// Lets the library refuse this plug-in, rather than misread its records, when
// it was built against another version of the plug-in interface.
IPM_USER_CUSTOM_DEFINE_INFO();

int ipm_user_custom_register(AlgEntry** out, int* count)
{
    *out = entries;
    *count = static_cast<int>(std::size(entries));
    return 0;
}
