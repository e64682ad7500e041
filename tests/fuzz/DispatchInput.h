// How the dispatch fuzz target reads its input: coordinates, a pointer
// choice and two image headers, each with a buffer that holds exactly the
// bytes its header claims (dataOffset bytes, then the pixels), or none.
//
// Layout: backend, module, index, pointer choice (one byte each; 1: null
// source, 2: null destination, 3: the source as destination too), then per
// image: format pick, geometry pick, width, height, layout, sub-format pick
// (one byte each), frameTag (4 bytes), buffer pick, then dataOffset + pixel
// bytes of buffer content.
#pragma once

#include <cstdint>
#include <memory>

#include "CIpmFuncTable.h"
#include "FuzzInput.h"
#include "QRV_Image.h"

namespace qrvfuzz {

struct DispatchCall {
    ipmcommon::EnProcessBackend backend{};
    ipmcommon::EnIpmModule module{};
    int index = 0;
    bool nullSource = false;
    bool nullDestination = false;
    bool inPlace = false;  // the source is the destination too
    qrv_img::QRV_Image source;
    qrv_img::QRV_Image destination;

    int dispatch()
    {
        qrv_img::QRV_Image* target = nullDestination ? nullptr : inPlace ? &source : &destination;
        return ipmcommon::CIpmFuncTable::Instance()->process(
            backend, module, index, nullSource ? nullptr : &source, target, nullptr, nullptr);
    }
};

inline qrv_img::QRV_Image decodeImage(Input& in)
{
    // The four formats the library knows, and sometimes one it does not.
    static constexpr int32_t kFormats[] = {101, 208, 301, 302, 0, 303, -1};
    qrv_img::QRV_Image image;
    const uint8_t formatPick = in.byte();
    image.format = static_cast<qrv_img::En_ImageFormat>(formatPick < 240 ? kFormats[formatPick % 4]
                                                                         : kFormats[formatPick % 7]);
    const uint8_t geometry = in.byte();
    // Mostly small sizes, sometimes a width that is negative as a signed int.
    image.width = geometry < 250 ? in.byte() % 70 : 0x80000000u | in.byte();
    image.height = in.byte() % 9;
    image.yuvLayout = static_cast<int32_t>(in.byte() % 16);
    image.subFormat = in.byte() < 230 ? 0 : 1;
    image.frameTag = in.take<int32_t>();
    const uint8_t bufferPick = in.byte();
    if (bufferPick < 240 && image.width < 0x80000000u) {
        image.dataOffset = bufferPick % 5;
        image.dataSize = image.pixelBytes();
        const size_t total = static_cast<size_t>(image.dataOffset) + image.dataSize;
        // Exactly the size the header claims, so that a read or write past
        // the pixels is an AddressSanitizer report.
        image.data = std::shared_ptr<uint8_t[]>(new uint8_t[total == 0 ? 1 : total]);
        for (size_t i = 0; i < total; ++i) image.data[i] = in.byte();
    }
    return image;
}

inline DispatchCall decodeDispatchCall(const uint8_t* data, size_t size)
{
    Input in(data, size);
    DispatchCall call;
    call.backend = static_cast<ipmcommon::EnProcessBackend>(static_cast<int8_t>(in.byte()) % 7);
    call.module = static_cast<ipmcommon::EnIpmModule>(static_cast<int8_t>(in.byte()) % 6);
    call.index = static_cast<int8_t>(in.byte()) % 12;
    const uint8_t pointers = in.byte();
    call.nullSource = pointers == 1;
    call.nullDestination = pointers == 2;
    call.inPlace = pointers == 3;
    call.source = decodeImage(in);
    call.destination = decodeImage(in);
    return call;
}

}  // namespace qrvfuzz
