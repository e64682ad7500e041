// Throughput of the conversions, serial and parallel, and of each row body of
// the kernels on its own, beside a naive loop of the serial formula, libyuv and
// OpenCV (when the build found them), at three frame sizes. Each conversion
// and size also has a memory_limit row: memcpy moving as many bytes as the
// conversion reads plus writes (it copies half of that number, reading and
// writing each byte). After the runs a summary gives every row's median CPU
// time, megapixels per second and time over its memory limit, all from the
// same run.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "BenchImage.h"
#include "Converter/CCpuParaConverter.h"
#include "Converter/CCpuSerialConverter.h"
#include "CpuConvertRows.h"
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
    return qrv_bench::filledImage(size.width, size.height, format);
}

// Runs `work` in the benchmark loop and reports pixels per second.
void measure(benchmark::State& state, Size size, const std::function<void()>& work)
{
    work();
    for (auto _ : state) {
        work();
        benchmark::ClobberMemory();
    }
    const double pixels = static_cast<double>(size.width) * size.height;
    state.counters["px/s"] = benchmark::Counter(pixels, benchmark::Counter::kIsIterationInvariantRate);
}

void memoryLimit(benchmark::State& state, Size size, Traffic traffic)
{
    const size_t bytes = static_cast<size_t>(size.width) * size.height * (traffic.in + traffic.out) / 2;
    std::vector<uint8_t> from(bytes, 1);
    std::vector<uint8_t> to(bytes, 2);
    measure(state, size, [&] { std::memcpy(to.data(), from.data(), bytes); });
}

// Prints, after the usual output, one table of medians (or single runs) per
// conversion and size, with each row's time over its memory_limit row.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
            const std::string name = run.run_name.str();
            if (times_.find(name) == times_.end()) order_.push_back(name);
            times_[name] = run.GetAdjustedCPUTime();
        }
    }

    void Finalize() override
    {
        ConsoleReporter::Finalize();
        std::printf("\n%-44s %10s %10s %10s\n", "conversion/implementation/size", "ms", "Mpx/s", "x memory");
        for (const std::string& name : order_) {
            const size_t first = name.find('/');
            const size_t last = name.rfind('/');
            const std::string limit = name.substr(0, first) + "/memory_limit" + name.substr(last);
            const std::string size = name.substr(last + 1);
            const double pixels = std::stod(size) * std::stod(size.substr(size.find('x') + 1));
            const double ms = times_[name];
            const auto found = times_.find(limit);
            const double ratio = found == times_.end() ? 0.0 : ms / found->second;
            std::printf("%-44s %10.3f %10.0f %10.2f\n", name.c_str(), ms, pixels / (ms * 1e3), ratio);
        }
    }

private:
    std::vector<std::string> order_;
    std::map<std::string, double> times_;
};

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

// The kernels' row bodies, called directly so that each is measured whichever
// one the library would choose; every frame width here is a multiple of their
// blocks.
struct RowBody {
    const char* name;
    void (*yuv)(const uint8_t*, uint8_t*, int, bool, int);
    void (*gray)(const uint8_t*, uint8_t*, int, bool);
};

std::vector<RowBody> rowBodies()
{
    std::vector<RowBody> bodies;
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx2")) {
        bodies.push_back(
            {"kernel_avx2", qrv_kernel::avx2::yuv422ToRgb888Row, qrv_kernel::avx2::rgb888ToGray8Row});
    }
    bodies.push_back(
        {"kernel_simde", qrv_kernel::neon::yuv422ToRgb888Row, qrv_kernel::neon::rgb888ToGray8Row});
#else
    bodies.push_back(
        {"kernel_neon", qrv_kernel::neon::yuv422ToRgb888Row, qrv_kernel::neon::rgb888ToGray8Row});
#endif
    return bodies;
}

constexpr Traffic kYuvTraffic{2, 3};
constexpr Traffic kGrayTraffic{3, 1};

