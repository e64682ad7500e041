#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Converter/CCpuParaConverter.h"
#include "Converter/CCpuSerialConverter.h"
#include "Converter/CpuConvertKernel.h"
#include "kernel_models.h"
#include "IpmTypes.h"
#include "LogCapture.h"
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

constexpr uint32_t kNegative = 0x80000008u;  // negative when read as a signed number
const std::string kLogFile = "Converter/CCpuParaConverter";
const std::string kImages = "(const qrv_img::QRV_Image*, qrv_img::QRV_Image*";

using Conversion = int (CCpuParaConverter::*)(const QRV_Image*, QRV_Image*, void*, void*);

const struct {
    const char* name;
    Conversion convert;
    En_ImageFormat destination, other;
} kYuvConversions[] = {
    {"ConvertYUV422_8_To_RGB888", &CCpuParaConverter::ConvertYUV422_8_To_RGB888, En_ImageFormat::RGB888,
     En_ImageFormat::BGR888},
    {"ConvertYUV422_8_To_BGR888", &CCpuParaConverter::ConvertYUV422_8_To_BGR888, En_ImageFormat::BGR888,
     En_ImageFormat::RGB888},
};

qrvtest::ImagePair yuvPair(En_ImageFormat format)
{
    return [format](QRV_Image& source, QRV_Image& destination) {
        source = makeImage(8, 2, En_ImageFormat::YUV422_8);
        source.yuvLayout = 10;
        qrvtest::fillRandom(source, 5);
        destination = makeImage(8, 2, format, 0, kCanary);
    };
}

void grayPair(QRV_Image& source, QRV_Image& destination)
{
    source = makeImage(8, 2, En_ImageFormat::BGR888);
    qrvtest::fillRandom(source, 6);
    destination = makeImage(8, 2, En_ImageFormat::Gray8, 0, kCanary);
}

// The validators' checks on the images and the source's geometry, in order.
const std::vector<RefusalCase> kGeometryChecks = {
    {"null source", keepPair, result::MissingImage, true, false},
    {"no rows", [](QRV_Image& s, QRV_Image&) { s.height = 0; }, result::BadSize},
    {"negative height", [](QRV_Image& s, QRV_Image&) { s.height = kNegative; }, result::BadSize},
    {"no columns", [](QRV_Image& s, QRV_Image&) { s.width = 0; }, result::BadSize},
    {"negative width", [](QRV_Image& s, QRV_Image&) { s.width = kNegative; }, result::BadSize},
    {"width 6", [](QRV_Image& s, QRV_Image& d) { s.width = d.width = 6; }, result::BadSize},
    {"width 6, gray source and no pixels",
     [](QRV_Image& s, QRV_Image&) {
         s.width = 6;
         s.format = En_ImageFormat::Gray8;
         s.data.reset();
     },
     result::BadSize},
};

const std::vector<RefusalCase> kYuvFormatChecks = {
    {"source RGB", [](QRV_Image& s, QRV_Image&) { s.format = En_ImageFormat::RGB888; },
     result::FormatMismatch},
    {"sub-format 1", [](QRV_Image& s, QRV_Image&) { s.subFormat = 1; }, result::FormatMismatch},
};

const std::vector<RefusalCase> kGrayFormatChecks = {
    {"source YUV", [](QRV_Image& s, QRV_Image&) { s.format = En_ImageFormat::YUV422_8; },
     result::FormatMismatch},
};

// The conversions' own first check, before any trace line.
const std::vector<RefusalCase> kDestinationChecks = {
    {"null destination", keepPair, result::FormatMismatch, false, true},
    {"null destination and source", keepPair, result::FormatMismatch, true, true},
    {"gray destination for YUV, RGB for gray",
     [](QRV_Image& s, QRV_Image& d) {
         d.format = s.format == En_ImageFormat::YUV422_8 ? En_ImageFormat::Gray8 : En_ImageFormat::RGB888;
     },
     result::FormatMismatch},
};

