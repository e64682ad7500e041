// The example plug-in, loaded by this test program's own first table use:
// the build puts a copy of it into plugins/ beside the program.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "CIpmFuncTable.h"
#include "LogCapture.h"
#include "Subprocess.h"

using ipmcommon::CIpmFuncTable;
using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
namespace result = ipmcommon::result;
namespace fs = std::filesystem;

namespace {

constexpr int kMirror = 0;
constexpr int kThreshold = 1;

int run(int index, const QRV_Image& source, QRV_Image& destination, void* user1 = nullptr)
{
    return CIpmFuncTable::Instance()->process(EnProcessBackend::CPU_Serial, EnIpmModule::User_Custom, index,
                                              &source, &destination, user1, nullptr);
}

// An image whose byte i holds (seed + 7 * i) modulo 256.
QRV_Image pattern(uint32_t width, uint32_t height, En_ImageFormat format, int seed)
{
    QRV_Image image(width, height, format, true, 1);
    for (size_t i = 0; i < image.pixelBytes(); ++i) image.pixels()[i] = static_cast<uint8_t>(seed + 7 * i);
    return image;
}

std::vector<uint8_t> bytes(const QRV_Image& image)
{
    return std::vector<uint8_t>(image.pixels(), image.pixels() + image.pixelBytes());
}

// The source mirrored left to right, pixel by pixel, with each pixel's three
// bytes kept in order.
std::vector<uint8_t> mirrored(const QRV_Image& source)
{
    std::vector<uint8_t> out(source.pixelBytes());
    for (size_t y = 0; y < source.height; ++y) {
        for (size_t x = 0; x < source.width; ++x) {
            for (size_t c = 0; c < 3; ++c) {
                out[(y * source.width + x) * 3 + c] =
                    source.pixels()[(y * source.width + source.width - 1 - x) * 3 + c];
            }
        }
    }
    return out;
}

}  // namespace

TEST(ExamplePlugin, OffersMirrorAndThresholdUnderUserCustom)
{
    auto list =
        CIpmFuncTable::Instance()->getAlgorithmList(EnProcessBackend::CPU_Serial, EnIpmModule::User_Custom);
    std::sort(list.begin(), list.end());
    const std::vector<std::pair<int, std::wstring>> expected = {
        {kMirror, L"Mirror horizontal (RGB888/BGR888)"}, {kThreshold, L"Threshold (Gray8)"}};
    EXPECT_EQ(list, expected);
}

TEST(ExamplePlugin, MirrorReversesEveryRowForBothByteOrders)
{
    for (const auto format : {En_ImageFormat::RGB888, En_ImageFormat::BGR888}) {
        for (const uint32_t width : {0u, 1u, 2u, 3u, 8u, 33u}) {
            SCOPED_TRACE("width " + std::to_string(width));
            const QRV_Image source = pattern(width, 3, format, static_cast<int>(width));
            QRV_Image destination(width, 3, format, true, 1);
            ASSERT_EQ(run(kMirror, source, destination), result::Success);
            EXPECT_EQ(bytes(destination), mirrored(source));

            QRV_Image inPlace = pattern(width, 3, format, static_cast<int>(width));
            ASSERT_EQ(run(kMirror, inPlace, inPlace), result::Success);
            EXPECT_EQ(bytes(inPlace), mirrored(source)) << "source and destination the same image";
        }
    }
}

TEST(ExamplePlugin, ThresholdSetsPixelsAtOrAboveTheLevelTo255)
{
    const QRV_Image source = pattern(16, 16, En_ImageFormat::Gray8, 0);
    struct Case {
        const char* what;
        const int* level;
        int effective;
    };
    const int zero = 0, hundred = 100, above = 256, negative = -5;
    const Case cases[] = {{"no user1: 128", nullptr, 128},
                          {"0", &zero, 0},
                          {"100", &hundred, 100},
                          {"256: nothing", &above, 256},
                          {"-5: everything", &negative, -5}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        QRV_Image destination = pattern(16, 16, En_ImageFormat::Gray8, 3);
        ASSERT_EQ(run(kThreshold, source, destination, const_cast<int*>(c.level)), result::Success);
        for (size_t i = 0; i < source.pixelBytes(); ++i) {
            ASSERT_EQ(destination.pixels()[i], source.pixels()[i] >= c.effective ? 255 : 0) << "byte " << i;
        }
    }
}

