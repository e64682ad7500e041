// The exported kernels against scalar models of the same arithmetic, on random
// images fenced by guard pages, including the bytes that must stay unwritten.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <random>
#include <tuple>
#include <vector>

#include "Converter/CpuConvertKernel.h"
#include "TestSupport.h"

using qrvtest::GuardedBuffer;

namespace {

// Pixels of a row the kernels convert: groups of 8, then 4 when exactly 4 remain.
int covered(int width)
{
    return width <= 0 ? 0 : width / 8 * 8 + (width % 8 == 4 ? 4 : 0);
}

// Byte positions of Y0, U, Y1 and V in a four-byte group of YUYV, UYVY, YVYU, VYUY.
constexpr int kGroup[4][4] = {{0, 1, 2, 3}, {1, 0, 3, 2}, {0, 3, 2, 1}, {1, 2, 3, 0}};

// What a kernel writes, one pixel at a time. kernel: 0 the YUV one with `layout`, 1 the YUYV one, 2 the
// gray one (swap: from BGR).
void model(int kernel, bool swap, int layout, const uint8_t* in, uint8_t* out, int width, int height)
{
    const bool known = layout >= 0 && layout < 4;
    for (int row = 0; row < height; ++row) {
        for (int x = 0; x < covered(width); ++x) {
            const size_t at = static_cast<size_t>(row) * width + x;
            if (kernel == 2) {
                const uint8_t* p = in + 3 * at;
                out[at] = static_cast<uint8_t>(
                    (77 * p[swap ? 2 : 0] + 150 * p[1] + 29 * p[swap ? 0 : 2] + 128) >> 8);
                continue;
            }
            const uint8_t* group = in + 2 * (at - x % 2);
            const int y = known ? group[kGroup[layout][x % 2 * 2]] : 0;
            const int d = (known ? group[kGroup[layout][1]] : 0) - 128;
            const int e = (known ? group[kGroup[layout][3]] : 0) - 128;
            const int rgb[3] = {64 * y + 90 * e, 64 * y - 22 * d - 46 * e, 64 * y + 113 * d};
            for (int i = 0; i < 3; ++i) out[3 * at + (swap ? 2 - i : i)] = std::clamp(rgb[i] >> 6, 0, 255);
        }
    }
}

// Runs one case on one size with both images against a guard page at their front, then at their back,
// over two canaries (a covered byte left unwritten shows in one of them); returns the position of the
// first byte that differs from the model's, or -1.
long firstDifference(int kernel, bool swap, int layout, int width, int height, std::mt19937& random)
{
    // Images without pixels still get a buffer, where a stray write would show.
    const size_t pixels = width > 0 && height > 0 ? static_cast<size_t>(width) * height : 64;
    std::vector<uint8_t> source(pixels * (kernel == 2 ? 3 : 2));
    const size_t outSize = pixels * (kernel == 2 ? 1 : 3);
    for (auto& byte : source) byte = static_cast<uint8_t>(random());
    for (auto edge : {GuardedBuffer::Edge::Front, GuardedBuffer::Edge::Back}) {
        const uint8_t canary = edge == GuardedBuffer::Edge::Front ? 0xA5 : 0x5A;
        GuardedBuffer in(source.size(), edge);
        GuardedBuffer out(outSize, edge);
        std::copy(source.begin(), source.end(), in.data());
        std::memset(out.data(), canary, outSize);
        std::vector<uint8_t> expected(outSize, canary);
        if (kernel == 0) yuv422_to_rgb888_neon_layout(in.data(), out.data(), width, height, swap, layout);
        if (kernel == 1) yuyv422_to_rgb888_neon(in.data(), out.data(), width, height, swap);
        if (kernel == 2) rgb888_to_gray8_neon(in.data(), out.data(), width, height, swap);
        model(kernel, swap, layout, source.data(), expected.data(), width, height);
        const auto differ = std::mismatch(expected.begin(), expected.end(), out.data()).first;
        if (differ != expected.end()) return differ - expected.begin();
    }
    return -1;
}

void sweepEveryCase()
{
    std::vector<std::tuple<int, bool, int>> cases;
    for (int layout : {0, 1, 2, 3, 4, -1}) cases.insert(cases.end(), {{0, false, layout}, {0, true, layout}});
    cases.insert(cases.end(), {{1, false, 0}, {1, true, 0}, {2, false, 0}, {2, true, 0}});
    std::vector<int> widths = {INT_MIN, -17, -16, -15, -1, 0, 1920, 3840};
    for (int width = 1; width <= 64; ++width) widths.push_back(width);
    std::mt19937 random(20240601);
    for (const auto& [kernel, swap, layout] : cases) {
        for (int width : widths) {
            for (int height : {INT_MIN, -1, 0, 1, 2, 3}) {
                ASSERT_EQ(firstDifference(kernel, swap, layout, width, height, random), -1)
                    << kernel << "/" << swap << "/" << layout << ", " << width << " x " << height;
            }
        }
    }
}

}  // namespace

TEST(ConvertKernel, MatchesTheModelsInsideGuardPages)
{
    sweepEveryCase();
}

// On x86-64 the kernels have two bodies: AVX2, and the NEON source through SIMDe, which
// QRV_IPM_DISABLE_AVX2 chooses in a process of its own.
TEST(ConvertKernel, PortableBodyMatchesTheModelsToo)
{
#if !defined(__x86_64__)
    GTEST_SKIP() << "one body on this target";
#endif
    if (qrvtest::inChild()) return sweepEveryCase();
    qrvtest::ProcessOptions options;
    options.env = {{"QRV_IPM_DISABLE_AVX2", "1"}};
    const auto child = qrvtest::runSelf(options);
    EXPECT_EQ(child.exitCode, 0) << child.out << child.err;
}
