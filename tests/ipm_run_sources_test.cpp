// ipm-run's frame sources: the synthetic camera, raw YUV files, pacing.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "BitmapFont.h"
#include "Pacer.h"
#include "RawYuvReader.h"
#include "SyntheticCamera.h"
#include "TempDir.h"

using qrv_img::En_ImageFormat;
using qrv_img::En_YuvLayout;
using qrv_img::QRV_Image;

namespace {

const En_YuvLayout kLayouts[] = {En_YuvLayout::YUYV, En_YuvLayout::UYVY, En_YuvLayout::YVYU,
                                 En_YuvLayout::VYUY};

QRV_Image yuvFrame(uint32_t width, uint32_t height)
{
    return QRV_Image(width, height, En_ImageFormat::YUV422_8, true, 1);
}

std::vector<uint8_t> bytesOf(const QRV_Image& image)
{
    return std::vector<uint8_t>(image.pixels(), image.pixels() + image.pixelBytes());
}

// Y0, U, Y1, V of the group holding pixel x of a row, whatever the layout.
struct Group {
    int y0, u, y1, v;
};

Group groupAt(const QRV_Image& frame, uint32_t x, uint32_t row)
{
    const uint8_t* g = frame.pixels() + (static_cast<size_t>(row) * frame.width + (x & ~1u)) * 2;
    switch (static_cast<En_YuvLayout>(frame.yuvLayout)) {
    case En_YuvLayout::UYVY: return {g[1], g[0], g[3], g[2]};
    case En_YuvLayout::YVYU: return {g[0], g[3], g[2], g[1]};
    case En_YuvLayout::VYUY: return {g[1], g[2], g[3], g[0]};
    default: return {g[0], g[1], g[2], g[3]};
    }
}

// Each suite's scratch directories carry its name.
class TempDir : public qrvtest::TempDir {
public:
    TempDir() : qrvtest::TempDir("ipm-run-sources") {}
};

void writeFile(const std::string& path, const std::vector<uint8_t>& bytes)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace

TEST(IpmRunBitmapFont, EveryDigitHasItsOwnGlyph)
{
    std::vector<std::string> glyphs;
    for (char digit = '0'; digit <= '9'; ++digit) {
        std::string bits;
        for (int row = 0; row < BitmapFont::kGlyphHeight; ++row) {
            for (int column = 0; column < BitmapFont::kGlyphWidth; ++column) {
                bits += BitmapFont::pixel(digit, column, row) ? '#' : '.';
            }
        }
        EXPECT_NE(bits.find('#'), std::string::npos) << digit;
        for (const auto& other : glyphs) EXPECT_NE(bits, other) << digit;
        glyphs.push_back(bits);
    }
    EXPECT_FALSE(BitmapFont::pixel('x', 2, 2));
    EXPECT_FALSE(BitmapFont::pixel('8', BitmapFont::kGlyphWidth, 0));
    EXPECT_FALSE(BitmapFont::pixel('8', 0, -1));
    EXPECT_EQ(BitmapFont::textWidth("123"), 17);
    EXPECT_EQ(BitmapFont::textWidth(""), 0);
}

// The reference colours of the library's YUV to RGB conversion, backwards.
TEST(IpmRunSyntheticCamera, ColoursBecomeTheYuvThatTheLibraryTurnsBackIntoThem)
{
    const struct {
        int r, g, b, y, u, v;
    } cases[] = {
        {255, 255, 255, 235, 128, 128}, {0, 0, 0, 16, 128, 128},   {255, 0, 0, 81, 90, 240},
        {0, 255, 0, 145, 54, 34},       {0, 0, 255, 41, 240, 110},
    };
    for (const auto& c : cases) {
        int y, u, v;
        SyntheticCamera::rgbToYuv(c.r, c.g, c.b, y, u, v);
        EXPECT_EQ(y, c.y) << c.r << "," << c.g << "," << c.b;
        EXPECT_EQ(u, c.u) << c.r << "," << c.g << "," << c.b;
        EXPECT_EQ(v, c.v) << c.r << "," << c.g << "," << c.b;
    }
}

TEST(IpmRunSyntheticCamera, TheSamePictureInEveryLayoutDiffersOnlyInByteOrder)
{
    std::vector<std::vector<int>> decoded;
    for (const En_YuvLayout layout : kLayouts) {
        SyntheticCamera camera(96, 40, layout);
        QRV_Image frame = yuvFrame(96, 40);
        camera.render(5, frame);
        EXPECT_EQ(frame.yuvLayout, static_cast<int32_t>(layout));
        std::vector<int> samples;
        for (uint32_t row = 0; row < 40; ++row) {
            for (uint32_t x = 0; x < 96; x += 2) {
                const Group g = groupAt(frame, x, row);
                samples.insert(samples.end(), {g.y0, g.u, g.y1, g.v});
            }
        }
        decoded.push_back(samples);
    }
    for (size_t i = 1; i < decoded.size(); ++i) EXPECT_EQ(decoded[i], decoded[0]) << "layout " << i;
}

TEST(IpmRunSyntheticCamera, BarsShowTheirColoursAndThePictureMoves)
{
    const uint32_t width = 320;
    const uint32_t height = 240;
    SyntheticCamera camera(width, height, En_YuvLayout::YUYV);
    QRV_Image frame = yuvFrame(width, height);
    camera.render(0, frame);
    // Row 120 lies below the counter and the square of frame 0, inside the bars.
    for (int bar = 0; bar < 8; ++bar) {
        const uint32_t x = (2 * bar + 1) * width / 16;
        const Group g = groupAt(frame, x, 120);
        int y, u, v;
        SyntheticCamera::rgbToYuv(SyntheticCamera::kBars[bar][0], SyntheticCamera::kBars[bar][1],
                                  SyntheticCamera::kBars[bar][2], y, u, v);
        EXPECT_EQ(g.y0, y) << "bar " << bar;
        EXPECT_EQ(g.u, u) << "bar " << bar;
        EXPECT_EQ(g.v, v) << "bar " << bar;
    }
    const std::vector<uint8_t> first = bytesOf(frame);
    camera.render(0, frame);
    EXPECT_EQ(bytesOf(frame), first) << "the same frame number draws the same picture";
    camera.render(1, frame);
    EXPECT_NE(bytesOf(frame), first);
}

TEST(IpmRunSyntheticCamera, TheFrameNumberIsDrawnInTheBitmapFont)
{
    const uint32_t width = 320;
    const uint32_t height = 240;  // font pixels are 2x2 picture pixels, 4 pixels from the corner
    const uint32_t scale = 2;
    const uint32_t pad = 4;
    SyntheticCamera camera(width, height, En_YuvLayout::VYUY);
    QRV_Image frame = yuvFrame(width, height);
    camera.render(407, frame);
    const std::string digits = "407";
    for (uint32_t fontRow = 0; fontRow < BitmapFont::kGlyphHeight; ++fontRow) {
        for (int fontColumn = 0; fontColumn < BitmapFont::textWidth(digits); ++fontColumn) {
            const int cell = BitmapFont::kGlyphWidth + BitmapFont::kSpacing;
            const bool lit = BitmapFont::pixel(digits[fontColumn / cell], fontColumn % cell, fontRow);
            // Both picture pixels of a font pixel share one group: x is even.
            const Group g = groupAt(frame, pad + fontColumn * scale, pad + fontRow * scale);
            EXPECT_EQ(g.y0, lit ? 235 : 16) << "font pixel " << fontColumn << "," << fontRow;
            EXPECT_EQ(g.y1, lit ? 235 : 16) << "font pixel " << fontColumn << "," << fontRow;
        }
    }
}

TEST(IpmRunSyntheticCamera, TinyAndNarrowFramesAreDrawnWithoutOverrun)
{
    for (const auto& [width, height] :
         std::vector<std::pair<uint32_t, uint32_t>>{{2, 1}, {2, 2}, {4, 3}, {6, 64}}) {
        SyntheticCamera camera(width, height, En_YuvLayout::UYVY);
        QRV_Image frame = yuvFrame(width, height);
        EXPECT_TRUE(camera.nextFrame(frame));
        EXPECT_TRUE(camera.nextFrame(frame));
    }
}

TEST(IpmRunRawYuvReader, ReadsWholeFramesInOrderAndWarnsAboutATrailingPartialFrame)
{
    TempDir dir;
    const uint32_t width = 4;
    const uint32_t height = 2;
    const size_t frameBytes = RawYuvReader::frameBytes(width, height);
    ASSERT_EQ(frameBytes, 16u);
    std::vector<uint8_t> bytes(3 * frameBytes + 10);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + 1);
    writeFile(dir.file("clip.yuv"), bytes);

