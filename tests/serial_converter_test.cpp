#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Converter/CCpuSerialConverter.h"
#include "IpmTypes.h"
#include "Subprocess.h"
#include "TestImages.h"

using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using qrvtest::makeImage;
using qrvtest::pixelBytes;
namespace result = ipmcommon::result;

namespace {

constexpr uint8_t kCanary = 0x77;

struct Rgb {
    uint8_t r, g, b;
    bool operator==(const Rgb& o) const { return r == o.r && g == o.g && b == o.b; }
};

std::ostream& operator<<(std::ostream& out, const Rgb& c)
{
    return out << "(" << int(c.r) << ", " << int(c.g) << ", " << int(c.b) << ")";
}

Rgb pixelAt(const QRV_Image& image, size_t x)
{
    const uint8_t* p = image.data.get() + image.dataOffset + 3 * x;
    return image.format == En_ImageFormat::BGR888 ? Rgb{p[2], p[1], p[0]} : Rgb{p[0], p[1], p[2]};
}

using Conversion = int (CCpuSerialConverter::*)(const QRV_Image*, QRV_Image*, void*, void*);

struct YuvConversion {
    const char* name;
    Conversion convert;
    En_ImageFormat destination;
};

const YuvConversion kYuvConversions[] = {
    {"to RGB888", &CCpuSerialConverter::ConvertYUV422_8_To_RGB888, En_ImageFormat::RGB888},
    {"to BGR888", &CCpuSerialConverter::ConvertYUV422_8_To_BGR888, En_ImageFormat::BGR888},
};

// One entry point under test, with the arguments as the case leaves them.
using EntryPoint = std::function<int(const QRV_Image*, QRV_Image*)>;

struct ValidationCase {
    const char* name;
    std::function<void(QRV_Image& source, QRV_Image& destination)> spoil;
    int code;
    bool dropSource = false;
    bool dropDestination = false;
};

// Runs every case against a valid pair made by makePair and checks the code
// and that the destination's bytes are untouched.
void checkCases(const char* entryName, const EntryPoint& entry, const std::vector<ValidationCase>& cases,
                const std::function<void(QRV_Image&, QRV_Image&)>& makePair)
{
    for (const auto& c : cases) {
        QRV_Image source;
        QRV_Image destination;
        makePair(source, destination);
        const auto buffer = destination.data;
        const size_t bytes = destination.dataSize;
        c.spoil(source, destination);
        const int code = entry(c.dropSource ? nullptr : &source, c.dropDestination ? nullptr : &destination);
        EXPECT_EQ(code, c.code) << entryName << ": " << c.name;
        for (size_t i = 0; i < bytes; ++i) {
            ASSERT_EQ(buffer[i], kCanary) << entryName << ": " << c.name << " wrote byte " << i;
        }
    }
}

void makeYuvPair(QRV_Image& source, QRV_Image& destination, En_ImageFormat format)
{
    source = makeImage(8, 2, En_ImageFormat::YUV422_8);
    source.yuvLayout = 10;
    qrvtest::fillRandom(source, 3);
    destination = makeImage(8, 2, format, 0, kCanary);
}

void makeGrayPair(QRV_Image& source, QRV_Image& destination)
{
    source = makeImage(5, 2, En_ImageFormat::RGB888);
    qrvtest::fillRandom(source, 4);
    destination = makeImage(5, 2, En_ImageFormat::Gray8, 0, kCanary);
}

void nothing(QRV_Image&, QRV_Image&) {}

const std::vector<ValidationCase> kYuvChecks = {
    {"null source", nothing, result::MissingImage, true, false},
    {"null destination", nothing, result::MissingImage, false, true},
    {"source without pixels", [](QRV_Image& s, QRV_Image&) { s.data.reset(); }, result::MissingImage},
    {"destination without pixels", [](QRV_Image&, QRV_Image& d) { d.data.reset(); }, result::MissingImage},
    {"source not YUV", [](QRV_Image& s, QRV_Image&) { s.format = En_ImageFormat::RGB888; }, result::Mismatch},
    {"destination gray", [](QRV_Image&, QRV_Image& d) { d.format = En_ImageFormat::Gray8; },
     result::Mismatch},
    {"widths differ", [](QRV_Image&, QRV_Image& d) { d.width = 6; }, result::Mismatch},
    {"heights differ", [](QRV_Image&, QRV_Image& d) { d.height = 1; }, result::Mismatch},
    {"odd width", [](QRV_Image& s, QRV_Image& d) { s.width = d.width = 5; }, result::Mismatch},
    // Two failing checks: the earlier one decides.
    {"no source pixels and not YUV",
     [](QRV_Image& s, QRV_Image&) {
         s.data.reset();
         s.format = En_ImageFormat::Gray8;
     },
     result::MissingImage},
};

const std::vector<ValidationCase> kGrayChecks = {
    {"null source", nothing, result::MissingImage, true, false},
    {"null destination", nothing, result::MissingImage, false, true},
    {"source without pixels", [](QRV_Image& s, QRV_Image&) { s.data.reset(); }, result::MissingImage},
    {"destination without pixels", [](QRV_Image&, QRV_Image& d) { d.data.reset(); }, result::MissingImage},
    {"source gray", [](QRV_Image& s, QRV_Image&) { s.format = En_ImageFormat::Gray8; }, result::Mismatch},
    {"source YUV", [](QRV_Image& s, QRV_Image&) { s.format = En_ImageFormat::YUV422_8; }, result::Mismatch},
    {"destination RGB", [](QRV_Image&, QRV_Image& d) { d.format = En_ImageFormat::RGB888; },
     result::Mismatch},
    {"widths differ", [](QRV_Image&, QRV_Image& d) { d.width = 4; }, result::Mismatch},
    {"heights differ", [](QRV_Image&, QRV_Image& d) { d.height = 3; }, result::Mismatch},
    {"no destination pixels and sizes differ",
     [](QRV_Image&, QRV_Image& d) {
         d.data.reset();
         d.width = 1;
     },
     result::MissingImage},
};

}  // namespace

