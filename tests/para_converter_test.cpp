#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "Converter/CCpuParaConverter.h"
#include "Converter/CCpuSerialConverter.h"
#include "Converter/CpuConvertKernel.h"
#include "IpmTypes.h"
#include "LogCapture.h"
#include "Subprocess.h"
#include "TestImages.h"

using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using qrvtest::makeImage;
using qrvtest::pixelBytes;
namespace result = ipmcommon::result;

namespace {

constexpr uint8_t kCanary = 0x77;
constexpr uint32_t kNegative = 0x80000008u;  // negative when read as a signed number
const std::string kLogFile = "Converter/CCpuParaConverter";

using Conversion = int (CCpuParaConverter::*)(const QRV_Image*, QRV_Image*, void*, void*);
using EntryPoint = std::function<int(const QRV_Image*, QRV_Image*)>;

struct ValidationCase {
    const char* name;
    std::function<void(QRV_Image& source, QRV_Image& destination)> spoil;
    int code;
    bool dropSource = false;
    bool dropDestination = false;
};

void nothing(QRV_Image&, QRV_Image&) {}

// Runs every case on a fresh valid pair and checks the code and that the
// destination's bytes stay as they were.
void checkCases(const std::string& entryName, const EntryPoint& entry,
                const std::vector<ValidationCase>& cases,
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
    qrvtest::fillRandom(source, 5);
    destination = makeImage(8, 2, format, 0, kCanary);
}

void makeGrayPair(QRV_Image& source, QRV_Image& destination)
{
    source = makeImage(8, 2, En_ImageFormat::BGR888);
    qrvtest::fillRandom(source, 6);
    destination = makeImage(8, 2, En_ImageFormat::Gray8, 0, kCanary);
}

// Checks on the source's geometry that both validators make, after the null checks.
std::vector<ValidationCase> geometryChecks()
{
    return {
        {"null source", nothing, result::MissingImage, true, false},
        {"no rows", [](QRV_Image& s, QRV_Image&) { s.height = 0; }, result::BadSize},
        {"negative height", [](QRV_Image& s, QRV_Image&) { s.height = kNegative; }, result::BadSize},
        {"no columns", [](QRV_Image& s, QRV_Image&) { s.width = 0; }, result::BadSize},
        {"negative width", [](QRV_Image& s, QRV_Image&) { s.width = kNegative; }, result::BadSize},
        {"width 6", [](QRV_Image& s, QRV_Image& d) { s.width = d.width = 6; }, result::BadSize},
        {"width 6 and not YUV or colour",
         [](QRV_Image& s, QRV_Image&) {
             s.width = 6;
             s.format = En_ImageFormat::Gray8;
         },
         result::BadSize},
    };
}

std::vector<ValidationCase> yuvValidatorChecks()
{
    std::vector<ValidationCase> cases = geometryChecks();
    cases.push_back({"null destination", nothing, result::MissingImage, false, true});
    cases.push_back({"source RGB", [](QRV_Image& s, QRV_Image&) { s.format = En_ImageFormat::RGB888; },
                     result::FormatMismatch});
    cases.push_back(
        {"sub-format 1", [](QRV_Image& s, QRV_Image&) { s.subFormat = 1; }, result::FormatMismatch});
    cases.push_back({"destination gray", [](QRV_Image&, QRV_Image& d) { d.format = En_ImageFormat::Gray8; },
                     result::FormatMismatch});
    return cases;
}

std::vector<ValidationCase> grayValidatorChecks()
{
    std::vector<ValidationCase> cases = geometryChecks();
    cases.push_back({"null destination", nothing, result::MissingImage, false, true});
    cases.push_back({"source YUV", [](QRV_Image& s, QRV_Image&) { s.format = En_ImageFormat::YUV422_8; },
                     result::FormatMismatch});
    cases.push_back({"destination RGB", [](QRV_Image&, QRV_Image& d) { d.format = En_ImageFormat::RGB888; },
                     result::FormatMismatch});
    return cases;
}

// What the validators leave alone: pixel buffers and the destination's size.
std::vector<ValidationCase> validatorPasses()
{
    return {
        {"source without pixels", [](QRV_Image& s, QRV_Image&) { s.data.reset(); }, result::Success},
        {"destination of another size", [](QRV_Image&, QRV_Image& d) { d.width = 4; }, result::Success},
    };
}

// The checks a conversion adds after its validator, before the kernel.
std::vector<ValidationCase> kernelChecks()
{
    return {
        {"source without pixels", [](QRV_Image& s, QRV_Image&) { s.data.reset(); }, result::MissingImage},
        {"destination without pixels", [](QRV_Image&, QRV_Image& d) { d.data.reset(); },
         result::MissingImage},
        {"destination narrower", [](QRV_Image&, QRV_Image& d) { d.width = 4; }, result::BadSize},
        {"destination taller", [](QRV_Image&, QRV_Image& d) { d.height = 3; }, result::BadSize},
        {"destination without pixels and shorter",
         [](QRV_Image&, QRV_Image& d) {
             d.data.reset();
             d.height = 1;
         },
         result::MissingImage},
    };
}

std::vector<ValidationCase> joined(std::vector<ValidationCase> a, const std::vector<ValidationCase>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct YuvConversion {
    const char* name;
    Conversion convert;
    En_ImageFormat destination;
    En_ImageFormat other;
};

const YuvConversion kYuvConversions[] = {
    {"ConvertYUV422_8_To_RGB888", &CCpuParaConverter::ConvertYUV422_8_To_RGB888, En_ImageFormat::RGB888,
     En_ImageFormat::BGR888},
    {"ConvertYUV422_8_To_BGR888", &CCpuParaConverter::ConvertYUV422_8_To_BGR888, En_ImageFormat::BGR888,
     En_ImageFormat::RGB888},
};

}  // namespace

TEST(ParaConverter, EveryValidatorCheckRefusesWithItsCodeAndWritesNothing)
{
    for (En_ImageFormat format : {En_ImageFormat::RGB888, En_ImageFormat::BGR888}) {
        const auto pair = [format](QRV_Image& s, QRV_Image& d) { makeYuvPair(s, d, format); };
        checkCases("validateYUV422ToRGB_", CCpuParaConverter::validateYUV422ToRGB_,
                   joined(yuvValidatorChecks(), validatorPasses()), pair);
    }
    checkCases("validateRGB888ToGray8_", CCpuParaConverter::validateRGB888ToGray8_,
               joined(grayValidatorChecks(), validatorPasses()), makeGrayPair);
}

TEST(ParaConverter, EveryConversionCheckRefusesWithItsCodeAndWritesNothing)
{
    CCpuParaConverter converter;
    for (const auto& conversion : kYuvConversions) {
        const En_ImageFormat other = conversion.other;
        std::vector<ValidationCase> cases = {
            {"null destination", nothing, result::FormatMismatch, false, true},
            {"null destination and source", nothing, result::FormatMismatch, true, true},
            {"destination in the other order", [other](QRV_Image&, QRV_Image& d) { d.format = other; },
             result::FormatMismatch},
            {"destination gray", [](QRV_Image&, QRV_Image& d) { d.format = En_ImageFormat::Gray8; },
             result::FormatMismatch},
            {"source RGB", [](QRV_Image& s, QRV_Image&) { s.format = En_ImageFormat::RGB888; },
             result::FormatMismatch},
            {"sub-format 1", [](QRV_Image& s, QRV_Image&) { s.subFormat = 1; }, result::FormatMismatch},
            {"width 6 and no source pixels",
             [](QRV_Image& s, QRV_Image&) {
                 s.width = 6;
                 s.data.reset();
             },
             result::BadSize},
        };
        cases = joined(joined(geometryChecks(), cases), kernelChecks());
        const auto pair = [&](QRV_Image& s, QRV_Image& d) { makeYuvPair(s, d, conversion.destination); };
        const EntryPoint entry = [&](const QRV_Image* s, QRV_Image* d) {
            return (converter.*conversion.convert)(s, d, nullptr, nullptr);
        };
        checkCases(conversion.name, entry, cases, pair);
    }
    std::vector<ValidationCase> grayCases = {
        {"null destination", nothing, result::FormatMismatch, false, true},
        {"destination RGB", [](QRV_Image&, QRV_Image& d) { d.format = En_ImageFormat::RGB888; },
         result::FormatMismatch},
        {"source YUV", [](QRV_Image& s, QRV_Image&) { s.format = En_ImageFormat::YUV422_8; },
         result::FormatMismatch},
    };
    grayCases = joined(joined(geometryChecks(), grayCases), kernelChecks());
    checkCases(
        "ConvertRGB888_To_Gray8",
        [&](const QRV_Image* s, QRV_Image* d) {
            return converter.ConvertRGB888_To_Gray8(s, d, nullptr, nullptr);
        },
        grayCases, makeGrayPair);
}

TEST(ParaConverter, TraceLinesFollowTheChecks)
{
    CCpuParaConverter converter;
    const std::string conversionLine =
        "int CCpuParaConverter::ConvertYUV422_8_To_RGB888(const qrv_img::QRV_Image*, qrv_img::QRV_Image*, "
        "void*, "
        "void*)";
    const std::string validatorLine =
        "static int CCpuParaConverter::validateYUV422ToRGB_(const qrv_img::QRV_Image*, qrv_img::QRV_Image*)";
    QRV_Image source;
    QRV_Image destination;
    makeYuvPair(source, destination, En_ImageFormat::RGB888);
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
    EXPECT_EQ(functionsLogged(&source, &destination),
              (std::vector<std::string>{conversionLine, validatorLine}));
    EXPECT_EQ(functionsLogged(&source, nullptr), std::vector<std::string>{});
    EXPECT_EQ(functionsLogged(nullptr, &destination), std::vector<std::string>{conversionLine});
    source.subFormat = 1;
    EXPECT_EQ(functionsLogged(&source, &destination), std::vector<std::string>{conversionLine});
    source.subFormat = 0;
    destination.width = 4;
    EXPECT_EQ(functionsLogged(&source, &destination),
              (std::vector<std::string>{conversionLine, validatorLine}));

    qrvtest::LogCapture capture;
    QRV_Image rgb = makeImage(4, 1, En_ImageFormat::RGB888);
    QRV_Image gray = makeImage(4, 1, En_ImageFormat::Gray8);
    ASSERT_EQ(converter.ConvertRGB888_To_Gray8(&rgb, &gray, nullptr, nullptr), result::Success);
    EXPECT_EQ(capture.texts(kLogFile), (std::vector<std::string>{"Called", "Called"}));
    EXPECT_EQ(capture.records().at(0).function,
              "int CCpuParaConverter::ConvertRGB888_To_Gray8(const qrv_img::QRV_Image*, qrv_img::QRV_Image*, "
              "void*, "
              "void*)");
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

TEST(ParaConverter, WidthsOfFourAndTwelveAreConvertedWhole)
{
    CCpuParaConverter converter;
    for (uint32_t width : {4u, 12u, 20u}) {
        QRV_Image source = makeImage(width, 3, En_ImageFormat::YUV422_8);
        source.yuvLayout = 13;
        qrvtest::fillRandom(source, width);
        std::vector<uint8_t> expected(3 * width * 3);
        yuv422_to_rgb888_c_layout(source.data.get(), expected.data(), static_cast<int>(width), 3, false, 3);
        for (uint8_t canary : {uint8_t{0x00}, uint8_t{0xFF}}) {
            QRV_Image destination = makeImage(width, 3, En_ImageFormat::RGB888, 0, canary);
            ASSERT_EQ(converter.ConvertYUV422_8_To_RGB888(&source, &destination, nullptr, nullptr),
                      result::Success);
            EXPECT_EQ(pixelBytes(destination), expected) << "width " << width;
        }
    }
}

TEST(ParaConverter, GrayMatchesTheSerialConverter)
{
    CCpuParaConverter parallel;
    CCpuSerialConverter serial;
    for (En_ImageFormat format : {En_ImageFormat::RGB888, En_ImageFormat::BGR888}) {
        for (uint32_t width : {4u, 24u, 28u, 100u}) {
            QRV_Image source = makeImage(width, 5, format);
            qrvtest::fillRandom(source, width + 1);
            QRV_Image fromParallel = makeImage(width, 5, En_ImageFormat::Gray8);
            QRV_Image fromSerial = makeImage(width, 5, En_ImageFormat::Gray8);
            ASSERT_EQ(parallel.ConvertRGB888_To_Gray8(&source, &fromParallel, nullptr, nullptr),
                      result::Success);
            ASSERT_EQ(serial.ConvertRGB888_To_Gray8(&source, &fromSerial, nullptr, nullptr), result::Success);
            EXPECT_EQ(pixelBytes(fromParallel), pixelBytes(fromSerial)) << "width " << width;
        }
    }
}

TEST(ParaConverter, PixelsStartAtTheDataOffset)
{
    CCpuParaConverter converter;
    QRV_Image plainSource = makeImage(8, 2, En_ImageFormat::YUV422_8);
    plainSource.yuvLayout = 11;
    qrvtest::fillRandom(plainSource, 21);
    QRV_Image plainBgr = makeImage(8, 2, En_ImageFormat::BGR888);
    ASSERT_EQ(converter.ConvertYUV422_8_To_BGR888(&plainSource, &plainBgr, nullptr, nullptr),
              result::Success);
    QRV_Image plainGray = makeImage(8, 2, En_ImageFormat::Gray8);
    ASSERT_EQ(converter.ConvertRGB888_To_Gray8(&plainBgr, &plainGray, nullptr, nullptr), result::Success);

    QRV_Image source = makeImage(8, 2, En_ImageFormat::YUV422_8, 6);
    source.yuvLayout = 11;
    qrvtest::fillRandom(source, 21);
    QRV_Image bgr = makeImage(8, 2, En_ImageFormat::BGR888, 9);
    QRV_Image gray = makeImage(8, 2, En_ImageFormat::Gray8, 1);
    ASSERT_EQ(converter.ConvertYUV422_8_To_BGR888(&source, &bgr, nullptr, nullptr), result::Success);
    ASSERT_EQ(converter.ConvertRGB888_To_Gray8(&bgr, &gray, nullptr, nullptr), result::Success);
    EXPECT_EQ(pixelBytes(bgr), pixelBytes(plainBgr));
    EXPECT_EQ(pixelBytes(gray), pixelBytes(plainGray));
    for (const QRV_Image* image : {&bgr, &gray}) {
        for (int64_t i = 0; i < image->dataOffset; ++i) EXPECT_EQ(image->data[i], qrvtest::kPrefixByte);
    }
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
