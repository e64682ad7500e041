// Runs one conversion a given number of times and nothing else, for counting
// under qemu: `make bench-arm` runs it twice per row (K runs and one run) and
// divides the difference by K - 1, so start-up, buffer filling and exit cancel.
//
//   count_harness CASE WIDTH HEIGHT RUNS
//
// CASE is one of the names in kCases below, or "loop", which runs a loop of
// four instructions (a load, a store, a subtract and a branch) WIDTH * HEIGHT
// times per run, for checking the counting plug-in against a known count.
// "order" checks, instead, that libyuv's routes below write the library's byte
// order (R, G, B in memory) and exits non-zero when they do not.
#include <libyuv.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "BenchImage.h"
#include "CIpmFuncTable.h"
#include "Converter/CConverter.h"
#include "Converter/CpuConvertKernel.h"
#include "QRV_Image.h"

using ipmcommon::CIpmFuncTable;
using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using Conversion = CConverter::Ipm_Converter_Func;

namespace {

// Four instructions per iteration, one of them a load and one a store.
void countedLoop(long iterations)
{
    uint32_t cell = 0;
    asm volatile(
        "1:\n\t"
        "ldr w9, [%[cell]]\n\t"
        "str w9, [%[cell]]\n\t"
        "subs %[n], %[n], #1\n\t"
        "b.ne 1b"
        : [n] "+r"(iterations)
        : [cell] "r"(&cell)
        : "w9", "memory", "cc");
}

// argb is libyuv's intermediate image, 4 bytes a pixel.
struct Frames {
    QRV_Image yuyv, rgb, gray, argb;
};

int throughTable(EnProcessBackend backend, Conversion conversion, const QRV_Image& source,
                 QRV_Image& destination)
{
    return CIpmFuncTable::Instance()->process(backend, EnIpmModule::Converter, static_cast<int>(conversion),
                                              &source, &destination, nullptr, nullptr);
}

// Each case does one conversion (or its memcpy) and returns 1 when it went through.
using Case = std::function<int(Frames&)>;

int kernelYuyv(Frames& f)
{
    yuyv422_to_rgb888_neon(f.yuyv.pixels(), f.rgb.pixels(), static_cast<int>(f.yuyv.width),
                           static_cast<int>(f.yuyv.height), false);
    return 1;
}

int kernelGray(Frames& f)
{
    rgb888_to_gray8_neon(f.rgb.pixels(), f.gray.pixels(), static_cast<int>(f.rgb.width),
                         static_cast<int>(f.rgb.height), false);
    return 1;
}

// libyuv's RAW is R, G, B in memory, as the library's RGB888; its RGB24 is B, G, R.
int libyuvYuyv(Frames& f)
{
    const int w = static_cast<int>(f.yuyv.width), h = static_cast<int>(f.yuyv.height);
    if (libyuv::YUY2ToARGB(f.yuyv.pixels(), 2 * w, f.argb.pixels(), 4 * w, w, h) != 0) return 0;
    return libyuv::ARGBToRAW(f.argb.pixels(), 4 * w, f.rgb.pixels(), 3 * w, w, h) == 0;
}

int libyuvGray(Frames& f)
{
    const int w = static_cast<int>(f.rgb.width), h = static_cast<int>(f.rgb.height);
    return libyuv::RAWToJ400(f.rgb.pixels(), 3 * w, f.gray.pixels(), w, w, h) == 0;
}

// memcpy moving as many bytes as a conversion reads plus writes: it copies half
// of them, reading and writing each (5 bytes a pixel for YUYV to RGB888, 4 for
// RGB888 to Gray8).
int copyBytes(Frames& f, size_t bytesPerPixel)
{
    const size_t bytes = static_cast<size_t>(f.yuyv.width) * f.yuyv.height * bytesPerPixel / 2;
    std::memcpy(f.rgb.pixels(), f.argb.pixels(), bytes);  // both hold at least 3 bytes a pixel
    return 1;
}

const struct {
    const char* name;
    Case run;
} kCases[] = {
    {"kernel_yuyv_to_rgb", kernelYuyv},
    {"kernel_rgb_to_gray", kernelGray},
    {"parallel_yuyv_to_rgb",
     [](Frames& f) {
         return throughTable(EnProcessBackend::CPU_Parallel, Conversion::YUV422_8_To_RGB888, f.yuyv, f.rgb);
     }},
    {"parallel_rgb_to_gray",
     [](Frames& f) {
         return throughTable(EnProcessBackend::CPU_Parallel, Conversion::RGB888_To_Gray8, f.rgb, f.gray);
     }},
    {"serial_yuyv_to_rgb",
     [](Frames& f) {
         return throughTable(EnProcessBackend::CPU_Serial, Conversion::YUV422_8_To_RGB888, f.yuyv, f.rgb);
     }},
    {"serial_rgb_to_gray",
     [](Frames& f) {
         return throughTable(EnProcessBackend::CPU_Serial, Conversion::RGB888_To_Gray8, f.rgb, f.gray);
     }},
    {"libyuv_yuyv_to_rgb", libyuvYuyv},
    {"libyuv_rgb_to_gray", libyuvGray},
    {"memcpy_yuyv_to_rgb", [](Frames& f) { return copyBytes(f, 5); }},
    {"memcpy_rgb_to_gray", [](Frames& f) { return copyBytes(f, 4); }},
};

// A strongly red pixel pair (V high) converted by the library and by libyuv's
// route must come out with the largest byte first, and gray from R, G, B must
// weigh the first byte most heavily after G.
int checkOrder()
{
    const uint8_t yuyv[8] = {128, 128, 128, 255, 128, 128, 128, 255};
    uint8_t ours[12], argb[16], raw[12];
    yuyv422_to_rgb888_neon(yuyv, ours, 4, 1, false);
    libyuv::YUY2ToARGB(yuyv, 8, argb, 16, 4, 1);
    libyuv::ARGBToRAW(argb, 16, raw, 12, 4, 1);
    const bool sameOrder = ours[0] > ours[2] && raw[0] > raw[2];
    const uint8_t red[12] = {255, 0, 0, 255, 0, 0, 255, 0, 0, 255, 0, 0};
    uint8_t grayOurs[4], grayYuv[4];
    rgb888_to_gray8_neon(red, grayOurs, 4, 1, false);
    libyuv::RAWToJ400(red, 12, grayYuv, 4, 4, 1);
    const bool sameGray = grayOurs[0] == grayYuv[0];
    std::printf(
        "byte order: library R=%u B=%u, YUY2ToARGB+ARGBToRAW R=%u B=%u; gray of red: %u and RAWToJ400 %u\n",
        ours[0], ours[2], raw[0], raw[2], grayOurs[0], grayYuv[0]);
    return sameOrder && sameGray ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "order") == 0) return checkOrder();
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s CASE WIDTH HEIGHT RUNS\n", argv[0]);
        return 2;
    }
    const std::string name = argv[1];
    const uint32_t width = static_cast<uint32_t>(std::atoi(argv[2]));
    const uint32_t height = static_cast<uint32_t>(std::atoi(argv[3]));
    const int runs = std::atoi(argv[4]);
    if (name == "loop") {
        for (int i = 0; i < runs; ++i) countedLoop(static_cast<long>(width) * height);
        return 0;
    }
    for (const auto& entry : kCases) {
        if (name != entry.name) continue;
        Frames frames{qrv_bench::filledImage(width, height, En_ImageFormat::YUV422_8),
                      qrv_bench::filledImage(width, height, En_ImageFormat::RGB888),
                      QRV_Image(width, height, En_ImageFormat::Gray8, true, 1),
                      QRV_Image(width, height * 4, En_ImageFormat::Gray8, true, 1)};
        // The table fills itself on first use; every case pays that once, so
        // the count by differences leaves it out everywhere alike.
        CIpmFuncTable::Instance()->getAlgorithmList(EnProcessBackend::CPU_Serial, EnIpmModule::Converter);
        for (int i = 0; i < runs; ++i) {
            if (entry.run(frames) != 1) {
                std::fprintf(stderr, "%s failed\n", argv[1]);
                return 1;
            }
        }
        return 0;
    }
    std::fprintf(stderr, "unknown case %s\n", argv[1]);
    return 2;
}