TEST(SerialConverter, EveryValidationCheckRefusesWithItsCodeAndWritesNothing)
{
    CCpuSerialConverter converter;
    for (const auto& conversion : kYuvConversions) {
        const auto pair = [&](QRV_Image& s, QRV_Image& d) { makeYuvPair(s, d, conversion.destination); };
        checkCases("validateYUV422ToRGB_", CCpuSerialConverter::validateYUV422ToRGB_, kYuvChecks, pair);
        checkCases(
            conversion.name,
            [&](const QRV_Image* s, QRV_Image* d) {
                return (converter.*conversion.convert)(s, d, nullptr, nullptr);
            },
            kYuvChecks, pair);
    }
    checkCases("validateRGB888ToGray8_", CCpuSerialConverter::validateRGB888ToGray8_, kGrayChecks,
               makeGrayPair);
    checkCases(
        "ConvertRGB888_To_Gray8",
        [&](const QRV_Image* s, QRV_Image* d) {
            return converter.ConvertRGB888_To_Gray8(s, d, nullptr, nullptr);
        },
        kGrayChecks, makeGrayPair);
}

TEST(SerialConverter, YuvConversionsDemandTheirOwnDestinationOrder)
{
    CCpuSerialConverter converter;
    for (const auto& conversion : kYuvConversions) {
        const En_ImageFormat other = conversion.destination == En_ImageFormat::RGB888
                                         ? En_ImageFormat::BGR888
                                         : En_ImageFormat::RGB888;
        QRV_Image source;
        QRV_Image destination;
        makeYuvPair(source, destination, other);
        EXPECT_EQ(CCpuSerialConverter::validateYUV422ToRGB_(&source, &destination), result::Success);
        EXPECT_EQ((converter.*conversion.convert)(&source, &destination, nullptr, nullptr), result::Mismatch)
            << conversion.name;
        EXPECT_EQ(pixelBytes(destination), std::vector<uint8_t>(destination.dataSize, kCanary));
    }
}

TEST(SerialConverter, YuvReferenceValuesInEveryLayoutAndOrder)
{
    const struct {
        uint8_t y, u, v;
        Rgb rgb;
    } references[] = {{16, 128, 128, {0, 0, 0}},        {235, 128, 128, {255, 255, 255}},
                      {128, 128, 128, {130, 130, 130}}, {81, 90, 240, {255, 0, 0}},
                      {145, 54, 34, {0, 255, 1}},       {41, 240, 110, {0, 0, 255}},
                      {10, 128, 128, {0, 0, 0}},        {0, 0, 0, {0, 154, 0}}};
    constexpr uint32_t kPairs = std::size(references);
    CCpuSerialConverter converter;
    for (int32_t layout = 10; layout <= 13; ++layout) {
        for (const auto& conversion : kYuvConversions) {
            QRV_Image source = makeImage(2 * kPairs, 1, En_ImageFormat::YUV422_8);
            source.yuvLayout = layout;
            for (uint32_t pair = 0; pair < kPairs; ++pair) {
                const auto& ref = references[pair];
                qrvtest::setYuvPair(source, pair, ref.y, ref.u, ref.y, ref.v);
            }
            QRV_Image destination = makeImage(2 * kPairs, 1, conversion.destination, 0, kCanary);
            ASSERT_EQ((converter.*conversion.convert)(&source, &destination, nullptr, nullptr),
                      result::Success);
            for (uint32_t x = 0; x < 2 * kPairs; ++x) {
                EXPECT_EQ(pixelAt(destination, x), references[x / 2].rgb)
                    << conversion.name << " layout " << layout << " pixel " << x;
            }
        }
    }
}

TEST(SerialConverter, EachPixelOfAPairTakesItsOwnLuma)
{
    CCpuSerialConverter converter;
    QRV_Image source = makeImage(2, 1, En_ImageFormat::YUV422_8);
    source.yuvLayout = 11;  // UYVY
    qrvtest::setYuvPair(source, 0, 235, 128, 16, 128);
    QRV_Image destination = makeImage(2, 1, En_ImageFormat::RGB888);
    ASSERT_EQ(converter.ConvertYUV422_8_To_RGB888(&source, &destination, nullptr, nullptr), result::Success);
    EXPECT_EQ(pixelAt(destination, 0), (Rgb{255, 255, 255}));
    EXPECT_EQ(pixelAt(destination, 1), (Rgb{0, 0, 0}));
}

