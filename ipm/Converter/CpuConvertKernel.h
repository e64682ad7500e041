// For hosts: part of the host interface of libQRV_IPM.
//
// Colour-space kernels of the parallel converters, with C linkage so that a
// host can call them on raw pixel addresses.
//
// Every kernel takes the first pixel of each image and packed rows: a YUV
// 4:2:2 row is 2 x width bytes, an RGB or BGR row 3 x width, a gray row width.
// Each row is converted in groups of eight pixels and then, when exactly four
// remain, one group of four; with a width that is not a multiple of 4 the last
// width % 8 pixels of every row are left as they were. Nothing outside the
// rows is read or written. Nothing happens when the width or the height is 0 or
// less.
//
// On x86-64 the kernels run an AVX2 body when the processor has AVX2, and the
// NEON code compiled through SIMDe otherwise; both write the same bytes. An
// environment variable QRV_IPM_DISABLE_AVX2 set to anything but "0" when the
// process first converts keeps it on the SIMDe body.
#pragma once

#include <cstdint>

extern "C" {

// Packed YUV 4:2:2 to 24-bit colour, full range in 6-bit fixed point:
// R = (64Y + 90E) >> 6, G = (64Y - 22D - 46E) >> 6, B = (64Y + 113D) >> 6 with
// D = U - 128, E = V - 128, clamped to 0..255. layout: 0 YUYV, 1 UYVY, 2 YVYU,
// 3 VYUY; any other value reads every sample as 0. swap writes B, G, R.
void yuv422_to_rgb888_neon_layout(const uint8_t* source, uint8_t* destination, int width, int height,
                                  bool swap, int layout);

// The same for YUYV sources.
void yuyv422_to_rgb888_neon(const uint8_t* source, uint8_t* destination, int width, int height, bool swap);

// RGB888 (or BGR888 with bgr set) to Gray8: (77R + 150G + 29B + 128) >> 8.
void rgb888_to_gray8_neon(const uint8_t* source, uint8_t* destination, int width, int height, bool bgr);
}
