// Dispatch through the function table with arbitrary coordinates and image
// headers, over buffers that hold exactly what the headers claim: whatever
// arrives, the call returns one of the library's result codes and touches
// nothing outside the buffers.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "CIpmFuncTable.h"
#include "QRV_Log.h"

namespace {

class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    template <typename T>
    T take()
    {
        T value{};
        const size_t n = std::min(sizeof(T), size_ - used_);
        std::memcpy(&value, data_ + used_, n);
        used_ += n;
        return value;
    }
    size_t left() const { return size_ - used_; }
    const uint8_t* rest() const { return data_ + used_; }

private:
    const uint8_t* data_;
    size_t size_;
    size_t used_ = 0;
};

constexpr int32_t kFormats[] = {101, 208, 301, 302, 0, 303, -1};

// Builds an image from the input: a format (mostly a known one), a small
// geometry, a layout and sub-format, and a buffer of exactly dataOffset plus
// the pixel bytes, or none.
qrv_img::QRV_Image makeImage(Input& in)
{
    qrv_img::QRV_Image image;
    const uint8_t formatPick = in.take<uint8_t>();
    image.format = static_cast<qrv_img::En_ImageFormat>(
        formatPick < 240 ? kFormats[formatPick % 4] : kFormats[formatPick % 7]);
    const uint8_t geometry = in.take<uint8_t>();
    // Mostly small sizes, sometimes a value that is negative as a signed int.
    image.width = geometry < 250 ? in.take<uint8_t>() % 70 : 0x80000000u | in.take<uint8_t>();
    image.height = in.take<uint8_t>() % 9;
    image.yuvLayout = static_cast<int32_t>(in.take<uint8_t>() % 16);
    image.subFormat = in.take<uint8_t>() < 230 ? 0 : 1;
    image.frameTag = in.take<int32_t>();
    const uint8_t bufferPick = in.take<uint8_t>();
    if (bufferPick < 240 && image.width < 0x80000000u) {
        image.dataOffset = bufferPick % 5;
        image.dataSize = image.pixelBytes();
        const size_t total = static_cast<size_t>(image.dataOffset) + image.dataSize;
        // Exact size, so any access past the pixels is an ASan report.
        image.data = std::shared_ptr<uint8_t[]>(new uint8_t[total == 0 ? 1 : total]);
        for (size_t i = 0; i < total; ++i) image.data[i] = in.take<uint8_t>();
    }
    return image;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    qrvlog::QRV_Log::Instance()->setSink([](const qrvlog::LogRecord&) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input in(data, size);
    const int32_t backend = static_cast<int8_t>(in.take<uint8_t>()) % 7;
    const int32_t module = static_cast<int8_t>(in.take<uint8_t>()) % 6;
    const int32_t index = static_cast<int8_t>(in.take<uint8_t>()) % 12;
    const uint8_t nulls = in.take<uint8_t>();
    qrv_img::QRV_Image source = makeImage(in);
    qrv_img::QRV_Image destination = makeImage(in);
    const int code = ipmcommon::CIpmFuncTable::Instance()->process(
        static_cast<ipmcommon::EnProcessBackend>(backend), static_cast<ipmcommon::EnIpmModule>(module), index,
        nulls == 1 ? nullptr : &source, nulls == 2 ? nullptr : &destination, nullptr, nullptr);
    if (code < 0 || code > 9) {
        std::fprintf(stderr, "process returned %d, which is no result code\n", code);
        std::abort();
    }
    return 0;
}
