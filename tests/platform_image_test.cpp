#include <gtest/gtest.h>

#include <cstring>

#include "QRV_Image.h"

using qrv_img::CopyMode;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;

namespace {

void fill(QRV_Image& image, uint8_t seed)
{
    for (size_t i = 0; i < image.pixelBytes(); ++i) image.pixels()[i] = static_cast<uint8_t>(seed + i * 7);
}

}  // namespace

TEST(QrvImage, RowAndBufferSizesFollowTheFormat)
{
    struct Case {
        En_ImageFormat format;
        size_t rowBytes;
    } cases[] = {{En_ImageFormat::YUV422_8, 8},
                 {En_ImageFormat::RGB888, 12},
                 {En_ImageFormat::BGR888, 12},
                 {En_ImageFormat::Gray8, 4},
                 {static_cast<En_ImageFormat>(999), 4}};
    for (const auto& c : cases) {
        QRV_Image image(4, 3, c.format, true, 1);
        EXPECT_EQ(image.rowBytes(), c.rowBytes);
        EXPECT_EQ(image.dataSize, c.rowBytes * 3);
        ASSERT_NE(image.data, nullptr);
        EXPECT_EQ(image.dataOffset, 0);
        for (size_t i = 0; i < image.dataSize; ++i) ASSERT_EQ(image.data[i], 0) << "buffer is zero-filled";
    }
}

TEST(QrvImage, DefaultImageHasNoBufferAndNoFirstPixel)
{
    QRV_Image image;
    EXPECT_EQ(image.data, nullptr);
    image.dataOffset = 16;
    EXPECT_EQ(image.pixels(), nullptr) << "the offset is not added to a null buffer";
}

TEST(QrvImage, ImageWithoutAllocationKeepsGeometryOnly)
{
    QRV_Image image(8, 2, En_ImageFormat::RGB888, false, 1);
    EXPECT_EQ(image.width, 8u);
    EXPECT_EQ(image.data, nullptr);
    EXPECT_EQ(image.dataSize, 0u);
}

TEST(QrvImage, MoveTransfersTheBufferAndEmptiesTheSource)
{
    QRV_Image source(4, 2, En_ImageFormat::Gray8, true, 1);
    source.frameTag = 42;
    const uint8_t* buffer = source.data.get();

    QRV_Image moved(std::move(source));
    EXPECT_EQ(moved.data.get(), buffer);
    EXPECT_EQ(moved.frameTag, 42);
    EXPECT_EQ(source.data, nullptr);

    QRV_Image assigned(1, 1, En_ImageFormat::RGB888, true, 1);
    assigned = std::move(moved);
    EXPECT_EQ(assigned.data.get(), buffer);
    EXPECT_EQ(assigned.format, En_ImageFormat::Gray8);
    EXPECT_EQ(moved.data, nullptr);
}

TEST(QrvImage, CopyCarriesPixelsAndTagsInBothModes)
{
    for (CopyMode mode : {CopyMode::Processing, CopyMode::Capture}) {
        QRV_Image source(6, 3, En_ImageFormat::YUV422_8, true, 1);
        fill(source, 3);
        source.frameTag = -7;
        source.yuvLayout = 13;
        source.subFormat = 2;
        QRV_Image target(6, 3, En_ImageFormat::YUV422_8, true, 1);
        ASSERT_TRUE(target.copy(source, mode));
        EXPECT_EQ(0, std::memcmp(target.pixels(), source.pixels(), source.pixelBytes()));
        EXPECT_EQ(target.frameTag, -7);
        EXPECT_EQ(target.yuvLayout, 13);
        EXPECT_EQ(target.subFormat, 2);
        EXPECT_NE(target.data, source.data) << "copy writes into the target's own buffer";
    }
}

TEST(QrvImage, CopyHonoursDataOffsets)
{
    QRV_Image source(2, 2, En_ImageFormat::Gray8, true, 1);
    fill(source, 1);
    QRV_Image target;
    target.width = 2;
    target.height = 2;
    target.format = En_ImageFormat::Gray8;
    target.data.reset(new uint8_t[10]());
    target.dataOffset = 6;
    target.dataSize = 4;
    ASSERT_TRUE(target.copy(source, CopyMode::Processing));
    for (int i = 0; i < 6; ++i) EXPECT_EQ(target.data[i], 0) << "byte before the first pixel at " << i;
    EXPECT_EQ(0, std::memcmp(target.data.get() + 6, source.pixels(), 4));
}

TEST(QrvImage, CopyRefusesAnyMismatchWithoutWriting)
{
    struct Case {
        const char* what;
        uint32_t width, height;
        En_ImageFormat format;
        bool sourceBuffer, targetBuffer;
        size_t targetSize;  // 0: as allocated
    } cases[] = {
        {"width", 5, 3, En_ImageFormat::RGB888, true, true, 0},
        {"height", 4, 2, En_ImageFormat::RGB888, true, true, 0},
        {"format", 4, 3, En_ImageFormat::BGR888, true, true, 0},
        {"missing source buffer", 4, 3, En_ImageFormat::RGB888, false, true, 0},
        {"missing target buffer", 4, 3, En_ImageFormat::RGB888, true, false, 0},
        {"target too small", 4, 3, En_ImageFormat::RGB888, true, true, 35},
    };
    for (const auto& c : cases) {
        QRV_Image source(4, 3, En_ImageFormat::RGB888, c.sourceBuffer, 1);
        if (c.sourceBuffer) fill(source, 9);
        source.frameTag = 5;
        QRV_Image target(c.width, c.height, c.format, c.targetBuffer, 1);
        if (c.targetSize) target.dataSize = c.targetSize;
        target.frameTag = 1;
        EXPECT_FALSE(target.copy(source, CopyMode::Capture)) << c.what;
        EXPECT_EQ(target.frameTag, 1) << c.what;
        for (size_t i = 0; c.targetBuffer && i < target.pixelBytes(); ++i) {
            ASSERT_EQ(target.data[i], 0) << c.what;
        }
    }
}
