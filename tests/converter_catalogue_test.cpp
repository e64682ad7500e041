#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "CIpmFuncTable.h"
#include "Converter/CConverter.h"
#include "LogCapture.h"
#include "Subprocess.h"
#include "TestImages.h"

using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using qrvtest::makeImage;
using qrvtest::pixelBytes;
namespace result = ipmcommon::result;

namespace {

// Counts the allocations made through the global operator new.
std::atomic<long> allocations{0};

}  // namespace

// Out of line, so that the compiler does not pair a new expression with the
// free() inside.
__attribute__((noinline)) void* operator new(size_t size)
{
    ++allocations;
    if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}

__attribute__((noinline)) void operator delete(void* memory) noexcept
{
    std::free(memory);
}

__attribute__((noinline)) void operator delete(void* memory, size_t) noexcept
{
    std::free(memory);
}

namespace {

const std::string kLogFile = "Converter/CConverter";
const std::string kSerialGetter = "std::shared_ptr<CCpuSerialConverter> CConverter::getCpuSerial_()";
const std::string kParallelGetter = "std::shared_ptr<CCpuParaConverter> CConverter::getCpuParallel_()";

std::vector<qrvlog::LogRecord> runScenario(const std::string& name)
{
    const auto run = qrvtest::runProcess({CONVERTER_SCENARIO, name});
    EXPECT_EQ(run.exitCode, 0) << name << "\nstdout:\n" << run.out << "\nstderr:\n" << run.err;
    return qrvtest::parseRecords(run.out);
}

std::string sourceLine(int line)
{
    std::ifstream in(QRV_SOURCE_DIR "/ipm/Converter/CConverter.cpp");
    std::string text;
    for (int i = 0; i < line && std::getline(in, text); ++i) {
    }
    return text;
}

// Functions of the catalogue's log records, in order.
std::vector<std::string> catalogueFunctions(const std::vector<qrvlog::LogRecord>& records)
{
    std::vector<std::string> functions;
    for (const auto& record : records) {
        if (record.file == kLogFile) functions.push_back(record.function);
    }
    return functions;
}

// Images for each conversion, the sources filled at random.
struct Images {
    QRV_Image yuv = makeImage(16, 3, En_ImageFormat::YUV422_8);
    QRV_Image rgb = makeImage(16, 3, En_ImageFormat::RGB888);
    QRV_Image bgr = makeImage(16, 3, En_ImageFormat::BGR888);
    QRV_Image gray = makeImage(16, 3, En_ImageFormat::Gray8);
    QRV_Image colourSource = makeImage(16, 3, En_ImageFormat::RGB888);

    explicit Images(uint32_t seed)
    {
        yuv.yuvLayout = 11;
        qrvtest::fillRandom(yuv, seed);
        qrvtest::fillRandom(colourSource, seed + 1);
    }

    // Runs conversion `index` through `run` and returns the bytes it wrote.
    template <typename Run>
    std::vector<uint8_t> convert(int index, Run run)
    {
        switch (index) {
        case 0:
            EXPECT_EQ(run(&yuv, &rgb), result::Success);
            return pixelBytes(rgb);
        case 1:
            EXPECT_EQ(run(&yuv, &bgr), result::Success);
            return pixelBytes(bgr);
        default:
            EXPECT_EQ(run(&colourSource, &gray), result::Success);
            return pixelBytes(gray);
        }
    }
};

template <typename Converter>
int directCall(Converter& converter, int index, const QRV_Image* source, QRV_Image* destination)
{
    switch (index) {
    case 0:
        return converter.ConvertYUV422_8_To_RGB888(source, destination, nullptr, nullptr);
    case 1:
        return converter.ConvertYUV422_8_To_BGR888(source, destination, nullptr, nullptr);
    default:
        return converter.ConvertRGB888_To_Gray8(source, destination, nullptr, nullptr);
    }
}

}  // namespace