// What the validators leave to the conversions: pixel buffers and the
// destination's size, checked after them.
const std::vector<RefusalCase> kKernelChecks = {
    {"source without pixels", [](QRV_Image& s, QRV_Image&) { s.data.reset(); }, result::MissingImage},
    {"destination without pixels", [](QRV_Image&, QRV_Image& d) { d.data.reset(); }, result::MissingImage},
    {"destination narrower", [](QRV_Image&, QRV_Image& d) { d.width = 4; }, result::BadSize},
    {"destination taller", [](QRV_Image&, QRV_Image& d) { d.height = 3; }, result::BadSize},
    {"destination without pixels and shorter",
     [](QRV_Image&, QRV_Image& d) {
         d.data.reset();
         d.height = 1;
     },
     result::MissingImage},
};

// The same inputs pass the validators.
std::vector<RefusalCase> passing(std::vector<RefusalCase> cases)
{
    for (auto& c : cases) c.code = result::Success;
    return cases;
}

}  // namespace

TEST(ParaConverter, EveryCheckRefusesWithItsCodeAndWritesNothing)
{
    CCpuParaConverter converter;
    const std::vector<RefusalCase> nullDestination = {
        {"null destination", keepPair, result::MissingImage, false, true}};
    const std::vector<RefusalCase> grayDestination = {
        {"destination gray", [](QRV_Image&, QRV_Image& d) { d.format = En_ImageFormat::Gray8; },
         result::FormatMismatch}};
    for (const auto& conversion : kYuvConversions) {
        const auto pair = yuvPair(conversion.destination);
        qrvtest::expectRefusals(
            "validateYUV422ToRGB_", CCpuParaConverter::validateYUV422ToRGB_,
            kGeometryChecks + nullDestination + kYuvFormatChecks + grayDestination + passing(kKernelChecks),
            pair);
        const En_ImageFormat other = conversion.other;
        const std::vector<RefusalCase> otherOrder = {{"destination in the other order",
                                                      [other](QRV_Image&, QRV_Image& d) { d.format = other; },
                                                      result::FormatMismatch}};
        qrvtest::expectRefusals(
            conversion.name,
            [&](const QRV_Image* s, QRV_Image* d) {
                return (converter.*conversion.convert)(s, d, nullptr, nullptr);
            },
            kDestinationChecks + otherOrder + kGeometryChecks + kYuvFormatChecks + kKernelChecks, pair);
    }
    const std::vector<RefusalCase> rgbDestination = {
        {"destination RGB", [](QRV_Image&, QRV_Image& d) { d.format = En_ImageFormat::RGB888; },
         result::FormatMismatch}};
    qrvtest::expectRefusals(
        "validateRGB888ToGray8_", CCpuParaConverter::validateRGB888ToGray8_,
        kGeometryChecks + nullDestination + kGrayFormatChecks + rgbDestination + passing(kKernelChecks),
        grayPair);
    qrvtest::expectRefusals(
        "ConvertRGB888_To_Gray8",
        [&](const QRV_Image* s, QRV_Image* d) {
            return converter.ConvertRGB888_To_Gray8(s, d, nullptr, nullptr);
        },
        kDestinationChecks + kGeometryChecks + kGrayFormatChecks + kKernelChecks, grayPair);
}

TEST(ParaConverter, TraceLinesFollowTheChecks)
{
    CCpuParaConverter converter;
    const std::string conversion =
        "int CCpuParaConverter::ConvertYUV422_8_To_RGB888" + kImages + ", void*, void*)";
    const std::string validator = "static int CCpuParaConverter::validateYUV422ToRGB_" + kImages + ")";
    QRV_Image source;
    QRV_Image destination;
    yuvPair(En_ImageFormat::RGB888)(source, destination);
    const auto functionsLogged = [&](const QRV_Image* s, QRV_Image* d) {
        qrvtest::LogCapture capture;
        converter.ConvertYUV422_8_To_RGB888(s, d, nullptr, nullptr);
        std::vector<std::string> functions;
        for (const auto& record : capture.records()) {
            if (record.file != kLogFile) continue;
            EXPECT_EQ(record.level, qrvlog::LogLevel::Trace);
            EXPECT_EQ(record.text, L"Called");
            functions.push_back(record.function);
        }
        return functions;
    };
    using Lines = std::vector<std::string>;
    EXPECT_EQ(functionsLogged(&source, &destination), (Lines{conversion, validator}));
    EXPECT_EQ(functionsLogged(&source, nullptr), Lines{});
    EXPECT_EQ(functionsLogged(nullptr, &destination), Lines{conversion});
    source.subFormat = 1;
    EXPECT_EQ(functionsLogged(&source, &destination), Lines{conversion});
    source.subFormat = 0;
    destination.width = 4;  // refused after the validator
    EXPECT_EQ(functionsLogged(&source, &destination), (Lines{conversion, validator}));
}

