// Throughput of the conversions, serial and parallel, beside a naive loop of
// the serial formula, libyuv and OpenCV (when the build found them), at three
// frame sizes. Every row reports megapixels per second and x_mem: its time
// over the time memcpy needs, in the same run, to move as many bytes as the
// conversion reads plus writes (the machine's memory limit for that work).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Converter/CCpuParaConverter.h"
#include "Converter/CCpuSerialConverter.h"
#include "QRV_Image.h"

#if defined(QRV_BENCH_LIBYUV)
#include <libyuv.h>
#endif
#if defined(QRV_BENCH_OPENCV)
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;

namespace {

// Time on this thread's CPU clock, so that the other work on a shared machine
// counts as little as possible.
double threadSeconds()
{
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

struct Size {
    uint32_t width, height;
};

const Size kSizes[] = {{640, 480}, {1920, 1080}, {3840, 2160}};

// A conversion's bytes per pixel in and out.
struct Traffic {
    size_t in, out;
};

QRV_Image makeFilled(Size size, En_ImageFormat format)
{
    QRV_Image image(size.width, size.height, format, true, 1);
    uint32_t state = 12345;
    for (size_t i = 0; i < image.dataSize; ++i) {
        state = state * 1664525u + 1013904223u;
        image.data[i] = static_cast<uint8_t>(state >> 24);
    }
    image.yuvLayout = static_cast<int32_t>(qrv_img::En_YuvLayout::YUYV);
    return image;
}

// Median time of memcpy over (in + out) / 2 bytes per pixel, which moves the
// same number of bytes as the conversion; measured once per byte count.
double memoryLimitSeconds(size_t bytes)
{
    static std::map<size_t, double> measured;
    const auto found = measured.find(bytes);
    if (found != measured.end()) return found->second;
    std::vector<uint8_t> from(bytes, 1);
    std::vector<uint8_t> to(bytes, 2);
    std::vector<double> times;
    for (int run = 0; run < 25; ++run) {
        const double start = threadSeconds();
        std::memcpy(to.data(), from.data(), bytes);
        benchmark::ClobberMemory();
        times.push_back(threadSeconds() - start);
    }
    std::nth_element(times.begin(), times.begin() + times.size() / 2, times.end());
    return measured[bytes] = times[times.size() / 2];
}

size_t equivalentCopyBytes(Size size, Traffic traffic)
{
    return static_cast<size_t>(size.width) * size.height * (traffic.in + traffic.out) / 2;
}

// Runs `work` in the benchmark loop and reports the rate and the share of
// the memory limit.
void measure(benchmark::State& state, Size size, Traffic traffic, const std::function<void()>& work)
{
    const double limit = memoryLimitSeconds(equivalentCopyBytes(size, traffic));
    work();
    const double start = threadSeconds();
    for (auto _ : state) {
        work();
        benchmark::ClobberMemory();
    }
    const double perIteration = (threadSeconds() - start) / static_cast<double>(state.iterations());
    const double pixels = static_cast<double>(size.width) * size.height;
    state.counters["px/s"] = benchmark::Counter(pixels, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["x_mem"] = perIteration / limit;
}

void memoryLimit(benchmark::State& state, Size size, Traffic traffic)
{
    const size_t bytes = equivalentCopyBytes(size, traffic);
    std::vector<uint8_t> from(bytes, 1);
    std::vector<uint8_t> to(bytes, 2);
    measure(state, size, traffic, [&] { std::memcpy(to.data(), from.data(), bytes); });
}

// The serial formulas written the plainest way: one pixel at a time, every
// term recomputed, YUYV and RGB order only.
uint8_t clampNaive(int value)
{
    return static_cast<uint8_t>(std::min(255, std::max(0, value)));
}

void naiveYuyvToRgb(const uint8_t* in, uint8_t* out, uint32_t width, uint32_t height)
{
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            const uint8_t* group = in + 2 * (static_cast<size_t>(y) * width + x / 2 * 2);
            const int c = 298 * std::max(group[x % 2 == 0 ? 0 : 2] - 16, 0);
            const int d = group[1] - 128;
            const int e = group[3] - 128;
            uint8_t* pixel = out + 3 * (static_cast<size_t>(y) * width + x);
            pixel[0] = clampNaive((c + 409 * e + 128) >> 8);
            pixel[1] = clampNaive((c - 100 * d - 208 * e + 128) >> 8);
            pixel[2] = clampNaive((c + 516 * d + 128) >> 8);
        }
    }
}

void naiveRgbToGray(const uint8_t* in, uint8_t* out, uint32_t width, uint32_t height)
{
    for (size_t i = 0; i < static_cast<size_t>(width) * height; ++i) {
        out[i] = static_cast<uint8_t>((77 * in[3 * i] + 150 * in[3 * i + 1] + 29 * in[3 * i + 2] + 128) >> 8);
    }
}

constexpr Traffic kYuvTraffic{2, 3};
constexpr Traffic kGrayTraffic{3, 1};

void registerAll()
{
    for (const Size size : kSizes) {
        const std::string suffix = "/" + std::to_string(size.width) + "x" + std::to_string(size.height);
        const auto add = [&](const std::string& name, auto function) {
            benchmark::RegisterBenchmark((name + suffix).c_str(), function)
                ->Unit(benchmark::kMillisecond);
        };

        add("yuyv_to_rgb/memory_limit", [size](benchmark::State& s) { memoryLimit(s, size, kYuvTraffic); });
        add("yuyv_to_rgb/serial", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::YUV422_8);
            QRV_Image destination(size.width, size.height, En_ImageFormat::RGB888, true, 1);
            CCpuSerialConverter converter;
            measure(s, size, kYuvTraffic,
                    [&] { converter.ConvertYUV422_8_To_RGB888(&source, &destination, nullptr, nullptr); });
        });
        add("yuyv_to_rgb/parallel", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::YUV422_8);
            QRV_Image destination(size.width, size.height, En_ImageFormat::RGB888, true, 1);
            CCpuParaConverter converter;
            measure(s, size, kYuvTraffic,
                    [&] { converter.ConvertYUV422_8_To_RGB888(&source, &destination, nullptr, nullptr); });
        });
        add("yuyv_to_rgb/naive_loop", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::YUV422_8);
            QRV_Image destination(size.width, size.height, En_ImageFormat::RGB888, true, 1);
            measure(s, size, kYuvTraffic, [&] {
                naiveYuyvToRgb(source.data.get(), destination.data.get(), size.width, size.height);
            });
        });
