// The AVX2 body of the colour-space rows, for x86-64 processors that have
// AVX2: 32 pixels per iteration, the same bytes as the NEON body. Only this
// file is built with -mavx2, and CpuConvertKernel.cpp calls it only after the
// processor has been found to have AVX2. It uses no C++ library code: an
// inline function instantiated here would carry AVX2 code that the linker may
// pick for the other files too.
#include <immintrin.h>

#include <cstddef>

#include "CpuConvertRows.h"
#include "PixelArithmetic.h"

namespace {

using qrv_convert::kYuvPositions;
using qrv_convert::YuvPositions;

constexpr int kLayouts = 4;
constexpr uint8_t kZero = 0x80;  // a shuffle index that yields 0

// Shuffle tables of 32 bytes, the same 16 in both 128-bit lanes (vpshufb
// works within each lane).
struct alignas(32) Table {
    uint8_t bytes[32];
};

constexpr void setBoth(Table& table, int at, uint8_t value)
{
    table.bytes[at] = value;
    table.bytes[16 + at] = value;
}

// By layout index: 16 source bytes (eight pixels) to [Y0..Y7 | U V of each of
// the four pairs], the pairs' chroma side by side for vpmaddubsw. Index 4, for
// any other layout, gathers zeros.
struct YuvGather {
    Table layouts[kLayouts + 1];
};

constexpr YuvGather yuvGather()
{
    YuvGather gather{};
    for (int layout = 0; layout <= kLayouts; ++layout) {
        Table& table = gather.layouts[layout];
        for (int group = 0; group < 4; ++group) {
            if (layout == kLayouts) {
                setBoth(table, 2 * group, kZero);
                setBoth(table, 2 * group + 1, kZero);
                setBoth(table, 8 + 2 * group, kZero);
                setBoth(table, 9 + 2 * group, kZero);
                continue;
            }
            const YuvPositions& at = kYuvPositions[layout];
            setBoth(table, 2 * group, static_cast<uint8_t>(4 * group + at.y0));
            setBoth(table, 2 * group + 1, static_cast<uint8_t>(4 * group + at.y1));
            setBoth(table, 8 + 2 * group, static_cast<uint8_t>(4 * group + at.u));
            setBoth(table, 9 + 2 * group, static_cast<uint8_t>(4 * group + at.v));
        }
    }
    return gather;
}

constexpr YuvGather kYuvGather = yuvGather();

// A channel's sixteen pixels of a lane, as vpackuswb leaves them: the even
// pixels 0, 2, .., 14, then the odd ones. interleave[chunk][plane] moves the
// plane's bytes of 16-byte output chunk `chunk` (of 48) into place, zeros
// elsewhere.
struct Interleave {
    Table chunks[3][3];
};

constexpr Interleave interleave()
{
    Interleave tables{};
    for (int chunk = 0; chunk < 3; ++chunk) {
        for (int plane = 0; plane < 3; ++plane) {
            for (int at = 0; at < 16; ++at) {
                const int pixel = (16 * chunk + at) / 3;
                const int from = pixel % 2 == 0 ? pixel / 2 : 8 + pixel / 2;
                const bool mine = (16 * chunk + at) % 3 == plane;
                setBoth(tables.chunks[chunk][plane], at, mine ? static_cast<uint8_t>(from) : kZero);
            }
        }
    }
    return tables;
}

constexpr Interleave kInterleave = interleave();

// Gray: four pixels of a lane to [first, G] pairs, then [last, G] pairs, where
// first and last are bytes 0 and 2 of a pixel, or 2 and 0 for BGR sources. The
// upper lane's four pixels start 4 bytes into its 16 (see grayBlock32).
struct GrayPairs {
    Table orders[2];  // RGB, BGR
};

constexpr GrayPairs grayPairs()
{
    GrayPairs pairs{};
    for (int bgr = 0; bgr < 2; ++bgr) {
        for (size_t lane = 0; lane < 2; ++lane) {
            for (size_t pixel = 0; pixel < 4; ++pixel) {
                const size_t base = 4 * lane + 3 * pixel;
                uint8_t* bytes = pairs.orders[bgr].bytes + 16 * lane;
                bytes[2 * pixel] = static_cast<uint8_t>(base + (bgr != 0 ? 2 : 0));
                bytes[2 * pixel + 1] = static_cast<uint8_t>(base + 1);
                bytes[8 + 2 * pixel] = static_cast<uint8_t>(base + (bgr != 0 ? 0 : 2));
                bytes[9 + 2 * pixel] = static_cast<uint8_t>(base + 1);
            }
        }
    }
    return pairs;
}

constexpr GrayPairs kGrayPairs = grayPairs();

inline __m256i loadTable(const Table& table)
{
    return _mm256_load_si256(reinterpret_cast<const __m256i*>(table.bytes));
}

// 16 bytes at `low` in the lower lane, 16 at `high` in the upper one.
inline __m256i loadLanes(const uint8_t* low, const uint8_t* high)
{
    const __m128i lower = _mm_loadu_si128(reinterpret_cast<const __m128i*>(low));
    return _mm256_inserti128_si256(_mm256_castsi128_si256(lower),
                                   _mm_loadu_si128(reinterpret_cast<const __m128i*>(high)), 1);
}

// Signed byte pairs for vpmaddubsw: `first` applies to a pair's first byte.
constexpr short bytePairWord(int first, int second)
{
    return static_cast<short>(
        static_cast<uint16_t>(static_cast<uint8_t>(second) << 8 | static_cast<uint8_t>(first)));
}

inline __m256i bytePairs(int first, int second)
{
    return _mm256_set1_epi16(bytePairWord(first, second));
}

struct YuvConstants {
    __m256i gather;
    // U, V weights of the three chroma terms, and what the unsigned samples
    // add to each term after the shift by 6 (128 times the weights, over 64).
    __m256i redWeights, greenWeights, blueWeights;
    __m256i redBias, greenBias, blueBias;
    __m256i lowByte;
};

// floor(weighted (U - 128, V - 128) / 64) per pixel pair: vpmaddubsw weighs
// the unsigned samples; 128 times the weights is a multiple of 64, so the
// offset comes off after the arithmetic shift.
inline __m256i chromaTerm(__m256i chroma, __m256i weights, __m256i bias)
{
    return _mm256_sub_epi16(_mm256_srai_epi16(_mm256_maddubs_epi16(chroma, weights), 6), bias);
}

// Y + term, clamped to 0..255, for the even and odd pixels of each pair:
// [even pixels | odd pixels] in each lane.
inline __m256i addTerm(__m256i evenLuma, __m256i oddLuma, __m256i term)
{
    return _mm256_packus_epi16(_mm256_add_epi16(evenLuma, term), _mm256_add_epi16(oddLuma, term));
}

inline __m256i interleaveChunk(int chunk, __m256i plane0, __m256i plane1, __m256i plane2)
{
    const Table* masks = kInterleave.chunks[chunk];
    return _mm256_or_si256(_mm256_or_si256(_mm256_shuffle_epi8(plane0, loadTable(masks[0])),
                                           _mm256_shuffle_epi8(plane1, loadTable(masks[1]))),
                           _mm256_shuffle_epi8(plane2, loadTable(masks[2])));
}

// Thirty-two pixels: 64 source bytes in, 96 bytes out. 64Y is a multiple of
// 64, so (64Y + t) >> 6 = Y + (t >> 6): the chroma terms are computed once per
// pixel pair in 16-bit lanes and added to both pixels' Y.
template <bool Swap>
inline void yuvBlock32(const uint8_t* source, uint8_t* destination, const YuvConstants& k)
{
    // Pixels 0-7 and 16-23, then 8-15 and 24-31, so that each lane ends up
    // with sixteen consecutive pixels.
    const __m256i first = _mm256_shuffle_epi8(loadLanes(source, source + 32), k.gather);
    const __m256i second = _mm256_shuffle_epi8(loadLanes(source + 16, source + 48), k.gather);
    const __m256i luma = _mm256_unpacklo_epi64(first, second);
    const __m256i chroma = _mm256_unpackhi_epi64(first, second);
    const __m256i even = _mm256_and_si256(luma, k.lowByte);
    const __m256i odd = _mm256_srli_epi16(luma, 8);
    const __m256i red = addTerm(even, odd, chromaTerm(chroma, k.redWeights, k.redBias));
    const __m256i green = addTerm(even, odd, chromaTerm(chroma, k.greenWeights, k.greenBias));
    const __m256i blue = addTerm(even, odd, chromaTerm(chroma, k.blueWeights, k.blueBias));
    const __m256i plane0 = Swap ? blue : red;
    const __m256i plane2 = Swap ? red : blue;
    // Output bytes 0-15 | 48-63, 16-31 | 64-79, 32-47 | 80-95.
    const __m256i chunk0 = interleaveChunk(0, plane0, green, plane2);
    const __m256i chunk1 = interleaveChunk(1, plane0, green, plane2);
    const __m256i chunk2 = interleaveChunk(2, plane0, green, plane2);
    __m256i* out = reinterpret_cast<__m256i*>(destination);
    _mm256_storeu_si256(out, _mm256_permute2x128_si256(chunk0, chunk1, 0x20));
    _mm256_storeu_si256(out + 1, _mm256_permute2x128_si256(chunk2, chunk0, 0x30));
    _mm256_storeu_si256(out + 2, _mm256_permute2x128_si256(chunk1, chunk2, 0x31));
}

template <bool Swap>
void yuvBlocks(const uint8_t* source, uint8_t* destination, int pixels, const YuvConstants& k)
{
    for (const uint8_t* end = source + 2 * static_cast<size_t>(pixels); source != end;
         source += 64, destination += 96) {
        yuvBlock32<Swap>(source, destination, k);
    }
}

// 77 first + 51 G and 29 last + 99 G per pixel, for eight pixels from 24
// bytes: each weight pair sums to 128, so neither sum leaves vpmaddubsw's
// signed 16 bits, and the two add up to 77R + 150G + 29B.
inline __m256i grayHalves(const uint8_t* pixels, __m256i pairs, __m256i weights)
{
    // The upper lane loads from byte 8, so that the last of its pixels ends
    // with the 24 bytes.
    return _mm256_maddubs_epi16(_mm256_shuffle_epi8(loadLanes(pixels, pixels + 8), pairs), weights);
}

// (77R + 150G + 29B + 128) >> 8 per pixel, for sixteen pixels of
// grayHalves; the sums reach 65408 and are added as unsigned.
inline __m256i graySums(__m256i a, __m256i b)
{
    const __m256i sum = _mm256_add_epi16(_mm256_unpacklo_epi64(a, b), _mm256_unpackhi_epi64(a, b));
    return _mm256_srli_epi16(_mm256_add_epi16(sum, _mm256_set1_epi16(128)), 8);
}

inline void grayBlock32(const uint8_t* source, uint8_t* destination, __m256i pairs, __m256i weights)
{
    const __m256i a = grayHalves(source, pairs, weights);
    const __m256i b = grayHalves(source + 24, pairs, weights);
    const __m256i c = grayHalves(source + 48, pairs, weights);
    const __m256i d = grayHalves(source + 72, pairs, weights);
    // Bytes of pixels 0-3, 8-11, 16-19, 24-27 | 4-7, 12-15, 20-23, 28-31.
    const __m256i gray = _mm256_packus_epi16(graySums(a, b), graySums(c, d));
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(destination), _mm256_permutevar8x32_epi32(gray, order));
}

}  // namespace

