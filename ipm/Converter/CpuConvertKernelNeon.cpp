// The NEON body of the colour-space rows, written once in Arm NEON
// intrinsics: aarch64 builds take them from <arm_neon.h>, x86-64 builds from
// SIMDe, which maps each intrinsic onto SSE. On x86-64 this body is the
// fallback for processors without AVX2 and the portable check of the NEON code.
// Two NEON idioms that are single instructions on Arm, the three-way
// de-interleaving load and widening arithmetic on 64-bit halves, become byte
// loops or long sequences under SIMDe, so the primitives that use them have a
// second body for SIMDe, made of intrinsics that it maps onto one x86
// instruction each; both bodies compute the same bytes. Saturating narrows are
// as costly there, and the shared code does without them.
//
// On x86-64 this file is built with -mssse3 and nothing newer: the table
// lookups need SSSE3's byte shuffle (without it SIMDe falls back to byte
// loops); Intel processors have it since Core 2 (2006), AMD ones since Bobcat
// and Bulldozer (2011), while many still in use lack AVX2. The file uses no
// C++ library code, whose inline functions could carry these instructions
// into the other files.
#include <cstddef>

#include "CpuConvertRows.h"
#include "PixelArithmetic.h"

#if defined(__aarch64__)
#include <arm_neon.h>
#else
#define SIMDE_ENABLE_NATIVE_ALIASES
#include <simde/arm/neon.h>
#endif