TEST(ParaConverter, YuvReferenceValuesInEveryLayoutAndOrder)
{
    const struct {
        uint8_t y, u, v, r, g, b;
    } references[] = {{16, 128, 128, 16, 16, 16},     {235, 128, 128, 235, 235, 235},
                      {128, 128, 128, 128, 128, 128}, {81, 90, 240, 238, 13, 13},
                      {145, 54, 34, 12, 238, 14},     {41, 240, 110, 15, 15, 238},
                      {0, 0, 0, 0, 136, 0},           {255, 255, 255, 255, 120, 255}};
    constexpr uint32_t kPairs = std::size(references);
    CCpuParaConverter converter;
    // Layouts outside UYVY, YVYU and VYUY read as YUYV.
    const std::pair<int32_t, int32_t> layouts[] = {{10, 10}, {11, 11}, {12, 12}, {13, 13}, {0, 10}, {99, 10}};
    for (const auto& [layout, bytesAs] : layouts) {
        for (const auto& conversion : kYuvConversions) {
            QRV_Image source = makeImage(2 * kPairs, 1, En_ImageFormat::YUV422_8);
            source.yuvLayout = bytesAs;
            for (uint32_t pair = 0; pair < kPairs; ++pair) {
                const auto& ref = references[pair];
                qrvtest::setYuvPair(source, pair, ref.y, ref.u, ref.y, ref.v);
            }
            source.yuvLayout = layout;
            QRV_Image destination = makeImage(2 * kPairs, 1, conversion.destination, 0, kCanary);
            ASSERT_EQ((converter.*conversion.convert)(&source, &destination, nullptr, nullptr),
                      result::Success);
            const bool bgr = conversion.destination == En_ImageFormat::BGR888;
            for (uint32_t x = 0; x < 2 * kPairs; ++x) {
                const auto& ref = references[x / 2];
                const uint8_t* p = destination.data.get() + 3 * x;
                EXPECT_EQ(p[bgr ? 2 : 0], ref.r) << conversion.name << " layout " << layout << " pixel " << x;
                EXPECT_EQ(p[1], ref.g) << conversion.name << " layout " << layout << " pixel " << x;
                EXPECT_EQ(p[bgr ? 0 : 2], ref.b) << conversion.name << " layout " << layout << " pixel " << x;
            }
        }
    }
}

TEST(ParaConverter, EveryPixelOfAWidthOfFoursIsConverted)
{
    CCpuParaConverter parallel;
    CCpuSerialConverter serial;
    for (uint32_t width : {4u, 12u, 20u, 28u}) {
        QRV_Image source = makeImage(width, 3, En_ImageFormat::YUV422_8);
        source.yuvLayout = 13;
        qrvtest::fillRandom(source, width);
        std::vector<uint8_t> expected(3 * width * 3);
        yuv422_to_rgb888_c_layout(source.data.get(), expected.data(), static_cast<int>(width), 3, false, 3);
        for (uint8_t canary : {uint8_t{0x00}, uint8_t{0xFF}}) {
            QRV_Image rgb = makeImage(width, 3, En_ImageFormat::RGB888, 0, canary);
            ASSERT_EQ(parallel.ConvertYUV422_8_To_RGB888(&source, &rgb, nullptr, nullptr), result::Success);
            EXPECT_EQ(pixelBytes(rgb), expected) << "width " << width;
        }
        // The gray conversion gives the serial converter's bytes.
        for (En_ImageFormat format : {En_ImageFormat::RGB888, En_ImageFormat::BGR888}) {
            QRV_Image colour = makeImage(width, 3, format);
            qrvtest::fillRandom(colour, width + 1);
            QRV_Image fromParallel = makeImage(width, 3, En_ImageFormat::Gray8);
            QRV_Image fromSerial = makeImage(width, 3, En_ImageFormat::Gray8);
            ASSERT_EQ(parallel.ConvertRGB888_To_Gray8(&colour, &fromParallel, nullptr, nullptr),
                      result::Success);
            ASSERT_EQ(serial.ConvertRGB888_To_Gray8(&colour, &fromSerial, nullptr, nullptr), result::Success);
            EXPECT_EQ(pixelBytes(fromParallel), pixelBytes(fromSerial)) << "width " << width;
        }
    }
}

