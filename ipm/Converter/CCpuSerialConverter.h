// For hosts: part of the host interface of libQRV_IPM.
//
// Scalar colour-space conversions: packed YUV 4:2:2 to RGB888 or BGR888
// (limited-range BT.601 in 8-bit fixed point), and RGB888 or BGR888 to Gray8.
// The converter holds no state; any number of threads may use one instance on
// distinct destinations.
#pragma once

#include "QRV_Image.h"

class CCpuSerialConverter {
public:
    CCpuSerialConverter() = default;

    // Each returns 1 on success, 8 for a missing image or pixel buffer, 9 for
    // a format or size mismatch; a refused call writes nothing. The user
    // pointers are ignored.
    int ConvertYUV422_8_To_RGB888(const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination,
                                  void* user1, void* user2);
    int ConvertYUV422_8_To_BGR888(const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination,
                                  void* user1, void* user2);
    int ConvertRGB888_To_Gray8(const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination, void* user1,
                               void* user2);

    static int validateYUV422ToRGB_(const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination);
    static int validateRGB888ToGray8_(const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination);

    // The bare conversions, without checks. The byte order written follows
    // the destination's format (BGR888, or else RGB); a YUV layout outside
    // YUYV, UYVY, YVYU and VYUY writes nothing.
    static void yuv422_to_rgb888_core_(const qrv_img::QRV_Image& source, qrv_img::QRV_Image& destination);
    static void rgb888_to_gray8_core_(const qrv_img::QRV_Image& source, qrv_img::QRV_Image& destination);
};
