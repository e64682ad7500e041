// The serial and parallel converters as a host reaches them: through the catalogue.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "Converter/CConverter.h"
#include "Converter/CpuConvertKernel.h"
#include "TestSupport.h"

using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using Backend = ipmcommon::EnProcessBackend;

namespace {

constexpr uint8_t kCanary = 0x77;
constexpr uint8_t kPrefix = 0xCD;  // fills the bytes before the first pixel
constexpr int64_t kOffset = 5;
constexpr En_ImageFormat kDestinations[3] = {En_ImageFormat::RGB888, En_ImageFormat::BGR888,
                                             En_ImageFormat::Gray8};

// An image whose first pixel lies kOffset bytes in, its pixels random or kCanary.
QRV_Image makeImage(uint32_t width, uint32_t height, En_ImageFormat format, std::mt19937* random = nullptr,
                    int32_t yuvLayout = 10)
{
    QRV_Image image(width, height, format, false, 1);
    image.yuvLayout = yuvLayout, image.dataOffset = kOffset, image.dataSize = image.pixelBytes();
    image.data.reset(new uint8_t[kOffset + image.dataSize]);
    std::fill_n(image.data.get(), kOffset, kPrefix);
    for (size_t i = 0; i < image.dataSize; ++i) image.data[kOffset + i] = random ? (*random)() : kCanary;
    return image;
}

// The pixel bytes; no conversion reads or writes the bytes before them.
std::vector<uint8_t> pixels(const QRV_Image& image)
{
    EXPECT_TRUE(
        std::all_of(image.data.get(), image.data.get() + kOffset, [](uint8_t b) { return b == kPrefix; }));
    return {image.data.get() + kOffset, image.data.get() + kOffset + image.dataSize};
}

// Conversion `index` (to RGB888, to BGR888, to gray) of a backend, as the catalogue offers it.
int convert(Backend backend, int index, const QRV_Image* source, QRV_Image* destination)
{
    return CConverter::Instance()->getAlgList(backend).at(index).func(source, destination, nullptr, nullptr);
}

}  // namespace

TEST(SerialConverter, YuvReferenceValuesInEveryLayoutAndByteOrder)
{
    // Y0, Y1, U, V -> R, G, B, R, G, B; the last four rows move with any coefficient changed by one.
    // clang-format off
    const uint8_t rows[12][10] = {
        {16, 16, 128, 128, 0, 0, 0, 0, 0, 0},               {235, 235, 128, 128, 255, 255, 255, 255, 255, 255},
        {128, 128, 128, 128, 130, 130, 130, 130, 130, 130}, {81, 81, 90, 240, 255, 0, 0, 255, 0, 0},
        {145, 145, 54, 34, 0, 255, 1, 0, 255, 1},           {41, 41, 240, 110, 0, 0, 255, 0, 0, 255},
        {0, 0, 0, 0, 0, 154, 0, 0, 154, 0},                 {235, 16, 128, 128, 255, 255, 255, 0, 0, 0},
        {30, 30, 139, 120, 4, 19, 38, 4, 19, 38},           {37, 37, 205, 118, 8, 2, 180, 8, 2, 180},
        {80, 80, 128, 128, 75, 75, 75, 75, 75, 75},         {24, 24, 124, 135, 20, 5, 1, 20, 5, 1}};
    // clang-format on
    // Positions of Y0, Y1, U, V in a group of YUYV, UYVY, YVYU, VYUY.
    const int groups[4][4] = {{0, 2, 1, 3}, {1, 3, 0, 2}, {0, 2, 3, 1}, {1, 3, 2, 0}};
    for (int32_t layout : {10, 11, 12, 13, 0, 99}) {
        const bool known = layout >= 10 && layout <= 13;
        QRV_Image source = makeImage(24, 1, En_ImageFormat::YUV422_8, nullptr, layout);
        for (int i = 0; i < 48; ++i)
            source.data[kOffset + i / 4 * 4 + groups[known ? layout - 10 : 0][i % 4]] = rows[i / 4][i % 4];
        for (int bgr = 0; bgr < 2; ++bgr) {
            QRV_Image destination = makeImage(24, 1, kDestinations[bgr]);
            ASSERT_EQ(convert(Backend::CPU_Serial, bgr, &source, &destination), 1);
            // Layouts outside 10 to 13 leave the destination as it was.
            std::vector<uint8_t> expected(destination.dataSize, kCanary);
            for (int i = 0; known && i < 72; ++i)
                expected[i / 3 * 3 + (bgr ? 2 - i % 3 : i % 3)] = rows[i / 6][4 + i % 6];
            EXPECT_EQ(pixels(destination), expected) << "layout " << layout << ", bgr " << bgr;
        }
    }
}