    std::string error;
    std::string warning;
    auto reader = RawYuvReader::open(dir.file("clip.yuv"), width, height, En_YuvLayout::YVYU, error, warning);
    ASSERT_NE(reader, nullptr) << error;
    EXPECT_EQ(reader->frameCount(), 3u);
    EXPECT_NE(warning.find("3 whole 4x2 frames and 10 trailing bytes"), std::string::npos) << warning;
    QRV_Image frame = yuvFrame(width, height);
    for (size_t f = 0; f < 3; ++f) {
        ASSERT_TRUE(reader->nextFrame(frame)) << reader->error();
        EXPECT_EQ(bytesOf(frame),
                  std::vector<uint8_t>(bytes.begin() + f * frameBytes, bytes.begin() + (f + 1) * frameBytes));
        EXPECT_EQ(frame.yuvLayout, static_cast<int32_t>(En_YuvLayout::YVYU));
    }
    EXPECT_FALSE(reader->nextFrame(frame));
    EXPECT_EQ(reader->error(), "");
}

TEST(IpmRunRawYuvReader, AWholeNumberOfFramesOpensWithoutWarning)
{
    TempDir dir;
    writeFile(dir.file("clip.yuv"), std::vector<uint8_t>(2 * 8 * 4 * 2, 0x80));
    std::string error;
    std::string warning;
    auto reader = RawYuvReader::open(dir.file("clip.yuv"), 8, 4, En_YuvLayout::YUYV, error, warning);
    ASSERT_NE(reader, nullptr) << error;
    EXPECT_EQ(reader->frameCount(), 2u);
    EXPECT_EQ(warning, "");
}