#if defined(QRV_BENCH_LIBYUV)
        add("yuyv_to_rgb/libyuv_two_step", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::YUV422_8);
            QRV_Image destination(size.width, size.height, En_ImageFormat::RGB888, true, 1);
            std::vector<uint8_t> argb(4 * static_cast<size_t>(size.width) * size.height);
            const int w = static_cast<int>(size.width);
            const int h = static_cast<int>(size.height);
            measure(s, size, kYuvTraffic, [&] {
                libyuv::YUY2ToARGB(source.data.get(), 2 * w, argb.data(), 4 * w, w, h);
                libyuv::ARGBToRGB24(argb.data(), 4 * w, destination.data.get(), 3 * w, w, h);
            });
        });
#endif
#if defined(QRV_BENCH_OPENCV)
        add("yuyv_to_rgb/opencv", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::YUV422_8);
            QRV_Image destination(size.width, size.height, En_ImageFormat::RGB888, true, 1);
            const int w = static_cast<int>(size.width);
            const int h = static_cast<int>(size.height);
            const cv::Mat in(h, w, CV_8UC2, source.data.get());
            cv::Mat out(h, w, CV_8UC3, destination.data.get());
            measure(s, size, kYuvTraffic, [&] { cv::cvtColor(in, out, cv::COLOR_YUV2RGB_YUYV); });
        });
#endif

        add("rgb_to_gray/memory_limit", [size](benchmark::State& s) { memoryLimit(s, size, kGrayTraffic); });
        add("rgb_to_gray/serial", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::RGB888);
            QRV_Image destination(size.width, size.height, En_ImageFormat::Gray8, true, 1);
            CCpuSerialConverter converter;
            measure(s, size, kGrayTraffic,
                    [&] { converter.ConvertRGB888_To_Gray8(&source, &destination, nullptr, nullptr); });
        });
        add("rgb_to_gray/parallel", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::RGB888);
            QRV_Image destination(size.width, size.height, En_ImageFormat::Gray8, true, 1);
            CCpuParaConverter converter;
            measure(s, size, kGrayTraffic,
                    [&] { converter.ConvertRGB888_To_Gray8(&source, &destination, nullptr, nullptr); });
        });
        add("rgb_to_gray/naive_loop", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::RGB888);
            QRV_Image destination(size.width, size.height, En_ImageFormat::Gray8, true, 1);
            measure(s, size, kGrayTraffic, [&] {
                naiveRgbToGray(source.data.get(), destination.data.get(), size.width, size.height);
            });
        });
#if defined(QRV_BENCH_LIBYUV)
        add("rgb_to_gray/libyuv_RGB24ToJ400", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::RGB888);
            QRV_Image destination(size.width, size.height, En_ImageFormat::Gray8, true, 1);
            const int w = static_cast<int>(size.width);
            const int h = static_cast<int>(size.height);
            measure(s, size, kGrayTraffic, [&] {
                libyuv::RGB24ToJ400(source.data.get(), 3 * w, destination.data.get(), w, w, h);
            });
        });
#endif
#if defined(QRV_BENCH_OPENCV)
        add("rgb_to_gray/opencv", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::RGB888);
            QRV_Image destination(size.width, size.height, En_ImageFormat::Gray8, true, 1);
            const int w = static_cast<int>(size.width);
            const int h = static_cast<int>(size.height);
            const cv::Mat in(h, w, CV_8UC3, source.data.get());
            cv::Mat out(h, w, CV_8UC1, destination.data.get());
            measure(s, size, kGrayTraffic, [&] { cv::cvtColor(in, out, cv::COLOR_RGB2GRAY); });
        });
#endif
    }
}

}  // namespace

int main(int argc, char** argv)
{
#if defined(QRV_BENCH_OPENCV)
    cv::setNumThreads(1);
#endif
    registerAll();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
