#include "TestImages.h"

#include <cstring>
#include <random>
#include <stdexcept>

namespace qrvtest {

qrv_img::QRV_Image makeImage(uint32_t width, uint32_t height, qrv_img::En_ImageFormat format, int64_t offset,
                             uint8_t fill)
{
    qrv_img::QRV_Image image;
    image.width = width;
    image.height = height;
    image.format = format;
    image.dataSize = static_cast<size_t>(width) * height * qrv_img::bytesPerPixel(format);
    const size_t total = static_cast<size_t>(offset) + image.dataSize;
    image.data = std::shared_ptr<uint8_t[]>(new uint8_t[total == 0 ? 1 : total]);
    image.dataOffset = offset;
    std::memset(image.data.get(), kPrefixByte, static_cast<size_t>(offset));
    std::memset(image.data.get() + offset, fill, image.dataSize);
    return image;
}

std::vector<uint8_t> pixelBytes(const qrv_img::QRV_Image& image)
{
    const uint8_t* first = image.data.get() + image.dataOffset;
    return std::vector<uint8_t>(first, first + image.dataSize);
}

std::vector<uint8_t> bufferBytes(const qrv_img::QRV_Image& image)
{
    return std::vector<uint8_t>(image.data.get(), image.data.get() + image.dataOffset + image.dataSize);
}

void fillRandom(qrv_img::QRV_Image& image, uint32_t seed)
{
    std::mt19937 random(seed);
    uint8_t* first = image.data.get() + image.dataOffset;
    for (size_t i = 0; i < image.dataSize; ++i) first[i] = static_cast<uint8_t>(random() >> 24);
}

void setYuvPair(qrv_img::QRV_Image& image, size_t pair, uint8_t y0, uint8_t u, uint8_t y1, uint8_t v)
{
    // Positions of Y0, U, Y1, V by layout 10 (YUYV), 11 (UYVY), 12 (YVYU), 13 (VYUY).
    static const int kPositions[4][4] = {{0, 1, 2, 3}, {1, 0, 3, 2}, {0, 3, 2, 1}, {1, 2, 3, 0}};
    if (image.yuvLayout < 10 || image.yuvLayout > 13) throw std::invalid_argument("not a YUV layout");
    const int* at = kPositions[image.yuvLayout - 10];
    uint8_t* group = image.data.get() + image.dataOffset + 4 * pair;
    group[at[0]] = y0;
    group[at[1]] = u;
    group[at[2]] = y1;
    group[at[3]] = v;
}

}  // namespace qrvtest
