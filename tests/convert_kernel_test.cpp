#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "Converter/CpuConvertKernel.h"
#include "kernel_models.h"
#include "GuardedBuffer.h"

using qrvtest::GuardedBuffer;

namespace {

// Byte offsets of Y0, U, Y1, V in a four-byte group, by layout index.
constexpr int kPositions[4][4] = {{0, 1, 2, 3}, {1, 0, 3, 2}, {0, 3, 2, 1}, {1, 2, 3, 0}};
constexpr int kUnknownLayouts[] = {-1, 4, 99};

using YuvKernel = void (*)(const uint8_t*, uint8_t*, int, int, bool, int);
using GrayKernel = void (*)(const uint8_t*, uint8_t*, int, int, bool);

struct NamedYuvKernel {
    const char* name;
    YuvKernel run;
};
struct NamedGrayKernel {
    const char* name;
    GrayKernel run;
};

const NamedYuvKernel kYuvKernels[] = {{"neon", yuv422_to_rgb888_neon_layout},
                                      {"model", yuv422_to_rgb888_c_layout}};
const NamedGrayKernel kGrayKernels[] = {{"neon", rgb888_to_gray8_neon}, {"model", rgb888_to_gray8_c}};

// Pixels per row that a kernel writes: groups of eight, then four when exactly
// four remain.
int expectedCovered(int width)
{
    int covered = 8 * (width / 8);
    if (width - covered == 4) covered += 4;
    return covered;
}

// Large images cost seconds under emulation and sanitizers; there the sweep
// keeps them to a few combinations.
bool fullSweep()
{
    const char* emulator = std::getenv("QRV_TEST_EMULATOR");
    if (emulator != nullptr && *emulator != '\0') return false;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return false;
#else
    return true;
#endif
}

struct Rgb {
    uint8_t r, g, b;
};

struct YuvReference {
    uint8_t y, u, v;
    Rgb rgb;
};

const YuvReference kYuvReferences[] = {
    {16, 128, 128, {16, 16, 16}}, {235, 128, 128, {235, 235, 235}}, {128, 128, 128, {128, 128, 128}},
    {81, 90, 240, {238, 13, 13}}, {145, 54, 34, {12, 238, 14}},     {41, 240, 110, {15, 15, 238}},
    {0, 0, 0, {0, 136, 0}},       {255, 255, 255, {255, 120, 255}},
};

// One row of YUV 4:2:2 in the given layout, pair j holding reference j (mod
// the list), both pixels with the same Y.
std::vector<uint8_t> referenceRow(int layout, int pairs)
{
    std::vector<uint8_t> row(4 * static_cast<size_t>(pairs));
    for (int pair = 0; pair < pairs; ++pair) {
        const YuvReference& ref = kYuvReferences[pair % std::size(kYuvReferences)];
        uint8_t* group = &row[4 * static_cast<size_t>(pair)];
        group[kPositions[layout][0]] = ref.y;
        group[kPositions[layout][1]] = ref.u;
        group[kPositions[layout][2]] = ref.y;
        group[kPositions[layout][3]] = ref.v;
    }
    return row;
}

}  // namespace

TEST(ConvertKernel, YuvReferenceValuesInEveryLayoutAndByteOrder)
{
    // Width 20: two blocks of eight and a tail group of four.
    constexpr int kWidth = 20;
    for (const auto& kernel : kYuvKernels) {
        for (int layout = 0; layout < 4; ++layout) {
            const std::vector<uint8_t> source = referenceRow(layout, kWidth / 2);
            for (bool swap : {false, true}) {
                std::vector<uint8_t> out(3 * kWidth, 0xEE);
                kernel.run(source.data(), out.data(), kWidth, 1, swap, layout);
                for (int x = 0; x < kWidth; ++x) {
                    const Rgb want = kYuvReferences[(x / 2) % std::size(kYuvReferences)].rgb;
                    const uint8_t* got = &out[3 * static_cast<size_t>(x)];
                    const Rgb written = swap ? Rgb{got[2], got[1], got[0]} : Rgb{got[0], got[1], got[2]};
                    SCOPED_TRACE(std::string(kernel.name) + " layout " + std::to_string(layout) + " swap " +
                                 std::to_string(swap) + " x " + std::to_string(x));
                    EXPECT_EQ(written.r, want.r);
                    EXPECT_EQ(written.g, want.g);
                    EXPECT_EQ(written.b, want.b);
                }
            }
        }
    }
}