namespace {

using qrv_convert::kYuvPositions;
using qrv_convert::YuvPositions;

constexpr int kLayouts = 4;
constexpr uint8_t kNoByte = 0xFF;  // a table index that reads as 0

// GCC turns a multiplication by a known constant into a chain of shifts and
// additions that costs more than one multiply instruction; an empty asm
// statement hides the value.
template <typename Vector>
inline Vector opaque(Vector value)
{
#if defined(__aarch64__)
    __asm__("" : "+w"(value));
#else
    __asm__("" : "+x"(value));
#endif
    return value;
}

#if defined(__aarch64__)

// D = U - 128 and E = V - 128 from [U0..U7 | V0..V7].
inline void chromaOffsets(uint8x16_t uv, int16x8_t& d, int16x8_t& e)
{
    d = vreinterpretq_s16_u16(vsubl_u8(vget_low_u8(uv), vdup_n_u8(128)));
    e = vreinterpretq_s16_u16(vsubl_high_u8(uv, vdupq_n_u8(128)));
}

// Sixteen pixels of three bytes each, as byte 0, byte 1 and byte 2 planes.
inline uint8x16x3_t loadPlanes16(const uint8_t* pixels)
{
    return vld3q_u8(pixels);
}

// Weights of byte 0, byte 1 and byte 2 of a pixel.
struct GrayWeights {
    uint8x16_t first, green, last;
};

inline GrayWeights grayWeights(uint8_t first, uint8_t last)
{
    return {vdupq_n_u8(first), vdupq_n_u8(150), vdupq_n_u8(last)};
}

// (77R + 150G + 29B + 128) >> 8 per pixel.
inline uint8x16_t weighGray16(uint8x16x3_t planes, const GrayWeights& w)
{
    uint16x8_t low = vmull_u8(vget_low_u8(planes.val[0]), vget_low_u8(w.first));
    low = vmlal_u8(low, vget_low_u8(planes.val[1]), vget_low_u8(w.green));
    low = vmlal_u8(low, vget_low_u8(planes.val[2]), vget_low_u8(w.last));
    uint16x8_t high = vmull_high_u8(planes.val[0], w.first);
    high = vmlal_high_u8(high, planes.val[1], w.green);
    high = vmlal_high_u8(high, planes.val[2], w.last);
    return vcombine_u8(vrshrn_n_u16(low, 8), vrshrn_n_u16(high, 8));
}

#else

// Widening by interleaving with zero stays in 128-bit registers.
inline void chromaOffsets(uint8x16_t uv, int16x8_t& d, int16x8_t& e)
{
    const uint8x16_t zero = vdupq_n_u8(0);
    const int16x8_t bias = vdupq_n_s16(128);
    d = vsubq_s16(vreinterpretq_s16_u8(vzip1q_u8(uv, zero)), bias);
    e = vsubq_s16(vreinterpretq_s16_u8(vzip2q_u8(uv, zero)), bias);
}

// Four loads of four whole pixels each (the last one starts four bytes early
// so that it ends with the block), each sorted into byte-0, byte-1 and byte-2
// words by one table lookup, then a 4 x 4 transpose of the words.
inline uint8x16x3_t loadPlanes16(const uint8_t* pixels)
{
    static const uint8_t kSortFirst[16] = {0, 3, 6, 9,  1,       4,       7,       10,
                                           2, 5, 8, 11, kNoByte, kNoByte, kNoByte, kNoByte};
    static const uint8_t kSortLast[16] = {4, 7, 10, 13, 5,       8,       11,      14,
                                          6, 9, 12, 15, kNoByte, kNoByte, kNoByte, kNoByte};
    const uint8x16_t sortFirst = vld1q_u8(kSortFirst);
    const uint32x4_t q0 = vreinterpretq_u32_u8(vqtbl1q_u8(vld1q_u8(pixels), sortFirst));
    const uint32x4_t q1 = vreinterpretq_u32_u8(vqtbl1q_u8(vld1q_u8(pixels + 12), sortFirst));
    const uint32x4_t q2 = vreinterpretq_u32_u8(vqtbl1q_u8(vld1q_u8(pixels + 24), sortFirst));
    const uint32x4_t q3 = vreinterpretq_u32_u8(vqtbl1q_u8(vld1q_u8(pixels + 32), vld1q_u8(kSortLast)));
    const uint64x2_t low01 = vreinterpretq_u64_u32(vzip1q_u32(q0, q1));
    const uint64x2_t low23 = vreinterpretq_u64_u32(vzip1q_u32(q2, q3));
    const uint64x2_t high01 = vreinterpretq_u64_u32(vzip2q_u32(q0, q1));
    const uint64x2_t high23 = vreinterpretq_u64_u32(vzip2q_u32(q2, q3));
    uint8x16x3_t planes;
    planes.val[0] = vreinterpretq_u8_u64(vzip1q_u64(low01, low23));
    planes.val[1] = vreinterpretq_u8_u64(vzip2q_u64(low01, low23));
    planes.val[2] = vreinterpretq_u8_u64(vzip1q_u64(high01, high23));
    return planes;
}

struct GrayWeights {
    uint16x8_t first, green, last;
};

inline GrayWeights grayWeights(uint8_t first, uint8_t last)
{
    return {opaque(vdupq_n_u16(first)), opaque(vdupq_n_u16(150)), opaque(vdupq_n_u16(last))};
}

// Even and odd pixels are weighed in the low and high byte of 16-bit lanes
// (masks and shifts instead of widening shuffles); shift-right-insert puts
// each result byte back in place.
inline uint8x16_t weighGray16(uint8x16x3_t planes, const GrayWeights& w)
{
    const uint16x8_t lowByte = vdupq_n_u16(0x00FF);
    const uint16x8_t half = vdupq_n_u16(128);
    const uint16x8_t p0 = vreinterpretq_u16_u8(planes.val[0]);
    const uint16x8_t p1 = vreinterpretq_u16_u8(planes.val[1]);
    const uint16x8_t p2 = vreinterpretq_u16_u8(planes.val[2]);
    uint16x8_t even = vmlaq_u16(half, vandq_u16(p0, lowByte), w.first);
    even = vmlaq_u16(even, vandq_u16(p1, lowByte), w.green);
    even = vmlaq_u16(even, vandq_u16(p2, lowByte), w.last);
    uint16x8_t odd = vmlaq_u16(half, vshrq_n_u16(p0, 8), w.first);
    odd = vmlaq_u16(odd, vshrq_n_u16(p1, 8), w.green);
    odd = vmlaq_u16(odd, vshrq_n_u16(p2, 8), w.last);
    return vreinterpretq_u8_u16(vsriq_n_u16(odd, even, 8));
}

#endif

struct YuvCoefficients {
    int16x8_t red, greenU, greenV, blue;
    int16x8_t spread;  // 257: copies a lane's low byte (0..255) into its high byte
};

YuvCoefficients yuvCoefficients()
{
    return {opaque(vdupq_n_s16(90)), opaque(vdupq_n_s16(-22)), opaque(vdupq_n_s16(-46)),
            opaque(vdupq_n_s16(113)), opaque(vdupq_n_s16(257))};
}

// Y + c clamped to 0..255 for the two pixels of each pair (c in lane j applies
// to bytes 2j and 2j + 1), in bytes: add the positive part and subtract the
// negative part of c (|c| <= 226), both with saturation.
inline uint8x16_t addChroma(uint8x16_t luma, int16x8_t chroma, const YuvCoefficients& k)
{
    const int16x8_t positive = vmaxq_s16(chroma, vdupq_n_s16(0));
    const int16x8_t negative = vsubq_s16(positive, chroma);
    return vqsubq_u8(vqaddq_u8(luma, vreinterpretq_u8_s16(vmulq_s16(positive, k.spread))),
                     vreinterpretq_u8_s16(vmulq_s16(negative, k.spread)));
}

// Tables that sort 16 source bytes (eight pixels) into [Y0..Y7 | U0..U3 | V0..V3],
// by layout index; index 4, for any other layout, gathers nothing.
struct GatherTables {
    uint8_t bytes[kLayouts + 1][16];
};

constexpr GatherTables yuvGatherTables()
{
    GatherTables tables{};
    for (int layout = 0; layout <= kLayouts; ++layout) {
        for (size_t group = 0; group < 4; ++group) {
            uint8_t* table = tables.bytes[layout];
            if (layout == kLayouts) {
                table[2 * group] = table[2 * group + 1] = table[8 + group] = table[12 + group] = kNoByte;
                continue;
            }
            const YuvPositions& at = kYuvPositions[layout];
            table[2 * group] = static_cast<uint8_t>(4 * group + at.y0);
            table[2 * group + 1] = static_cast<uint8_t>(4 * group + at.y1);
            table[8 + group] = static_cast<uint8_t>(4 * group + at.u);
            table[12 + group] = static_cast<uint8_t>(4 * group + at.v);
        }
    }
    return tables;
}

constexpr GatherTables kYuvGather = yuvGatherTables();

// Sixteen pixels: 32 source bytes in, 48 bytes out. 64Y is a multiple of 64,
// so (64Y + t) >> 6 = Y + (t >> 6): the chroma terms are computed once per
// pixel pair and added to Y with byte saturation.
template <bool Swap>
inline void yuvBlock16(const uint8_t* source, uint8_t* destination, uint8x16_t gather,
                       const YuvCoefficients& k)
{
    const uint8x16_t first = vqtbl1q_u8(vld1q_u8(source), gather);
    const uint8x16_t second = vqtbl1q_u8(vld1q_u8(source + 16), gather);
    const uint8x16_t luma =
        vreinterpretq_u8_u64(vzip1q_u64(vreinterpretq_u64_u8(first), vreinterpretq_u64_u8(second)));
    const uint8x16_t uv =
        vreinterpretq_u8_u32(vzip2q_u32(vreinterpretq_u32_u8(first), vreinterpretq_u32_u8(second)));
    int16x8_t d;
    int16x8_t e;
    chromaOffsets(uv, d, e);
    const int16x8_t red = vshrq_n_s16(vmulq_s16(e, k.red), 6);
    const int16x8_t green = vshrq_n_s16(vmlaq_s16(vmulq_s16(d, k.greenU), e, k.greenV), 6);
    const int16x8_t blue = vshrq_n_s16(vmulq_s16(d, k.blue), 6);
    uint8x16x3_t pixels;
    pixels.val[Swap ? 2 : 0] = addChroma(luma, red, k);
    pixels.val[1] = addChroma(luma, green, k);
    pixels.val[Swap ? 0 : 2] = addChroma(luma, blue, k);
    vst3q_u8(destination, pixels);
}

// Sixteen pixels; moves both pointers past them. The empty asm statement
// makes each block start from the pointers the previous one left, so that the
// loads and the store move their pointer themselves (post-indexed addressing
// on aarch64): otherwise GCC gives each block of an unrolled loop its own
// address register, 5 instructions more per 64 pixels, since the
// de-interleaving load takes no offset.
inline void grayBlock16(const uint8_t*& source, uint8_t*& destination, const GrayWeights& weights)
{
    vst1q_u8(destination, weighGray16(loadPlanes16(source), weights));
    source += 48;
    destination += 16;
    __asm__("" : "+r"(source), "+r"(destination));
}

template <bool Swap>
void yuvBlocks(const uint8_t* source, uint8_t* destination, int pixels, uint8x16_t gather)
{
    const YuvCoefficients k = yuvCoefficients();
    for (const uint8_t* end = source + 2 * static_cast<size_t>(pixels); source != end;
         source += 32, destination += 48) {
        yuvBlock16<Swap>(source, destination, gather, k);
    }
}

}  // namespace

