// The kernels' entry points and row loops. The pixel work is done by one of
// the row bodies of CpuConvertRows.h, chosen once per process: on x86-64 the
// AVX2 body when the processor has AVX2, otherwise the NEON body (through SIMDe
// there). Setting QRV_IPM_DISABLE_AVX2 to anything but "0" keeps an x86-64
// process on the NEON body, so that it can be tested and measured on any
// machine. This file is built for the baseline of its target.
#include "Converter/CpuConvertKernel.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "CIpmCpuEnv.h"
#include "CpuConvertRows.h"

namespace {

using YuvRow = void (*)(const uint8_t*, uint8_t*, int, bool, int);
using GrayRow = void (*)(const uint8_t*, uint8_t*, int, bool);

struct RowBody {
    YuvRow yuv;
    int yuvBlock;
    GrayRow gray;
    int grayBlock;
};

constexpr int kLargestBlock = 32;
static_assert(qrv_kernel::neon::kYuvBlock <= kLargestBlock && qrv_kernel::neon::kGrayBlock <= kLargestBlock);
#if defined(__x86_64__)
static_assert(qrv_kernel::avx2::kYuvBlock <= kLargestBlock && qrv_kernel::avx2::kGrayBlock <= kLargestBlock);
#endif

#if defined(__x86_64__)
bool avx2Disabled()
{
    const char* value = std::getenv("QRV_IPM_DISABLE_AVX2");
    return value != nullptr && value[0] != '\0' && value[0] != '0';
}
#endif

RowBody chooseBody()
{
#if defined(__x86_64__)
    // The CPU detection alone (CPUID and XCR0), not the whole environment,
    // which would also probe the graphics adapters.
    ipm::CIpmCpuEnv cpu;
    cpu.Detect();
    if (cpu.hasAvx2 && !avx2Disabled()) {
        namespace body = qrv_kernel::avx2;
        return {body::yuv422ToRgb888Row, body::kYuvBlock, body::rgb888ToGray8Row, body::kGrayBlock};
    }
#endif
    namespace body = qrv_kernel::neon;
    return {body::yuv422ToRgb888Row, body::kYuvBlock, body::rgb888ToGray8Row, body::kGrayBlock};
}

const RowBody& rowBody()
{
    static const RowBody chosen = chooseBody();
    return chosen;
}

// Pixels of a row that the kernels convert: whole groups of eight, then four
// more when exactly four remain.
int coveredPixels(int width)
{
    return width <= 0 ? 0 : width / 8 * 8 + (width % 8 == 4 ? 4 : 0);
}

// The most pixels handed to one call of a row function, which counts them in an
// int; a multiple of every block.
constexpr size_t kLongestCall = size_t{1} << 30;

// Converts `pixels` packed pixels: the whole blocks through `row`, the rest
// through a scratch block, so nothing beyond the pixels is read or written.
template <typename Row>
void convertRun(const uint8_t* source, uint8_t* destination, size_t pixels, size_t sourceBytes,
                size_t destinationBytes, int block, Row row)
{
    const size_t whole = pixels / block * block;
    for (size_t done = 0; done < whole;) {
        const size_t part = std::min(whole - done, kLongestCall);
        row(source + sourceBytes * done, destination + destinationBytes * done, static_cast<int>(part));
        done += part;
    }
    const size_t rest = pixels - whole;
    if (rest > 0) {
        uint8_t scratchIn[3 * kLargestBlock] = {};
        uint8_t scratchOut[3 * kLargestBlock];
        std::memcpy(scratchIn, source + sourceBytes * whole, sourceBytes * rest);
        row(scratchIn, scratchOut, block);
        std::memcpy(destination + destinationBytes * whole, scratchOut, destinationBytes * rest);
    }
}

// When every pixel of a row is covered, the packed rows follow one another
// without a gap and each pixel's result depends on that pixel (or its YUV
// pair) alone, so the frame is converted as one run: the row function's
// set-up and the scratch blocks then come once per frame instead of once per
// row, and the unrolled loops run across row ends.
template <typename Row>
void convertRows(const uint8_t* source, uint8_t* destination, int width, int height, size_t sourceBytes,
                 size_t destinationBytes, int block, Row row)
{
    const int covered = coveredPixels(width);
    if (covered == width) {
        convertRun(source, destination, static_cast<size_t>(width) * static_cast<size_t>(height), sourceBytes,
                   destinationBytes, block, row);
        return;
    }
    const size_t sourceRow = sourceBytes * static_cast<size_t>(width);
    const size_t destinationRow = destinationBytes * static_cast<size_t>(width);
    for (int y = 0; y < height; ++y, source += sourceRow, destination += destinationRow) {
        convertRun(source, destination, static_cast<size_t>(covered), sourceBytes, destinationBytes, block,
                   row);
    }
}

}  // namespace

extern "C" {

void yuv422_to_rgb888_neon_layout(const uint8_t* source, uint8_t* destination, int width, int height,
                                  bool swap, int layout)
{
    // A width of -16 or less would give a negative block count, and so a row
    // end before the row's start.
    if (width <= 0 || height <= 0) return;
    const RowBody& body = rowBody();
    convertRows(
        source, destination, width, height, 2, 3, body.yuvBlock,
        [&](const uint8_t* in, uint8_t* out, int pixels) { body.yuv(in, out, pixels, swap, layout); });
}

void yuyv422_to_rgb888_neon(const uint8_t* source, uint8_t* destination, int width, int height, bool swap)
{
    yuv422_to_rgb888_neon_layout(source, destination, width, height, swap, 0);
}

void rgb888_to_gray8_neon(const uint8_t* source, uint8_t* destination, int width, int height, bool bgr)
{
    if (width <= 0 || height <= 0) return;
    const RowBody& body = rowBody();
    convertRows(source, destination, width, height, 3, 1, body.grayBlock,
                [&](const uint8_t* in, uint8_t* out, int pixels) { body.gray(in, out, pixels, bgr); });
}
}
