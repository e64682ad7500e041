// For hosts and plug-ins: the platform interface that libQRV_IPM is built on.
//
// Image record of the QRV image library.
//
// Pixels are packed rows: row r starts r * width * bytesPerPixel(format) bytes
// after the first pixel, which lies dataOffset bytes into the shared buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace qrv_img {

enum class En_ImageFormat : int32_t {
    Gray8 = 101,
    YUV422_8 = 208,
    RGB888 = 301,
    BGR888 = 302,
};

// Byte order of packed YUV 4:2:2 groups of four bytes.
enum class En_YuvLayout : int32_t {
    YUYV = 10,
    UYVY = 11,
    YVYU = 12,
    VYUY = 13,
};

// Both modes copy the pixel bytes and carry frameTag, yuvLayout and subFormat.
// The mode records why the copy is made: Processing when a buffered frame
// enters a processing list, Capture when a camera frame is buffered.
enum class CopyMode : int32_t {
    Processing = 1,
    Capture = 2,
};

// Bytes per pixel of a packed format; formats this library does not know
// count as one byte per pixel.
size_t bytesPerPixel(En_ImageFormat format);

class QRV_Image {
public:
    QRV_Image() = default;
    // Allocates width * height * bytesPerPixel(format) zero-filled bytes when
    // allocate is true; planes must be 1 (every supported format is packed).
    QRV_Image(unsigned int width, unsigned int height, En_ImageFormat format, bool allocate,
              unsigned int planes);
    QRV_Image(QRV_Image&& other) noexcept = default;
    QRV_Image& operator=(QRV_Image&& other) noexcept = default;
    QRV_Image(const QRV_Image&) = delete;
    QRV_Image& operator=(const QRV_Image&) = delete;
    ~QRV_Image() = default;

    // Copies the pixels of src into this image's existing buffer. Refuses,
    // writing nothing, when width, height or format differ or when either
    // buffer is missing or smaller than the pixels need.
    bool copy(const QRV_Image& src, CopyMode mode);

    size_t rowBytes() const;
    size_t pixelBytes() const;
    // Address of the first pixel, or null when there is no buffer.
    uint8_t* pixels() const;

    uint32_t width = 0;
    uint32_t height = 0;
    int32_t frameTag = 0;
    En_ImageFormat format = En_ImageFormat::Gray8;
    int32_t yuvLayout = 0;
    int32_t subFormat = 0;
    std::shared_ptr<uint8_t[]> data;
    int64_t dataOffset = 0;
    size_t dataSize = 0;  // bytes available from the first pixel on
};

}  // namespace qrv_img
