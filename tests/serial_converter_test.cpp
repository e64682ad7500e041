#include <gtest/gtest.h>

#include <vector>

#include "Converter/CCpuSerialConverter.h"
#include "IpmTypes.h"
#include "RefusalCases.h"
#include "Subprocess.h"
#include "TestImages.h"

using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using qrvtest::kCanary;
using qrvtest::keepPair;
using qrvtest::makeImage;
using qrvtest::pixelBytes;
using qrvtest::RefusalCase;
namespace result = ipmcommon::result;

namespace {

using Conversion = int (CCpuSerialConverter::*)(const QRV_Image*, QRV_Image*, void*, void*);

const struct {
    const char* name;
    Conversion convert;
    En_ImageFormat destination, other;
} kYuvConversions[] = {
    {"to RGB888", &CCpuSerialConverter::ConvertYUV422_8_To_RGB888, En_ImageFormat::RGB888,
     En_ImageFormat::BGR888},
    {"to BGR888", &CCpuSerialConverter::ConvertYUV422_8_To_BGR888, En_ImageFormat::BGR888,
     En_ImageFormat::RGB888},
};

qrvtest::ImagePair yuvPair(En_ImageFormat format)
{
    return [format](QRV_Image& source, QRV_Image& destination) {
        source = makeImage(8, 2, En_ImageFormat::YUV422_8);
        source.yuvLayout = 10;
        qrvtest::fillRandom(source, 3);
        destination = makeImage(8, 2, format, 0, kCanary);
    };
}

void grayPair(QRV_Image& source, QRV_Image& destination)
{
    source = makeImage(5, 2, En_ImageFormat::RGB888);  // odd widths are fine here
    qrvtest::fillRandom(source, 4);
    destination = makeImage(5, 2, En_ImageFormat::Gray8, 0, kCanary);
}

// Checks both validators make first, in this order.
const std::vector<RefusalCase> kImageChecks = {
    {"null source", keepPair, result::MissingImage, true, false},
    {"null destination", keepPair, result::MissingImage, false, true},
    {"source without pixels", [](QRV_Image& s, QRV_Image&) { s.data.reset(); }, result::MissingImage},
    {"destination without pixels", [](QRV_Image&, QRV_Image& d) { d.data.reset(); }, result::MissingImage},
    {"no source pixels and wrong formats",
     [](QRV_Image& s, QRV_Image& d) {
         s.data.reset();
         s.format = d.format = En_ImageFormat::BGR888;
     },
     result::MissingImage},
};

const std::vector<RefusalCase> kYuvChecks = {
    {"source not YUV", [](QRV_Image& s, QRV_Image&) { s.format = En_ImageFormat::RGB888; }, result::Mismatch},
    {"destination gray", [](QRV_Image&, QRV_Image& d) { d.format = En_ImageFormat::Gray8; },
     result::Mismatch},
    {"widths differ", [](QRV_Image&, QRV_Image& d) { d.width = 6; }, result::Mismatch},
    {"heights differ", [](QRV_Image&, QRV_Image& d) { d.height = 1; }, result::Mismatch},
    {"odd width", [](QRV_Image& s, QRV_Image& d) { s.width = d.width = 5; }, result::Mismatch},
};

const std::vector<RefusalCase> kGrayChecks = {
    {"source gray", [](QRV_Image& s, QRV_Image&) { s.format = En_ImageFormat::Gray8; }, result::Mismatch},
    {"source YUV", [](QRV_Image& s, QRV_Image&) { s.format = En_ImageFormat::YUV422_8; }, result::Mismatch},
    {"destination RGB", [](QRV_Image&, QRV_Image& d) { d.format = En_ImageFormat::RGB888; },
     result::Mismatch},
    {"widths differ", [](QRV_Image&, QRV_Image& d) { d.width = 4; }, result::Mismatch},
    {"heights differ", [](QRV_Image&, QRV_Image& d) { d.height = 3; }, result::Mismatch},
};

}  // namespace