TEST(ParaConverter, PixelsStartAtTheDataOffset)
{
    CCpuParaConverter converter;
    std::vector<uint8_t> results[2][2];
    const int64_t offsets[2][3] = {{0, 0, 0}, {6, 9, 1}};
    for (int run = 0; run < 2; ++run) {
        QRV_Image source = makeImage(8, 2, En_ImageFormat::YUV422_8, offsets[run][0]);
        source.yuvLayout = 11;
        qrvtest::fillRandom(source, 21);
        QRV_Image bgr = makeImage(8, 2, En_ImageFormat::BGR888, offsets[run][1]);
        QRV_Image gray = makeImage(8, 2, En_ImageFormat::Gray8, offsets[run][2]);
        ASSERT_EQ(converter.ConvertYUV422_8_To_BGR888(&source, &bgr, nullptr, nullptr), result::Success);
        ASSERT_EQ(converter.ConvertRGB888_To_Gray8(&bgr, &gray, nullptr, nullptr), result::Success);
        results[run][0] = pixelBytes(bgr);
        results[run][1] = pixelBytes(gray);
        for (const QRV_Image* image : {&bgr, &gray}) {
            for (int64_t i = 0; i < image->dataOffset; ++i) EXPECT_EQ(image->data[i], qrvtest::kPrefixByte);
        }
    }
    EXPECT_EQ(results[1][0], results[0][0]);
    EXPECT_EQ(results[1][1], results[0][1]);
}

TEST(ParaConverter, CoresConvertWithoutChecksInTheImagesByteOrder)
{
    QRV_Image source = makeImage(8, 2, En_ImageFormat::YUV422_8);
    source.yuvLayout = 12;
    source.subFormat = 3;  // a conversion would refuse this; the core does not look
    qrvtest::fillRandom(source, 31);
    QRV_Image bgr = makeImage(8, 2, En_ImageFormat::BGR888);
    QRV_Image gray = makeImage(8, 2, En_ImageFormat::Gray8);
    qrvtest::LogCapture capture;
    CCpuParaConverter::yuv422_to_rgb888_core_(source, bgr);
    CCpuParaConverter::rgb888_to_gray8_core_(bgr, gray);
    EXPECT_EQ(capture.texts(kLogFile), (std::vector<std::string>{"Called", "Called"}));
    EXPECT_EQ(capture.records().at(0).function,
              "static void CCpuParaConverter::yuv422_to_rgb888_core_(const qrv_img::QRV_Image&, "
              "qrv_img::QRV_Image&)");

    std::vector<uint8_t> expectedBgr(8 * 2 * 3);
    yuv422_to_rgb888_c_layout(source.data.get(), expectedBgr.data(), 8, 2, true, 2);
    std::vector<uint8_t> expectedGray(8 * 2);
    rgb888_to_gray8_c(expectedBgr.data(), expectedGray.data(), 8, 2, true);
    EXPECT_EQ(pixelBytes(bgr), expectedBgr);
    EXPECT_EQ(pixelBytes(gray), expectedGray);
}

// x86-64 processors as qemu emulates them: the SIMD check accepts AVX2 and up.
TEST(ParaConverter, SimdCheckFollowsTheProcessor)
{
#if !defined(__x86_64__)
    GTEST_SKIP() << "every 64-bit Arm processor has NEON";
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizer runtimes do not run under qemu";
#else
    const struct {
        const char* cpu;
        const char* expected;
    } cases[] = {
        {"qemu64", "code=0 traces=2 untouched=1"},
        {"Nehalem", "code=0 traces=2 untouched=1"},
        {"Haswell", "code=1 traces=2 untouched=0"},
    };
    for (const auto& c : cases) {
        qrvtest::ProcessOptions options;
        options.useEmulator = false;
        options.wrapper = {"qemu-x86_64", "-cpu", c.cpu};
        const auto run = qrvtest::runProcess({CONVERTER_SCENARIO, "parallel-code"}, options);
        ASSERT_EQ(run.exitCode, 0) << c.cpu << ": " << run.err;
        EXPECT_EQ(run.out, std::string(c.expected) + "\n") << c.cpu;
    }
#endif
}