TEST(Converters, RefusalsLeaveTheDestinationUntouched)
{
    enum { kNoSource = 1, kNoDestination = 2, kNoSourcePixels = 4, kNoDestinationPixels = 8 };
    constexpr uint32_t kNegative = 0x80000008u;  // negative as a signed number
    // Each row spoils a valid pair (8 x 2, YUYV or BGR888 source): what it drops, the sizes, the formats
    // and the source's sub-format (0 keeps them). Codes of serial to RGB888, to BGR888, to gray, then the
    // parallel three; -1 where a conversion would run over the buffers.
    const struct {
        const char* what;
        int drop;
        uint32_t sizes[4];
        int formats[3];
        int codes[6];
    } rows[] = {
        {"null source", kNoSource, {8, 2, 8, 2}, {}, {8, 8, 8, 8, 8, 8}},
        {"null destination", kNoDestination, {8, 2, 8, 2}, {}, {8, 8, 8, 6, 6, 6}},
        {"both null", kNoSource | kNoDestination, {8, 2, 8, 2}, {}, {8, 8, 8, 6, 6, 6}},
        {"no source pixels", kNoSourcePixels, {8, 2, 8, 2}, {}, {8, 8, 8, 8, 8, 8}},
        {"no destination pixels", kNoDestinationPixels, {8, 2, 8, 2}, {}, {8, 8, 8, 8, 8, 8}},
        {"no pixels, gray source", kNoSourcePixels, {8, 2, 8, 2}, {101}, {8, 8, 8, 6, 6, 6}},
        {"no pixels, shorter", kNoDestinationPixels, {8, 2, 8, 1}, {}, {8, 8, 8, 8, 8, 8}},
        {"gray source", 0, {8, 2, 8, 2}, {101}, {9, 9, 9, 6, 6, 6}},
        {"gray destination", 0, {8, 2, 8, 2}, {0, 101}, {9, 9, 1, 6, 6, 1}},
        {"RGB888 destination", 0, {8, 2, 8, 2}, {0, 301}, {1, 9, 9, 1, 6, 6}},
        {"BGR888 destination", 0, {8, 2, 8, 2}, {0, 302}, {9, 1, 9, 6, 1, 6}},
        {"narrower destination", 0, {8, 2, 4, 2}, {}, {9, 9, 9, 5, 5, 5}},
        {"taller destination", 0, {8, 2, 8, 3}, {}, {9, 9, 9, 5, 5, 5}},
        {"width 5", 0, {5, 2, 5, 2}, {}, {9, 9, 1, 5, 5, 5}},
        {"width 6", 0, {6, 2, 6, 2}, {}, {1, 1, 1, 5, 5, 5}},
        {"width 0", 0, {0, 2, 0, 2}, {}, {1, 1, 1, 5, 5, 5}},
        {"height 0", 0, {8, 0, 8, 0}, {}, {1, 1, 1, 5, 5, 5}},
        {"negative width", 0, {kNegative, 2, kNegative, 2}, {}, {-1, -1, -1, 5, 5, 5}},
        {"negative height", 0, {8, kNegative, 8, kNegative}, {}, {-1, -1, -1, 5, 5, 5}},
        {"sub-format 1", 0, {8, 2, 8, 2}, {0, 0, 1}, {1, 1, 1, 6, 6, 1}},
    };
    // Without AVX2 (an emulated Nehalem) the parallel successes below return 0 and write nothing.
#if defined(__x86_64__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    if (!qrvtest::inChild()) {
        qrvtest::ProcessOptions options;
        options.useEmulator = false;
        options.wrapper = {"qemu-x86_64", "-cpu", "Nehalem"};
        const auto child = qrvtest::runSelf(options);
        EXPECT_EQ(child.exitCode, 0) << child.out << child.err;
    }