TEST(ConvertKernel, YuyvEntryPointIsLayoutZero)
{
    const std::vector<uint8_t> source = referenceRow(0, 6);
    for (bool swap : {false, true}) {
        std::vector<uint8_t> viaLayout(36, 0x11);
        std::vector<uint8_t> viaYuyv(36, 0x11);
        yuv422_to_rgb888_neon_layout(source.data(), viaLayout.data(), 12, 1, swap, 0);
        yuyv422_to_rgb888_neon(source.data(), viaYuyv.data(), 12, 1, swap);
        EXPECT_EQ(viaYuyv, viaLayout);
    }
}

TEST(ConvertKernel, UnknownLayoutReadsEverySampleAsZero)
{
    std::vector<uint8_t> source(2 * 12);
    std::mt19937 random(7);
    for (auto& byte : source) byte = static_cast<uint8_t>(random());
    for (const auto& kernel : kYuvKernels) {
        for (int layout : kUnknownLayouts) {
            for (bool swap : {false, true}) {
                std::vector<uint8_t> out(3 * 12, 0xEE);
                kernel.run(source.data(), out.data(), 12, 1, swap, layout);
                for (int x = 0; x < 12; ++x) {
                    EXPECT_EQ(out[3 * x], 0) << kernel.name << " layout " << layout;
                    EXPECT_EQ(out[3 * x + 1], 136) << kernel.name << " layout " << layout;
                    EXPECT_EQ(out[3 * x + 2], 0) << kernel.name << " layout " << layout;
                }
            }
        }
    }
}

TEST(ConvertKernel, GrayReferenceValuesInBothByteOrders)
{
    const struct {
        Rgb rgb;
        uint8_t gray;
    } references[] = {
        {{255, 255, 255}, 255}, {{255, 0, 0}, 77}, {{0, 255, 0}, 149}, {{0, 0, 255}, 29}, {{10, 20, 30}, 18}};
    // Width 28: a block of sixteen, a step of eight and a group of four.
    constexpr int kWidth = 28;
    for (const auto& kernel : kGrayKernels) {
        for (bool bgr : {false, true}) {
            std::vector<uint8_t> source(3 * kWidth);
            for (int x = 0; x < kWidth; ++x) {
                const Rgb& rgb = references[x % std::size(references)].rgb;
                source[3 * x] = bgr ? rgb.b : rgb.r;
                source[3 * x + 1] = rgb.g;
                source[3 * x + 2] = bgr ? rgb.r : rgb.b;
            }
            std::vector<uint8_t> out(kWidth, 0xEE);
            kernel.run(source.data(), out.data(), kWidth, 1, bgr);
            for (int x = 0; x < kWidth; ++x) {
                EXPECT_EQ(out[x], references[x % std::size(references)].gray)
                    << kernel.name << " bgr " << bgr << " x " << x;
            }
        }
    }
    // The same bytes read in the other order give the other weighting.
    const uint8_t blueFirst[12] = {255, 0, 0, 255, 0, 0, 255, 0, 0, 255, 0, 0};
    uint8_t gray[4];
    rgb888_to_gray8_neon(blueFirst, gray, 4, 1, true);
    EXPECT_EQ(gray[0], 29);
    rgb888_to_gray8_neon(blueFirst, gray, 4, 1, false);
    EXPECT_EQ(gray[3], 77);
}

TEST(ConvertKernel, NothingHappensWithoutRows)
{
    const uint8_t source[48] = {};
    for (int height : {0, -1}) {
        uint8_t out[48];
        std::memset(out, 0xEE, sizeof out);
        yuv422_to_rgb888_neon_layout(source, out, 16, height, false, 0);
        yuv422_to_rgb888_c_layout(source, out, 16, height, false, 0);
        rgb888_to_gray8_neon(source, out, 16, height, false);
        rgb888_to_gray8_c(source, out, 16, height, false);
        for (uint8_t byte : out) EXPECT_EQ(byte, 0xEE) << "height " << height;
    }
}