void registerAll()
{
    for (const Size size : kSizes) {
        const std::string suffix = "/" + std::to_string(size.width) + "x" + std::to_string(size.height);
        const auto add = [&](const std::string& name, auto function) {
            benchmark::RegisterBenchmark((name + suffix).c_str(), function)->Unit(benchmark::kMillisecond);
        };

        add("yuyv_to_rgb/memory_limit", [size](benchmark::State& s) { memoryLimit(s, size, kYuvTraffic); });
        add("yuyv_to_rgb/serial", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::YUV422_8);
            QRV_Image destination(size.width, size.height, En_ImageFormat::RGB888, true, 1);
            CCpuSerialConverter converter;
            measure(s, size,
                    [&] { converter.ConvertYUV422_8_To_RGB888(&source, &destination, nullptr, nullptr); });
        });
        add("yuyv_to_rgb/parallel", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::YUV422_8);
            QRV_Image destination(size.width, size.height, En_ImageFormat::RGB888, true, 1);
            CCpuParaConverter converter;
            measure(s, size,
                    [&] { converter.ConvertYUV422_8_To_RGB888(&source, &destination, nullptr, nullptr); });
        });
        for (const RowBody& body : rowBodies()) {
            add(std::string("yuyv_to_rgb/") + body.name, [size, body](benchmark::State& s) {
                const QRV_Image source = makeFilled(size, En_ImageFormat::YUV422_8);
                QRV_Image destination(size.width, size.height, En_ImageFormat::RGB888, true, 1);
                measure(s, size, [&] {
                    for (uint32_t y = 0; y < size.height; ++y) {
                        body.yuv(source.data.get() + 2 * static_cast<size_t>(size.width) * y,
                                 destination.data.get() + 3 * static_cast<size_t>(size.width) * y,
                                 static_cast<int>(size.width), false, 0);
                    }
                });
            });
        }
        add("yuyv_to_rgb/naive_loop", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::YUV422_8);
            QRV_Image destination(size.width, size.height, En_ImageFormat::RGB888, true, 1);
            measure(s, size, [&] {
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
            measure(s, size, [&] {
                libyuv::YUY2ToARGB(source.data.get(), 2 * w, argb.data(), 4 * w, w, h);
                // libyuv's RAW is R, G, B in memory, the library's RGB888.
                libyuv::ARGBToRAW(argb.data(), 4 * w, destination.data.get(), 3 * w, w, h);
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
            measure(s, size, [&] { cv::cvtColor(in, out, cv::COLOR_YUV2RGB_YUYV); });
        });
#endif

        add("rgb_to_gray/memory_limit", [size](benchmark::State& s) { memoryLimit(s, size, kGrayTraffic); });
        add("rgb_to_gray/serial", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::RGB888);
            QRV_Image destination(size.width, size.height, En_ImageFormat::Gray8, true, 1);
            CCpuSerialConverter converter;
            measure(s, size,
                    [&] { converter.ConvertRGB888_To_Gray8(&source, &destination, nullptr, nullptr); });
        });
        add("rgb_to_gray/parallel", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::RGB888);
            QRV_Image destination(size.width, size.height, En_ImageFormat::Gray8, true, 1);
            CCpuParaConverter converter;
            measure(s, size,
                    [&] { converter.ConvertRGB888_To_Gray8(&source, &destination, nullptr, nullptr); });
        });
        for (const RowBody& body : rowBodies()) {
            add(std::string("rgb_to_gray/") + body.name, [size, body](benchmark::State& s) {
                const QRV_Image source = makeFilled(size, En_ImageFormat::RGB888);
                QRV_Image destination(size.width, size.height, En_ImageFormat::Gray8, true, 1);
                measure(s, size, [&] {
                    for (uint32_t y = 0; y < size.height; ++y) {
                        body.gray(source.data.get() + 3 * static_cast<size_t>(size.width) * y,
                                  destination.data.get() + static_cast<size_t>(size.width) * y,
                                  static_cast<int>(size.width), false);
                    }
                });
            });
        }
        add("rgb_to_gray/naive_loop", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::RGB888);
            QRV_Image destination(size.width, size.height, En_ImageFormat::Gray8, true, 1);
            measure(s, size, [&] {
                naiveRgbToGray(source.data.get(), destination.data.get(), size.width, size.height);
            });
        });
#if defined(QRV_BENCH_LIBYUV)
        add("rgb_to_gray/libyuv_RGB24ToJ400", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::RGB888);
            QRV_Image destination(size.width, size.height, En_ImageFormat::Gray8, true, 1);
            const int w = static_cast<int>(size.width);
            const int h = static_cast<int>(size.height);
            measure(s, size,
                    [&] { libyuv::RGB24ToJ400(source.data.get(), 3 * w, destination.data.get(), w, w, h); });
        });
        add("rgb_to_gray/libyuv_RAWToJ400", [size](benchmark::State& s) {
            const QRV_Image source = makeFilled(size, En_ImageFormat::RGB888);
            QRV_Image destination(size.width, size.height, En_ImageFormat::Gray8, true, 1);
            const int w = static_cast<int>(size.width);
            const int h = static_cast<int>(size.height);
            measure(s, size,
                    [&] { libyuv::RAWToJ400(source.data.get(), 3 * w, destination.data.get(), w, w, h); });
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
            measure(s, size, [&] { cv::cvtColor(in, out, cv::COLOR_RGB2GRAY); });
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
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