#endif
    std::mt19937 random(3);
    for (const auto& row : rows) {
        for (int column = 0; column < 6; ++column) {
            if (row.codes[column] < 0 || (qrvtest::inChild() && (column < 3 || row.codes[column] != 1)))
                continue;
            QRV_Image source =
                makeImage(8, 2, column % 3 == 2 ? En_ImageFormat::BGR888 : En_ImageFormat::YUV422_8, &random);
            QRV_Image destination = makeImage(8, 2, kDestinations[column % 3]);
            source.width = row.sizes[0], source.height = row.sizes[1], source.subFormat = row.formats[2];
            destination.width = row.sizes[2], destination.height = row.sizes[3];
            if (row.formats[0] != 0) source.format = static_cast<En_ImageFormat>(row.formats[0]);
            if (row.formats[1] != 0) destination.format = static_cast<En_ImageFormat>(row.formats[1]);
            if (row.drop & kNoSourcePixels) source.data.reset();
            if (row.drop & kNoDestinationPixels) destination.data.reset();
            const int code = convert(column < 3 ? Backend::CPU_Serial : Backend::CPU_Parallel, column % 3,
                                     row.drop & kNoSource ? nullptr : &source,
                                     row.drop & kNoDestination ? nullptr : &destination);
            EXPECT_EQ(code, qrvtest::inChild() ? 0 : row.codes[column]) << row.what << ", column " << column;
            if (code != 1 && destination.data) {
                EXPECT_EQ(pixels(destination), std::vector<uint8_t>(destination.dataSize, kCanary))
                    << row.what;
            }
        }
    }
}

// The parallel conversions write what the kernels write, and the serial gray one the same.
TEST(ParaConverter, WritesWhatTheKernelsWrite)
{
    std::mt19937 random(5);
    for (const auto& [width, height] : {std::pair<uint32_t, uint32_t>{4, 1}, {12, 2}, {20, 3}}) {
        // Layouts 10 to 13 are the kernel's layouts 0 to 3; any other reads as YUYV.
        for (const auto& [layout, kernelLayout] :
             {std::pair{10, 0}, {11, 1}, {12, 2}, {13, 3}, {0, 0}, {99, 0}}) {
            const QRV_Image source = makeImage(width, height, En_ImageFormat::YUV422_8, &random, layout);
            for (int bgr = 0; bgr < 2; ++bgr) {
                QRV_Image destination = makeImage(width, height, kDestinations[bgr]);
                std::vector<uint8_t> expected(destination.dataSize);
                yuv422_to_rgb888_neon_layout(pixels(source).data(), expected.data(), width, height, bgr,
                                             kernelLayout);
                EXPECT_EQ(convert(Backend::CPU_Parallel, bgr, &source, &destination), 1);
                EXPECT_EQ(pixels(destination), expected) << width << " x " << height << ", layout " << layout;
            }
        }
        for (int bgr = 0; bgr < 2; ++bgr) {
            const QRV_Image source = makeImage(width, height, kDestinations[bgr], &random);
            std::vector<uint8_t> expected(size_t{width} * height);
            rgb888_to_gray8_neon(pixels(source).data(), expected.data(), width, height, bgr);
            for (Backend backend : {Backend::CPU_Serial, Backend::CPU_Parallel}) {
                QRV_Image gray = makeImage(width, height, En_ImageFormat::Gray8);
                EXPECT_EQ(convert(backend, 2, &source, &gray), 1);
                EXPECT_EQ(pixels(gray), expected) << width << " x " << height << ", bgr " << bgr;
            }
        }
    }
}