namespace qrv_kernel::neon {

void yuv422ToRgb888Row(const uint8_t* source, uint8_t* destination, int pixels, bool swap, int layout)
{
    const uint8x16_t gather =
        vld1q_u8(kYuvGather.bytes[layout >= 0 && layout < kLayouts ? layout : kLayouts]);
    if (swap) {
        yuvBlocks<true>(source, destination, pixels, gather);
    } else {
        yuvBlocks<false>(source, destination, pixels, gather);
    }
}

void rgb888ToGray8Row(const uint8_t* source, uint8_t* destination, int pixels, bool bgr)
{
    const GrayWeights weights = grayWeights(bgr ? 29 : 77, bgr ? 77 : 29);
    // A block is 10 instructions on aarch64 and an iteration adds 2 (compare
    // and branch): four blocks an iteration bring the loop's share from 1/6 to 1/21.
    const size_t count = static_cast<size_t>(pixels);
    const uint8_t* const fours = source + 3 * (count / 64 * 64);
    const uint8_t* const end = source + 3 * count;
    while (source != fours) {
        grayBlock16(source, destination, weights);
        grayBlock16(source, destination, weights);
        grayBlock16(source, destination, weights);
        grayBlock16(source, destination, weights);
    }
    while (source != end) grayBlock16(source, destination, weights);
}

}  // namespace qrv_kernel::neon