namespace {

// One kernel configuration over random images: the kernel against its model,
// with guard pages on either side of both images and a canary in every byte
// that must stay unwritten.
struct SweepCase {
    std::string name;
    int sourceBytesPerPixel;
    int destinationBytesPerPixel;
    std::function<void(const uint8_t*, uint8_t*, int, int)> kernel;
    std::function<void(const uint8_t*, uint8_t*, int, int)> model;
};

std::vector<SweepCase> sweepCases()
{
    std::vector<SweepCase> cases;
    for (int layout : {0, 1, 2, 3, 4}) {
        for (bool swap : {false, true}) {
            cases.push_back({"yuv layout " + std::to_string(layout) + (swap ? " swap" : ""), 2, 3,
                             [=](const uint8_t* s, uint8_t* d, int w, int h) {
                                 yuv422_to_rgb888_neon_layout(s, d, w, h, swap, layout);
                             },
                             [=](const uint8_t* s, uint8_t* d, int w, int h) {
                                 yuv422_to_rgb888_c_layout(s, d, w, h, swap, layout);
                             }});
        }
    }
    for (bool bgr : {false, true}) {
        cases.push_back(
            {std::string("gray") + (bgr ? " bgr" : ""), 3, 1,
             [=](const uint8_t* s, uint8_t* d, int w, int h) { rgb888_to_gray8_neon(s, d, w, h, bgr); },
             [=](const uint8_t* s, uint8_t* d, int w, int h) { rgb888_to_gray8_c(s, d, w, h, bgr); }});
    }
    return cases;
}

// Runs one case on one size; returns a description of the first difference, or "".
std::string checkSize(const SweepCase& c, int width, int height, std::mt19937& random)
{
    const size_t sourceSize = static_cast<size_t>(width) * height * c.sourceBytesPerPixel;
    const size_t destinationSize = static_cast<size_t>(width) * height * c.destinationBytesPerPixel;
    std::vector<uint8_t> pixels(sourceSize + 3);
    for (size_t i = 0; i < sourceSize; i += 4) {
        const uint32_t word = random();
        std::memcpy(&pixels[i], &word, 4);
    }
    const size_t covered = static_cast<size_t>(expectedCovered(width)) * c.destinationBytesPerPixel;
    const size_t row = static_cast<size_t>(width) * c.destinationBytesPerPixel;

    std::vector<uint8_t> results[2];
    const GuardedBuffer::Edge edges[2] = {GuardedBuffer::Edge::Front, GuardedBuffer::Edge::Back};
    const uint8_t canaries[2] = {0xA5, 0x5A};
    for (int run = 0; run < 2; ++run) {
        GuardedBuffer source(sourceSize, edges[run]);
        GuardedBuffer destination(destinationSize, edges[run]);
        std::memcpy(source.data(), pixels.data(), sourceSize);
        std::memset(destination.data(), canaries[run], destinationSize);
        c.kernel(source.data(), destination.data(), width, height);
        std::vector<uint8_t> expected(destinationSize, canaries[run]);
        c.model(pixels.data(), expected.data(), width, height);
        results[run].assign(destination.data(), destination.data() + destinationSize);
        for (size_t i = 0; i < destinationSize; ++i) {
            if (results[run][i] != expected[i]) {
                return "byte " + std::to_string(i) + " is " + std::to_string(results[run][i]) +
                       ", the model wrote " + std::to_string(expected[i]);
            }
            if (i % row >= covered && results[run][i] != canaries[run]) {
                return "byte " + std::to_string(i) + " beyond the covered pixels was written";
            }
        }
    }
    // A covered byte that neither run wrote still holds two different canaries.
    for (size_t i = 0; i < destinationSize; ++i) {
        if (i % row < covered && results[0][i] != results[1][i]) {
            return "byte " + std::to_string(i) + " of a covered pixel was not written";
        }
    }
    return "";
}

}  // namespace

TEST(ConvertKernel, MatchesItsModelOnRandomImagesWithinGuardPages)
{
    const std::vector<SweepCase> cases = sweepCases();
    std::vector<int> widths;
    for (int w = 1; w <= 64; ++w) widths.push_back(w);
    widths.push_back(1920);
    widths.push_back(3840);
    std::mt19937 random(20240601);
    for (size_t i = 0; i < cases.size(); ++i) {
        const SweepCase& c = cases[i];
        for (int width : widths) {
            for (int height : {1, 2, 3}) {
                const std::string problem = checkSize(c, width, height, random);
                ASSERT_EQ(problem, "") << c.name << " " << width << "x" << height;
            }
        }
        // Full-height frames: each layout, byte order and kernel natively, one
        // case of each kernel otherwise.
        const bool last = i + 1 == cases.size();
        std::vector<int> frameWidths;
        if (fullSweep() && (i == 0 || last)) {
            frameWidths = {1920, 3840};
        } else if (fullSweep() ? i % 3 == 0 || i + 2 == cases.size() : i == 3 || last) {
            frameWidths = {1920};
        }
        for (int width : frameWidths) {
            const std::string problem = checkSize(c, width, 1080, random);
            ASSERT_EQ(problem, "") << c.name << " " << width << "x1080";
        }
    }
}