TEST(SerialConverter, GrayReferenceValuesFromRgbAndBgrSources)
{
    const struct {
        Rgb rgb;
        uint8_t gray;
    } references[] = {
        {{255, 255, 255}, 255}, {{255, 0, 0}, 77}, {{0, 255, 0}, 149}, {{0, 0, 255}, 29}, {{10, 20, 30}, 18}};
    constexpr uint32_t kWidth = std::size(references);  // odd widths are fine here
    CCpuSerialConverter converter;
    for (En_ImageFormat format : {En_ImageFormat::RGB888, En_ImageFormat::BGR888}) {
        QRV_Image source = makeImage(kWidth, 1, format);
        uint8_t* p = source.data.get();
        for (const auto& ref : references) {
            *p++ = format == En_ImageFormat::BGR888 ? ref.rgb.b : ref.rgb.r;
            *p++ = ref.rgb.g;
            *p++ = format == En_ImageFormat::BGR888 ? ref.rgb.r : ref.rgb.b;
        }
        QRV_Image destination = makeImage(kWidth, 1, En_ImageFormat::Gray8, 0, kCanary);
        ASSERT_EQ(converter.ConvertRGB888_To_Gray8(&source, &destination, nullptr, nullptr), result::Success);
        for (uint32_t x = 0; x < kWidth; ++x) EXPECT_EQ(destination.data[x], references[x].gray) << x;
    }
    // The same three bytes weigh differently in the two orders.
    QRV_Image bgr = makeImage(1, 1, En_ImageFormat::BGR888);
    bgr.data[0] = 255;
    QRV_Image gray = makeImage(1, 1, En_ImageFormat::Gray8);
    converter.ConvertRGB888_To_Gray8(&bgr, &gray, nullptr, nullptr);
    EXPECT_EQ(gray.data[0], 29);
    bgr.format = En_ImageFormat::RGB888;
    converter.ConvertRGB888_To_Gray8(&bgr, &gray, nullptr, nullptr);
    EXPECT_EQ(gray.data[0], 77);
}

TEST(SerialConverter, EmptyImagesAndUnknownLayoutsSucceedWithoutWriting)
{
    CCpuSerialConverter converter;
    for (const auto& size : {std::pair<uint32_t, uint32_t>{0, 0}, {0, 3}, {4, 0}}) {
        QRV_Image source = makeImage(size.first, size.second, En_ImageFormat::YUV422_8);
        source.yuvLayout = 10;
        QRV_Image destination = makeImage(size.first, size.second, En_ImageFormat::RGB888);
        EXPECT_EQ(converter.ConvertYUV422_8_To_RGB888(&source, &destination, nullptr, nullptr),
                  result::Success);
        QRV_Image rgb = makeImage(size.first, size.second, En_ImageFormat::RGB888);
        QRV_Image gray = makeImage(size.first, size.second, En_ImageFormat::Gray8);
        EXPECT_EQ(converter.ConvertRGB888_To_Gray8(&rgb, &gray, nullptr, nullptr), result::Success);
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
    QRV_Image plainSource = makeImage(6, 3, En_ImageFormat::YUV422_8);
    plainSource.yuvLayout = 12;
    qrvtest::fillRandom(plainSource, 11);
    QRV_Image plainRgb = makeImage(6, 3, En_ImageFormat::RGB888);
    ASSERT_EQ(converter.ConvertYUV422_8_To_RGB888(&plainSource, &plainRgb, nullptr, nullptr),
              result::Success);
    QRV_Image plainGray = makeImage(6, 3, En_ImageFormat::Gray8);
    ASSERT_EQ(converter.ConvertRGB888_To_Gray8(&plainRgb, &plainGray, nullptr, nullptr), result::Success);

    QRV_Image source = makeImage(6, 3, En_ImageFormat::YUV422_8, 5);
    source.yuvLayout = 12;
    qrvtest::fillRandom(source, 11);
    QRV_Image rgb = makeImage(6, 3, En_ImageFormat::RGB888, 7);
    QRV_Image gray = makeImage(6, 3, En_ImageFormat::Gray8, 3);
    ASSERT_EQ(converter.ConvertYUV422_8_To_RGB888(&source, &rgb, nullptr, nullptr), result::Success);
    ASSERT_EQ(converter.ConvertRGB888_To_Gray8(&rgb, &gray, nullptr, nullptr), result::Success);
    EXPECT_EQ(pixelBytes(rgb), pixelBytes(plainRgb));
    EXPECT_EQ(pixelBytes(gray), pixelBytes(plainGray));
    for (const QRV_Image* image : {&rgb, &gray}) {
        for (int64_t i = 0; i < image->dataOffset; ++i) EXPECT_EQ(image->data[i], qrvtest::kPrefixByte);
    }
}

TEST(SerialConverter, OnlyTheRgbConversionObtainsTheEnvironment)
{
    const auto run = qrvtest::runProcess({CONVERTER_SCENARIO, "serial-environment"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
}