TEST(ExamplePlugin, RefusesMissingPixelsWithEightAndMismatchesWithNine)
{
    const auto rgb = En_ImageFormat::RGB888;
    const auto bgr = En_ImageFormat::BGR888;
    const auto gray = En_ImageFormat::Gray8;
    struct Side {
        En_ImageFormat format;
        uint32_t width, height;
        bool pixels;
        size_t shortBy;  // bytes fewer than the pixels need
    };
    const Side rgb44{rgb, 4, 4, true, 0}, gray44{gray, 4, 4, true, 0};
    const Side rgbNone{rgb, 4, 4, false, 0}, grayNone{gray, 4, 4, false, 0};
    const Side rgbShort{rgb, 4, 4, true, 1}, grayShort{gray, 4, 4, true, 1};
    struct Case {
        const char* what;
        int index;
        Side source, destination;
        int expected;
    } cases[] = {
        {"mirror, source without pixels", kMirror, rgbNone, rgb44, result::MissingImage},
        {"mirror, destination without pixels", kMirror, rgb44, rgbNone, result::MissingImage},
        {"mirror, source one byte short", kMirror, rgbShort, rgb44, result::MissingImage},
        {"mirror, missing pixels before a mismatch", kMirror, rgbNone, gray44, result::MissingImage},
        {"mirror, Gray8", kMirror, gray44, gray44, result::Mismatch},
        {"mirror, RGB888 to BGR888", kMirror, rgb44, {bgr, 4, 4, true, 0}, result::Mismatch},
        {"mirror, other width", kMirror, rgb44, {rgb, 5, 4, true, 0}, result::Mismatch},
        {"mirror, other height", kMirror, rgb44, {rgb, 4, 3, true, 0}, result::Mismatch},
        {"threshold, RGB888", kThreshold, rgb44, rgb44, result::Mismatch},
        {"threshold, Gray8 to RGB888", kThreshold, gray44, rgb44, result::Mismatch},
        {"threshold, other size", kThreshold, gray44, {gray, 4, 5, true, 0}, result::Mismatch},
        {"threshold, destination without pixels", kThreshold, gray44, grayNone, result::MissingImage},
        {"threshold, destination one byte short", kThreshold, gray44, grayShort, result::MissingImage},
    };
    const auto make = [](const Side& side) {
        QRV_Image image = pattern(side.width, side.height, side.format, 1);
        if (!side.pixels) image.data.reset();
        image.dataSize -= side.shortBy;
        return image;
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const QRV_Image source = make(c.source);
        QRV_Image destination = make(c.destination);
        const std::vector<uint8_t> before =
            destination.pixels() ? bytes(destination) : std::vector<uint8_t>{};
        EXPECT_EQ(run(c.index, source, destination), c.expected);
        if (destination.pixels()) {
            EXPECT_EQ(bytes(destination), before) << "a refusal writes nothing";
        }
    }
}

TEST(ExamplePlugin, IpmRunListsThePluginFunctions)
{
    std::string pattern = (fs::temp_directory_path() / "ipm-run-plugin-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    const fs::path root = pattern;
    fs::create_directories(root / "plugins");
    fs::copy_file(IPM_RUN, root / "ipm-run");
    fs::copy_file(EXAMPLE_PLUGIN, root / "plugins" / "libCIpmUserCustom.so");
    const auto listing = qrvtest::runProcess({(root / "ipm-run").string(), "--list"});
    fs::remove_all(root);
    ASSERT_EQ(listing.exitCode, 0) << listing.err;
    for (const std::string name : {"Mirror horizontal (RGB888/BGR888)", "Threshold (Gray8)"}) {
        bool listed = false;
        std::istringstream lines(listing.out);
        for (std::string line; std::getline(lines, line);) {
            listed = listed ||
                     (line.find(name) != std::string::npos && line.find("User_Custom") != std::string::npos);
        }
        EXPECT_TRUE(listed) << name << " missing from:\n" << listing.out;
    }
}