TEST(SerialConverter, EveryCheckRefusesWithItsCodeAndWritesNothing)
{
    CCpuSerialConverter converter;
    for (const auto& conversion : kYuvConversions) {
        const auto pair = yuvPair(conversion.destination);
        qrvtest::expectRefusals("validateYUV422ToRGB_", CCpuSerialConverter::validateYUV422ToRGB_,
                                kImageChecks + kYuvChecks, pair);
        const En_ImageFormat other = conversion.other;
        // After validation, each conversion demands its own byte order.
        const std::vector<RefusalCase> orderCheck = {{"destination in the other order",
                                                      [other](QRV_Image&, QRV_Image& d) { d.format = other; },
                                                      result::Mismatch}};
        qrvtest::expectRefusals(
            conversion.name,
            [&](const QRV_Image* s, QRV_Image* d) {
                return (converter.*conversion.convert)(s, d, nullptr, nullptr);
            },
            kImageChecks + kYuvChecks + orderCheck, pair);
    }
    qrvtest::expectRefusals("validateRGB888ToGray8_", CCpuSerialConverter::validateRGB888ToGray8_,
                            kImageChecks + kGrayChecks, grayPair);
    qrvtest::expectRefusals(
        "ConvertRGB888_To_Gray8",
        [&](const QRV_Image* s, QRV_Image* d) {
            return converter.ConvertRGB888_To_Gray8(s, d, nullptr, nullptr);
        },
        kImageChecks + kGrayChecks, grayPair);
}

TEST(SerialConverter, YuvReferenceValuesInEveryLayoutAndOrder)
{
    const struct {
        uint8_t y0, u, y1, v, rgb0[3], rgb1[3];
    } references[] = {
        {16, 128, 16, 128, {0, 0, 0}, {0, 0, 0}},
        {235, 128, 235, 128, {255, 255, 255}, {255, 255, 255}},
        {128, 128, 128, 128, {130, 130, 130}, {130, 130, 130}},
        {81, 90, 81, 240, {255, 0, 0}, {255, 0, 0}},
        {145, 54, 145, 34, {0, 255, 1}, {0, 255, 1}},
        {41, 240, 41, 110, {0, 0, 255}, {0, 0, 255}},
        {10, 128, 10, 128, {0, 0, 0}, {0, 0, 0}},
        {0, 0, 0, 0, {0, 154, 0}, {0, 154, 0}},
        {235, 128, 16, 128, {255, 255, 255}, {0, 0, 0}},  // each pixel of a pair takes its own Y
    };
    constexpr uint32_t kWidth = 2 * std::size(references);
    CCpuSerialConverter converter;
    for (int32_t layout = 10; layout <= 13; ++layout) {
        for (const auto& conversion : kYuvConversions) {
            QRV_Image source = makeImage(kWidth, 1, En_ImageFormat::YUV422_8);
            source.yuvLayout = layout;
            for (size_t pair = 0; pair < std::size(references); ++pair) {
                const auto& ref = references[pair];
                qrvtest::setYuvPair(source, pair, ref.y0, ref.u, ref.y1, ref.v);
            }
            QRV_Image destination = makeImage(kWidth, 1, conversion.destination, 0, kCanary);
            ASSERT_EQ((converter.*conversion.convert)(&source, &destination, nullptr, nullptr),
                      result::Success);
            const bool bgr = conversion.destination == En_ImageFormat::BGR888;
            for (uint32_t x = 0; x < kWidth; ++x) {
                const uint8_t* want = x % 2 == 0 ? references[x / 2].rgb0 : references[x / 2].rgb1;
                const uint8_t* got = destination.data.get() + 3 * x;
                EXPECT_EQ(got[bgr ? 2 : 0], want[0])
                    << conversion.name << " layout " << layout << " pixel " << x;
                EXPECT_EQ(got[1], want[1]) << conversion.name << " layout " << layout << " pixel " << x;
                EXPECT_EQ(got[bgr ? 0 : 2], want[2])
                    << conversion.name << " layout " << layout << " pixel " << x;
            }
        }
    }
}

