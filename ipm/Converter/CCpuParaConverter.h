// For hosts: part of the host interface of libQRV_IPM.
//
// Data-parallel colour-space conversions on the calling thread, through the
// NEON kernels of CpuConvertKernel.h: packed YUV 4:2:2 to RGB888 or BGR888
// (full range, 6-bit fixed point) and RGB888 or BGR888 to Gray8 (the same
// bytes as the serial converter). The converter holds no state.
#pragma once

#include "QRV_Image.h"

class CCpuParaConverter {
public:
    CCpuParaConverter() = default;

    // Each returns 1 on success; 6 for a missing destination or a format
    // mismatch, 8 for a missing image or pixel buffer, 5 for a bad size (a
    // width that is not a positive multiple of 4, no rows, or a destination
    // of another size), 0 when the processor lacks a SIMD level the kernels
    // run on. A refused call writes nothing. The user pointers are ignored.
    int ConvertYUV422_8_To_RGB888(const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination,
                                  void* user1, void* user2);
    int ConvertYUV422_8_To_BGR888(const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination,
                                  void* user1, void* user2);
    int ConvertRGB888_To_Gray8(const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination, void* user1,
                               void* user2);

    // Checks formats and the source's geometry, then the SIMD level; neither
    // looks at the pixel buffers or the destination's size.
    static int validateYUV422ToRGB_(const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination);
    static int validateRGB888ToGray8_(const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination);

    // The bare conversions, without checks: source-sized rows into the
    // destination, BGR byte order when the destination (YUV) or the source
    // (gray) is BGR888.
    static void yuv422_to_rgb888_core_(const qrv_img::QRV_Image& source, qrv_img::QRV_Image& destination);
    static void rgb888_to_gray8_core_(const qrv_img::QRV_Image& source, qrv_img::QRV_Image& destination);
};