TEST(IpmRunRawYuvReader, FilesThatHoldNoWholeFrameAreRefused)
{
    TempDir dir;
    writeFile(dir.file("short.yuv"), std::vector<uint8_t>(15));
    writeFile(dir.file("empty.yuv"), {});
    std::filesystem::create_directory(dir.file("folder"));
    const std::pair<std::string, std::string> cases[] = {
        {dir.file("short.yuv"), "holds 15 bytes, less than one 4x2 YUV 4:2:2 frame (16 bytes)"},
        {dir.file("empty.yuv"), "holds 0 bytes, less than one"},
        {dir.file("missing.yuv"), "cannot open input file"},
        {dir.file("folder"), "is not a regular file"},
    };
    for (const auto& [path, expected] : cases) {
        std::string error;
        std::string warning;
        EXPECT_EQ(RawYuvReader::open(path, 4, 2, En_YuvLayout::YUYV, error, warning), nullptr) << path;
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
}

TEST(IpmRunPacer, KeepsAFixedScheduleAndRestartsItWhenFarBehind)
{
    using namespace std::chrono;
    Pacer pacer(50.0);  // 20 ms
    const Pacer::Clock::time_point t0{};
    const auto ms = [](int n) { return milliseconds(n); };
    EXPECT_EQ(pacer.nextDue(t0), t0) << "the first frame goes at once";
    EXPECT_EQ(pacer.nextDue(t0 + ms(3)), t0 + ms(20));
    // A frame 5 ms late does not shift the schedule.
    EXPECT_EQ(pacer.nextDue(t0 + ms(45)), t0 + ms(40));
    EXPECT_EQ(pacer.nextDue(t0 + ms(50)), t0 + ms(60));
    // More than a period behind: the schedule starts again from now.
    EXPECT_EQ(pacer.nextDue(t0 + ms(200)), t0 + ms(200));
    EXPECT_EQ(pacer.nextDue(t0 + ms(201)), t0 + ms(220));

    Pacer unpaced(0.0);
    EXPECT_EQ(unpaced.nextDue(t0 + ms(7)), t0 + ms(7));
    EXPECT_EQ(unpaced.nextDue(t0 + ms(7)), t0 + ms(7));
}