TEST(ConverterCatalogue, ConstructionWritesEightTraceLinesInOrder)
{
    const auto records = runScenario("construct");
    const std::vector<std::string> expected = {
        "CConverter::CConverter()",
        "void CConverter::AddFunctions()",
        "IpmFn CConverter::makeCpuSerial_(F)",
        "IpmFn CConverter::makeCpuSerial_(F)",
        "IpmFn CConverter::makeCpuSerial_(F)",
        "IpmFn CConverter::makeCpuParallel_(F)",
        "IpmFn CConverter::makeCpuParallel_(F)",
        "IpmFn CConverter::makeCpuParallel_(F)",
    };
    EXPECT_EQ(catalogueFunctions(records), expected);
    for (const auto& record : records) {
        EXPECT_EQ(record.file.rfind("Converter/", 0), 0u)
            << "nothing but the catalogue logs: " << record.file;
        EXPECT_EQ(record.level, qrvlog::LogLevel::Trace);
        EXPECT_EQ(record.text, L"Called");
        EXPECT_NE(sourceLine(record.line).find("IPM_LOG(Trace, L\"Called\")"), std::string::npos)
            << "line " << record.line << " is the log call";
    }
}

TEST(ConverterCatalogue, WrappersOfOneBackendNeverReachTheOtherConverter)
{
    const struct {
        const char* scenario;
        const std::string& getter;
        const std::string& otherGetter;
    } cases[] = {{"serial-wrappers", kSerialGetter, kParallelGetter},
                 {"parallel-wrappers", kParallelGetter, kSerialGetter}};
    for (const auto& c : cases) {
        const auto functions = catalogueFunctions(runScenario(c.scenario));
        EXPECT_EQ(std::count(functions.begin(), functions.end(), c.getter), 3) << c.scenario;
        EXPECT_EQ(std::count(functions.begin(), functions.end(), c.otherGetter), 0) << c.scenario;
    }
}

TEST(ConverterCatalogue, TableFillBuildsTheCatalogueInsideTheConverterStep)
{
    std::vector<std::string> order;
    for (const auto& record : runScenario("table-fill")) {
        if (record.file == "CIpmFuncTable" && record.text == L"called") order.push_back(record.function);
        if (record.function == "CConverter::CConverter()") order.push_back("catalogue");
    }
    const std::vector<std::string> expected = {"void ipmcommon::CIpmFuncTable::InitFuncTable()",
                                               "void ipmcommon::CIpmFuncTable::InitConverterFuncTable()",
                                               "catalogue",
                                               "void ipmcommon::CIpmFuncTable::InitScalerFuncTable()",
                                               "void ipmcommon::CIpmFuncTable::InitUserCustomFuncTable()"};
    EXPECT_EQ(order, expected);
}

TEST(ConverterCatalogue, ListsHoldThreeRecordsPerCpuBackend)
{
    const CConverter* catalogue = CConverter::Instance();
    const std::pair<EnProcessBackend, const wchar_t*> lists[] = {
        {EnProcessBackend::CPU_Serial, L"CPU Serial"}, {EnProcessBackend::CPU_Parallel, L"CPU Parallel"}};
    const wchar_t* conversions[] = {L"YUV422 -> RGB888", L"YUV422 -> BGR888", L"RGB888 -> Gray8"};
    for (const auto& [backend, suffix] : lists) {
        const auto& records = catalogue->getAlgList(backend);
        ASSERT_EQ(records.size(), 3u);
        for (int32_t i = 0; i < 3; ++i) {
            EXPECT_EQ(records[i].index, i);
            EXPECT_EQ(records[i].name, std::wstring(conversions[i]) + L" (" + suffix + L")");
            EXPECT_TRUE(records[i].func);
        }
    }
    for (int backend : {2, 3, 4, 5, -1}) {
        EXPECT_TRUE(catalogue->getAlgList(static_cast<EnProcessBackend>(backend)).empty()) << backend;
    }
}

