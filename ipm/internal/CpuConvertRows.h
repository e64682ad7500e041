// Row functions of the colour-space kernels, one body per instruction set, all
// of the same shape. Each converts `pixels` pixels of one packed row, a
// multiple of its body's block; CpuConvertKernel.cpp runs them over the rows,
// finishes each row through scratch blocks and chooses the body at run time.
// Only the file of a body is built with that instruction set's flags.
#pragma once

#include <cstdint>

// Not part of the library's interface.
#pragma GCC visibility push(hidden)

namespace qrv_kernel {

// The NEON body: <arm_neon.h> on aarch64, SIMDe on x86-64 (the fallback when
// the processor has no AVX2, and the portable check of the NEON code).
namespace neon {
constexpr int kYuvBlock = 16;
constexpr int kGrayBlock = 16;
// layout: 0 YUYV, 1 UYVY, 2 YVYU, 3 VYUY; any other value reads every sample as 0.
void yuv422ToRgb888Row(const uint8_t* source, uint8_t* destination, int pixels, bool swap, int layout);
void rgb888ToGray8Row(const uint8_t* source, uint8_t* destination, int pixels, bool bgr);
}  // namespace neon

#if defined(__x86_64__)
// The AVX2 body, for x86-64 processors that have AVX2.
namespace avx2 {
constexpr int kYuvBlock = 32;
constexpr int kGrayBlock = 32;
void yuv422ToRgb888Row(const uint8_t* source, uint8_t* destination, int pixels, bool swap, int layout);
void rgb888ToGray8Row(const uint8_t* source, uint8_t* destination, int pixels, bool bgr);
}  // namespace avx2
#endif

}  // namespace qrv_kernel

#pragma GCC visibility pop