TEST(SerialConverter, GrayReferenceValuesFromRgbAndBgrSources)
{
    const struct {
        uint8_t r, g, b, gray;
    } references[] = {
        {255, 255, 255, 255}, {255, 0, 0, 77}, {0, 255, 0, 149}, {0, 0, 255, 29}, {10, 20, 30, 18}};
    constexpr uint32_t kWidth = std::size(references);
    CCpuSerialConverter converter;
    // The same bytes weigh differently in the two orders: 255, 0, 0 is 77 as
    // RGB and 29 as BGR.
    for (En_ImageFormat format : {En_ImageFormat::RGB888, En_ImageFormat::BGR888}) {
        const bool bgr = format == En_ImageFormat::BGR888;
        QRV_Image source = makeImage(kWidth, 1, format);
        for (uint32_t x = 0; x < kWidth; ++x) {
            uint8_t* pixel = source.data.get() + 3 * x;
            pixel[0] = bgr ? references[x].b : references[x].r;
            pixel[1] = references[x].g;
            pixel[2] = bgr ? references[x].r : references[x].b;
        }
        QRV_Image destination = makeImage(kWidth, 1, En_ImageFormat::Gray8, 0, kCanary);
        ASSERT_EQ(converter.ConvertRGB888_To_Gray8(&source, &destination, nullptr, nullptr), result::Success);
        for (uint32_t x = 0; x < kWidth; ++x) EXPECT_EQ(destination.data[x], references[x].gray) << x;
    }
}

TEST(SerialConverter, EmptyImagesAndUnknownLayoutsSucceedWithoutWriting)
{
    CCpuSerialConverter converter;
    for (const auto& [width, height] : {std::pair<uint32_t, uint32_t>{0, 0}, {0, 3}, {4, 0}}) {
        QRV_Image source = makeImage(width, height, En_ImageFormat::YUV422_8);
        source.yuvLayout = 10;
        QRV_Image destination = makeImage(width, height, En_ImageFormat::RGB888);
        EXPECT_EQ(converter.ConvertYUV422_8_To_RGB888(&source, &destination, nullptr, nullptr),
                  result::Success);
        QRV_Image gray = makeImage(width, height, En_ImageFormat::Gray8);
        EXPECT_EQ(converter.ConvertRGB888_To_Gray8(&destination, &gray, nullptr, nullptr), result::Success);
    }
    for (int32_t layout : {0, 9, 14, 99, -10}) {
        QRV_Image source = makeImage(4, 2, En_ImageFormat::YUV422_8);
        qrvtest::fillRandom(source, 9);
        source.yuvLayout = layout;
        QRV_Image destination = makeImage(4, 2, En_ImageFormat::BGR888, 0, kCanary);
        EXPECT_EQ(converter.ConvertYUV422_8_To_BGR888(&source, &destination, nullptr, nullptr),
                  result::Success);
        EXPECT_EQ(pixelBytes(destination), std::vector<uint8_t>(destination.dataSize, kCanary)) << layout;
    }
}

TEST(SerialConverter, PixelsStartAtTheDataOffset)
{
    CCpuSerialConverter converter;
    std::vector<uint8_t> results[2][2];
    const int64_t offsets[2][3] = {{0, 0, 0}, {5, 7, 3}};
    for (int run = 0; run < 2; ++run) {
        QRV_Image source = makeImage(6, 3, En_ImageFormat::YUV422_8, offsets[run][0]);
        source.yuvLayout = 12;
        qrvtest::fillRandom(source, 11);
        QRV_Image rgb = makeImage(6, 3, En_ImageFormat::RGB888, offsets[run][1]);
        QRV_Image gray = makeImage(6, 3, En_ImageFormat::Gray8, offsets[run][2]);
        ASSERT_EQ(converter.ConvertYUV422_8_To_RGB888(&source, &rgb, nullptr, nullptr), result::Success);
        ASSERT_EQ(converter.ConvertRGB888_To_Gray8(&rgb, &gray, nullptr, nullptr), result::Success);
        results[run][0] = pixelBytes(rgb);
        results[run][1] = pixelBytes(gray);
        for (const QRV_Image* image : {&rgb, &gray}) {
            for (int64_t i = 0; i < image->dataOffset; ++i) EXPECT_EQ(image->data[i], qrvtest::kPrefixByte);
        }
    }
    EXPECT_EQ(results[1][0], results[0][0]);
    EXPECT_EQ(results[1][1], results[0][1]);
}

TEST(SerialConverter, OnlyTheRgbConversionObtainsTheEnvironment)
{
    const auto run = qrvtest::runProcess({CONVERTER_SCENARIO, "serial-environment"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
}