TEST(ConverterCatalogue, EachWrapperCallObtainsItsConverterOnce)
{
    CConverter* catalogue = CConverter::Instance();
    const EnProcessBackend backends[] = {EnProcessBackend::CPU_Serial, EnProcessBackend::CPU_Parallel};
    for (EnProcessBackend backend : backends) {
        const std::string& getter = backend == EnProcessBackend::CPU_Serial ? kSerialGetter : kParallelGetter;
        Images images(1);
        for (int index = 0; index < 3; ++index) {
            qrvtest::LogCapture capture;
            images.convert(index, [&](const QRV_Image* s, QRV_Image* d) {
                return catalogue->getAlgList(backend)[index].func(s, d, nullptr, nullptr);
            });
            EXPECT_EQ(catalogueFunctions(capture.records()), std::vector<std::string>{getter}) << index;
        }
    }
    EXPECT_EQ(catalogue->getCpuSerial_(), catalogue->getCpuSerial_());
    EXPECT_EQ(catalogue->getCpuParallel_(), catalogue->getCpuParallel_());
}

TEST(ConverterCatalogue, UnknownConversionYieldsFourAfterObtainingTheConverter)
{
    CConverter* catalogue = CConverter::Instance();
    Images images(2);
    for (int value : {3, -1, 1000}) {
        const auto conversion = static_cast<CConverter::F>(value);
        const IpmFn wrappers[] = {catalogue->makeCpuSerial_(conversion),
                                  catalogue->makeCpuParallel_(conversion)};
        for (const IpmFn& wrapper : wrappers) {
            qrvtest::LogCapture capture;
            EXPECT_EQ(wrapper(&images.yuv, &images.rgb, nullptr, nullptr), result::NoFunction) << value;
            EXPECT_EQ(catalogueFunctions(capture.records()).size(), 1u);
        }
    }
}

TEST(ConverterCatalogue, WrappersPassTheConvertersCodesThrough)
{
    const CConverter* catalogue = CConverter::Instance();
    Images images(3);
    const IpmFn& serialGray = catalogue->getAlgList(EnProcessBackend::CPU_Serial)[2].func;
    const IpmFn& parallelYuv = catalogue->getAlgList(EnProcessBackend::CPU_Parallel)[0].func;
    EXPECT_EQ(serialGray(&images.yuv, &images.gray, nullptr, nullptr), result::Mismatch);
    EXPECT_EQ(parallelYuv(&images.yuv, nullptr, nullptr, nullptr), result::FormatMismatch);
    EXPECT_EQ(parallelYuv(nullptr, &images.rgb, nullptr, nullptr), result::MissingImage);
}

TEST(ConverterCatalogue, WrappersAreCopiedWithoutAllocating)
{
    const CConverter* catalogue = CConverter::Instance();
    for (EnProcessBackend backend : {EnProcessBackend::CPU_Serial, EnProcessBackend::CPU_Parallel}) {
        for (const AlgEntry& entry : catalogue->getAlgList(backend)) {
            const long before = allocations.load();
            IpmFn copy = entry.func;
            EXPECT_EQ(allocations.load(), before);
            EXPECT_TRUE(copy);
        }
    }
}

TEST(ConverterCatalogue, TableDispatchGivesTheSameBytesAsDirectCalls)
{
    ipmcommon::CIpmFuncTable* table = ipmcommon::CIpmFuncTable::Instance();
    CCpuSerialConverter serial;
    CCpuParaConverter parallel;
    for (int index = 0; index < 3; ++index) {
        std::vector<uint8_t> bytes[2];
        const EnProcessBackend backends[2] = {EnProcessBackend::CPU_Serial, EnProcessBackend::CPU_Parallel};
        for (int b = 0; b < 2; ++b) {
            Images throughTable(10 + index);
            Images direct(10 + index);
            bytes[b] = throughTable.convert(index, [&](const QRV_Image* s, QRV_Image* d) {
                return table->process(backends[b], EnIpmModule::Converter, index, s, d, nullptr, nullptr);
            });
            const auto expected = direct.convert(index, [&](const QRV_Image* s, QRV_Image* d) {
                return b == 0 ? directCall(serial, index, s, d) : directCall(parallel, index, s, d);
            });
            EXPECT_EQ(bytes[b], expected) << "backend " << b << " index " << index;
        }
        // The YUV conversions use different arithmetic; the gray ones agree.
        EXPECT_EQ(bytes[0] == bytes[1], index == 2) << index;
    }
}

TEST(ConverterCatalogue, ConcurrentFirstWrapperCallsAgreeWithSingleThreadedResults)
{
    runScenario("concurrent-wrappers");
}