namespace qrv_kernel::avx2 {

void yuv422ToRgb888Row(const uint8_t* source, uint8_t* destination, int pixels, bool swap, int layout)
{
    const YuvConstants k = {
        loadTable(kYuvGather.layouts[layout >= 0 && layout < kLayouts ? layout : kLayouts]),
        bytePairs(0, 90),
        bytePairs(-22, -46),
        bytePairs(113, 0),
        _mm256_set1_epi16(90 * 128 / 64),
        _mm256_set1_epi16(-68 * 128 / 64),
        _mm256_set1_epi16(113 * 128 / 64),
        _mm256_set1_epi16(0x00FF)};
    if (swap) {
        yuvBlocks<true>(source, destination, pixels, k);
    } else {
        yuvBlocks<false>(source, destination, pixels, k);
    }
}

void rgb888ToGray8Row(const uint8_t* source, uint8_t* destination, int pixels, bool bgr)
{
    const __m256i pairs = loadTable(kGrayPairs.orders[bgr ? 1 : 0]);
    const __m128i lane =
        _mm_unpacklo_epi64(_mm_set1_epi16(bytePairWord(77, 51)), _mm_set1_epi16(bytePairWord(29, 99)));
    const __m256i weights = _mm256_broadcastsi128_si256(lane);
    for (const uint8_t* end = source + 3 * static_cast<size_t>(pixels); source != end;
         source += 96, destination += 32) {
        grayBlock32(source, destination, pairs, weights);
    }
}

}  // namespace qrv_kernel::avx2
