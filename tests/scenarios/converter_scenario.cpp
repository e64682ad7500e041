// First use of the converter catalogue in a fresh process. Every scenario
// prints the log records to stdout for the test to read, and exits 0 when the
// calls it makes return what it expects.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "CIpmFuncTable.h"
#include "Converter/CConverter.h"
#include "LogCapture.h"
#include "TestImages.h"

using ipmcommon::EnProcessBackend;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;

namespace {

int fail(const char* what)
{
    std::fprintf(stderr, "FAILED: %s\n", what);
    return 1;
}

// Runs the three wrappers of one backend on valid images.
int callWrappers(EnProcessBackend backend)
{
    const auto& records = CConverter::Instance()->getAlgList(backend);
    QRV_Image yuv(8, 2, En_ImageFormat::YUV422_8, true, 1);
    yuv.yuvLayout = 10;
    QRV_Image rgb(8, 2, En_ImageFormat::RGB888, true, 1);
    QRV_Image bgr(8, 2, En_ImageFormat::BGR888, true, 1);
    QRV_Image gray(8, 2, En_ImageFormat::Gray8, true, 1);
    if (records.size() != 3) return fail("three records");
    if (records[0].func(&yuv, &rgb, nullptr, nullptr) != 1) return fail("YUV to RGB");
    if (records[1].func(&yuv, &bgr, nullptr, nullptr) != 1) return fail("YUV to BGR");
    if (records[2].func(&rgb, &gray, nullptr, nullptr) != 1) return fail("RGB to gray");
    return 0;
}

// Eight threads make the process's first wrapper calls at once, every
// conversion of both backends on their own images, and must get what one
// thread gets afterwards.
int concurrentWrappers()
{
    constexpr int kThreads = 8;
    constexpr int kRounds = 6;
    const auto convertOnce = [](int call, std::vector<uint8_t>& out) {
        const EnProcessBackend backend =
            call % 2 == 0 ? EnProcessBackend::CPU_Serial : EnProcessBackend::CPU_Parallel;
        const int index = call / 2 % 3;
        QRV_Image yuv = qrvtest::makeImage(24, 4, En_ImageFormat::YUV422_8);
        yuv.yuvLayout = 10 + index;
        qrvtest::fillRandom(yuv, static_cast<uint32_t>(index));
        QRV_Image rgb = qrvtest::makeImage(24, 4, En_ImageFormat::RGB888);
        qrvtest::fillRandom(rgb, 100);
        QRV_Image destination = qrvtest::makeImage(24, 4,
                                                   index == 0   ? En_ImageFormat::RGB888
                                                   : index == 1 ? En_ImageFormat::BGR888
                                                                : En_ImageFormat::Gray8);
        const IpmFn& func = CConverter::Instance()->getAlgList(backend)[index].func;
        const int code = func(index == 2 ? &rgb : &yuv, &destination, nullptr, nullptr);
        out = qrvtest::pixelBytes(destination);
        return code;
    };
    std::atomic<int> ready{0};
    std::atomic<int> refused{0};
    std::vector<std::vector<uint8_t>> results(kThreads * kRounds);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ++ready;
            while (ready < kThreads) {
            }
            for (int round = 0; round < kRounds; ++round) {
                if (convertOnce(t + round, results[t * kRounds + round]) != 1) ++refused;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    if (refused != 0) return fail("every concurrent call succeeds");
    for (int t = 0; t < kThreads; ++t) {
        for (int round = 0; round < kRounds; ++round) {
            std::vector<uint8_t> alone;
            convertOnce(t + round, alone);
            if (alone != results[t * kRounds + round])
                return fail("concurrent results equal single-threaded ones");
        }
    }
    return 0;
}

// Counts the records of one source file; nothing is printed.
std::atomic<int> recordsOfFile{0};

void countRecordsOf(const std::string& file)
{
    qrvlog::QRV_Log::Instance()->setSink([file](const qrvlog::LogRecord& record) {
        if (record.file == file) ++recordsOfFile;
    });
}

// Of the serial conversions only YUV to RGB888 obtains the environment, whose
// first use writes the environment report.
int serialEnvironment()
{
    countRecordsOf("CIpmEnv");
    QRV_Image yuv(8, 2, En_ImageFormat::YUV422_8, true, 1);
    yuv.yuvLayout = 10;
    QRV_Image rgb(8, 2, En_ImageFormat::RGB888, true, 1);
    QRV_Image bgr(8, 2, En_ImageFormat::BGR888, true, 1);
    QRV_Image gray(8, 2, En_ImageFormat::Gray8, true, 1);
    CCpuSerialConverter converter;
    if (converter.ConvertYUV422_8_To_BGR888(&yuv, &bgr, nullptr, nullptr) != 1) return fail("YUV to BGR");
    if (converter.ConvertRGB888_To_Gray8(&rgb, &gray, nullptr, nullptr) != 1) return fail("RGB to gray");
    if (recordsOfFile != 0) return fail("BGR and gray conversions leave the environment alone");
    if (converter.ConvertYUV422_8_To_RGB888(&yuv, nullptr, nullptr, nullptr) != 8)
        return fail("null destination");
    if (recordsOfFile == 0) return fail("YUV to RGB obtains the environment, even for a call it refuses");
    return 0;
}

// Runs one parallel conversion and prints its code, the number of its trace
// lines and whether the destination kept its bytes: how the SIMD check
// answers on the processor this runs on.
int parallelCode()
{
    countRecordsOf("Converter/CCpuParaConverter");
    QRV_Image yuv(8, 2, En_ImageFormat::YUV422_8, true, 1);
    yuv.yuvLayout = 10;
    QRV_Image rgb(8, 2, En_ImageFormat::RGB888, true, 1);
    std::memset(rgb.data.get(), 0x77, rgb.dataSize);
    CCpuParaConverter converter;
    const int code = converter.ConvertYUV422_8_To_RGB888(&yuv, &rgb, nullptr, nullptr);
    bool untouched = true;
    for (size_t i = 0; i < rgb.dataSize; ++i) untouched = untouched && rgb.data[i] == 0x77;
    std::printf("code=%d traces=%d untouched=%d\n", code, recordsOfFile.load(), untouched ? 1 : 0);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string name = argc > 1 ? argv[1] : "";
    if (name == "serial-environment") return serialEnvironment();
    if (name == "parallel-code") return parallelCode();
    qrvtest::printRecordsToStdout();
    if (name == "construct") {
        CConverter::Instance();
        return 0;
    }
    if (name == "serial-wrappers") return callWrappers(EnProcessBackend::CPU_Serial);
    if (name == "parallel-wrappers") return callWrappers(EnProcessBackend::CPU_Parallel);
    if (name == "concurrent-wrappers") return concurrentWrappers();
    if (name == "table-fill") {
        ipmcommon::CIpmFuncTable::Instance();
        return 0;
    }
    std::fprintf(stderr, "unknown scenario '%s'\n", name.c_str());
    return 2;
}
