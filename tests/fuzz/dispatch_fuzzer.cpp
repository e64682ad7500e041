// Dispatch of arbitrary coordinates and image headers over buffers of exactly
// the claimed size returns a result code and touches nothing outside them.
#include <algorithm>

#include "CIpmFuncTable.h"
#include "FuzzInput.h"

using qrv_img::QRV_Image;

namespace {

// Format, geometry pick, width, height, YUV layout, sub-format, frameTag (4
// bytes, unused), buffer pick, then the dataOffset bytes and the pixels.
QRV_Image decodeImage(FuzzInput& in)
{
    static constexpr int32_t kFormats[] = {101, 208, 301, 302, 0, 303, -1};  // known, then unknown
    QRV_Image image;
    const uint8_t formatPick = in.byte();
    image.format = static_cast<qrv_img::En_ImageFormat>(kFormats[formatPick % (formatPick < 240 ? 4 : 7)]);
    // Mostly small sizes, sometimes a width that is negative as a signed int.
    image.width = in.byte() < 250 ? in.byte() % 70 : 0x80000000u | in.byte();
    image.height = in.byte() % 9;
    image.yuvLayout = in.byte() % 16;
    image.subFormat = in.byte() < 230 ? 0 : 1;
    in.used = std::min(in.used + 4, in.size);
    const uint8_t bufferPick = in.byte();
    if (bufferPick < 240 && image.width < 0x80000000u) {
        image.dataOffset = bufferPick % 5;
        image.dataSize = image.pixelBytes();
        const size_t total = static_cast<size_t>(image.dataOffset) + image.dataSize;
        image.data.reset(new uint8_t[std::max<size_t>(total, 1)]);
        for (size_t i = 0; i < total; ++i) image.data[i] = in.byte();
    }
    return image;
}

}  // namespace

// Backend, module, index, pointer choice (1, 2: null source, destination; 3: in place), two images.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput in{data, size};
    const auto backend = static_cast<ipmcommon::EnProcessBackend>(static_cast<int8_t>(in.byte()) % 7);
    const auto module = static_cast<ipmcommon::EnIpmModule>(static_cast<int8_t>(in.byte()) % 6);
    const int index = static_cast<int8_t>(in.byte()) % 12;
    const uint8_t pointers = in.byte();
    QRV_Image source = decodeImage(in), destination = decodeImage(in);
    QRV_Image* target = pointers == 2 ? nullptr : pointers == 3 ? &source : &destination;
    const int code = ipmcommon::CIpmFuncTable::Instance()->process(
        backend, module, index, pointers == 1 ? nullptr : &source, target, nullptr, nullptr);
    if (code < 0 || code > 9) std::abort();  // no result code
    return 0;
}
