// First use of the function table in a fresh process. Each scenario exits 0
// when what it checks holds and prints what went wrong otherwise.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "CIpmFuncTable.h"
#include "LogCapture.h"

using ipmcommon::CIpmFuncTable;
using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;

namespace {

int fail(const char* what)
{
    std::fprintf(stderr, "FAILED: %s\n", what);
    return 1;
}

int fillLog()
{
    qrvtest::printRecordsToStdout();
    CIpmFuncTable::Instance();
    return 0;
}

// Records the "called" lines of the fill in a counter.
std::atomic<int> fillLines{0};

void countFillLines()
{
    qrvlog::QRV_Log::Instance()->setSink([](const qrvlog::LogRecord& record) {
        if (record.file == "CIpmFuncTable" && record.text == L"called") ++fillLines;
    });
}

int fillOnce()
{
    countFillLines();
    qrv_img::QRV_Image image(2, 2, qrv_img::En_ImageFormat::Gray8, true, 1);
    CIpmFuncTable::Instance();
    const int afterFirst = fillLines.load();
    CIpmFuncTable::Instance()->process(EnProcessBackend::CPU_Serial, EnIpmModule::Scaler, 0, &image, &image,
                                       nullptr, nullptr);
    CIpmFuncTable::Instance()->getAlgorithmList(EnProcessBackend::CPU_Serial, EnIpmModule::Converter);
    CIpmFuncTable::Instance()->ensureInitialized_();
    if (afterFirst != 4) return fail("the first use writes the four called lines");
    if (fillLines != 4) return fail("later uses write none of the fill's lines");
    return 0;
}

int race()
{
    countFillLines();
    constexpr int kThreads = 8;
    std::atomic<int> ready{0};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            qrv_img::QRV_Image image(4, 4, qrv_img::En_ImageFormat::Gray8, true, 1);
            ++ready;
            while (ready < kThreads) {
            }
            // Every thread's first call is a dispatch that races the fill.
            const int code = CIpmFuncTable::Instance()->process(static_cast<EnProcessBackend>(t % 5),
                                                                EnIpmModule::Splitter, t, &image, &image,
                                                                nullptr, nullptr);
            if (code != ipmcommon::result::NoFunction) ++wrong;
        });
    }
    for (auto& thread : threads) thread.join();
    if (wrong != 0) return fail("every racing dispatch returns the table's answer");
    if (fillLines != 4) return fail("the fill ran exactly once");
    return 0;
}

int fillThrows()
{
    // The logger's sink throws at the fill's first line: the exception
    // leaves the fill, so the fill is not done.
    std::atomic<int> attempts{0};
    qrvlog::QRV_Log::Instance()->setSink([&attempts](const qrvlog::LogRecord& record) {
        if (record.function == "void ipmcommon::CIpmFuncTable::InitScalerFuncTable()" && attempts++ == 0) {
            throw std::runtime_error("sink refused");
        }
    });
    try {
        CIpmFuncTable::Instance();
        return fail("the exception reaches the caller of Instance");
    } catch (const std::runtime_error& error) {
        if (std::strcmp(error.what(), "sink refused") != 0) return fail("the caller sees the fill's own exception");
    }
    countFillLines();
    qrv_img::QRV_Image image(2, 2, qrv_img::En_ImageFormat::Gray8, true, 1);
    const int code = CIpmFuncTable::Instance()->process(EnProcessBackend::CPU_Serial, EnIpmModule::Scaler, 0,
                                                        &image, &image, nullptr, nullptr);
    if (code != ipmcommon::result::NoFunction) return fail("the table works after the repeated fill");
    if (fillLines != 4) return fail("the next use runs the whole fill again");
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string name = argc > 1 ? argv[1] : "";
    if (name == "fill-log") return fillLog();
    if (name == "fill-once") return fillOnce();
    if (name == "race") return race();
    if (name == "fill-throws") return fillThrows();
    std::fprintf(stderr, "unknown scenario '%s'\n", name.c_str());
    return 2;
}
