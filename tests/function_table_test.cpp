#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "CIpmFuncTable.h"
#include "LogCapture.h"
#include "Subprocess.h"

using ipmcommon::CIpmFuncTable;
using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
namespace result = ipmcommon::result;

namespace {

EnProcessBackend backend(int value) { return static_cast<EnProcessBackend>(value); }
EnIpmModule module(int value) { return static_cast<EnIpmModule>(value); }

IpmFn returning(int code)
{
    return [code](const QRV_Image*, QRV_Image*, void*, void*) { return code; };
}

// Each test files its functions under its own index range, so the suite
// shares one table without the tests seeing each other's entries.
class FunctionTable : public ::testing::Test {
protected:
    CIpmFuncTable* table = CIpmFuncTable::Instance();
    QRV_Image src{2, 2, En_ImageFormat::RGB888, true, 1};
    QRV_Image dst{2, 2, En_ImageFormat::Gray8, true, 1};
};

}  // namespace

TEST(FunctionTableVocabulary, RangeChecksAcceptExactlyTheEnumerations)
{
    for (int v : {0, 1, 2, 3, 4}) EXPECT_TRUE(CIpmFuncTable::isValidBackendIndex_(v)) << v;
    for (int v : {5, -1, INT32_MIN, INT32_MAX}) EXPECT_FALSE(CIpmFuncTable::isValidBackendIndex_(v)) << v;
    for (int v : {0, 1, 2, 3}) EXPECT_TRUE(CIpmFuncTable::isValidModuleIndex_(v)) << v;
    for (int v : {4, -1, INT32_MIN}) EXPECT_FALSE(CIpmFuncTable::isValidModuleIndex_(v)) << v;
}

TEST(FunctionTableVocabulary, DisplayNamesInValueOrderFromOneObject)
{
    const std::vector<std::wstring> backends = {L"CPU Serial", L"CPU Parallel", L"GPU GL Compute",
                                                L"GPU OpenCL", L"GPU CUDA"};
    const std::vector<std::wstring> modules = {L"Converter", L"Scaler", L"Splitter", L"User_Custom"};
    EXPECT_EQ(CIpmFuncTable::getBackendNames(), backends);
    EXPECT_EQ(CIpmFuncTable::getModuleNames(), modules);
    EXPECT_EQ(&CIpmFuncTable::getBackendNames(), &CIpmFuncTable::getBackendNames());
    EXPECT_EQ(&CIpmFuncTable::getModuleNames(), &CIpmFuncTable::getModuleNames());
}

TEST(FunctionTableVocabulary, ParsersMatchWholeNamesExactly)
{
    for (int v = 0; v < 5; ++v) {
        EnProcessBackend out = backend(99);
        EXPECT_TRUE(CIpmFuncTable::TryParseBackend(CIpmFuncTable::getBackendNames()[v], out));
        EXPECT_EQ(out, backend(v));
    }
    for (int v = 0; v < 4; ++v) {
        EnIpmModule out = module(99);
        EXPECT_TRUE(CIpmFuncTable::TryParseModule(CIpmFuncTable::getModuleNames()[v], out));
        EXPECT_EQ(out, module(v));
    }
    for (const wchar_t* bad : {L"gpu opencl", L"GPU OpenCL ", L" GPU OpenCL", L"GPU", L"", L"3"}) {
        EnProcessBackend out = backend(42);
        EXPECT_FALSE(CIpmFuncTable::TryParseBackend(bad, out)) << qrvtest::utf8(bad);
        EXPECT_EQ(out, backend(42)) << "a failed parse leaves the output alone";
    }
    for (const wchar_t* bad : {L"user_custom", L"User", L"", L"Converter\n"}) {
        EnIpmModule out = module(42);
        EXPECT_FALSE(CIpmFuncTable::TryParseModule(bad, out));
        EXPECT_EQ(out, module(42));
    }
}

TEST_F(FunctionTable, RegisterChecksFunctionThenBackendThenModule)
{
    struct Case {
        int backend, module;
        bool withFunction;
        int expected;
    } cases[] = {
        {9, 9, false, result::EmptyFunction}, {0, 0, false, result::EmptyFunction},
        {5, 9, true, result::BadBackend},     {-1, 0, true, result::BadBackend},
        {0, 4, true, result::BadModule},      {4, 3, true, result::Success},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(table->registerFunc(backend(c.backend), module(c.module), 1000,
                                      c.withFunction ? returning(1) : IpmFn(), L"f"),
                  c.expected)
            << c.backend << "/" << c.module;
    }
    const auto list = table->getAlgorithmList(backend(0), module(0));
    EXPECT_TRUE(list.end() ==
                std::find_if(list.begin(), list.end(), [](const auto& entry) { return entry.first == 1000; }))
        << "a refused registration adds no entry";
}

TEST_F(FunctionTable, ProcessChecksCoordinatesThenImagesThenEntry)
{
    ASSERT_EQ(table->registerFunc(backend(2), module(1), 2000, returning(1), L"ok"), result::Success);
    struct Case {
        const char* what;
        int backend, module, index;
        bool source, destination;
        int expected;
    } cases[] = {
        {"bad backend beats null images", 5, 1, 2000, false, false, result::BadBackend},
        {"negative backend", -3, 1, 2000, true, true, result::BadBackend},
        {"bad module beats null images", 2, 4, 2000, false, false, result::BadModule},
        {"null source beats missing entry", 2, 1, 2999, false, true, result::MissingImage},
        {"null destination", 2, 1, 2000, true, false, result::MissingImage},
        {"no entry at the index", 2, 1, 2001, true, true, result::NoFunction},
        {"registered", 2, 1, 2000, true, true, result::Success},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(table->process(backend(c.backend), module(c.module), c.index, c.source ? &src : nullptr,
                                 c.destination ? &dst : nullptr, nullptr, nullptr),
                  c.expected)
            << c.what;
    }
}

TEST_F(FunctionTable, ProcessPassesArgumentsAndResultThrough)
{
    int user1 = 0, user2 = 0;
    const QRV_Image* seenSource = nullptr;
    QRV_Image* seenDestination = nullptr;
    void* seen1 = nullptr;
    void* seen2 = nullptr;
    table->registerFunc(backend(1), module(3), -3000,
                        [&](const QRV_Image* s, QRV_Image* d, void* u1, void* u2) {
                            seenSource = s, seenDestination = d, seen1 = u1, seen2 = u2;
                            return -12345;
                        },
                        L"negative index");
    EXPECT_EQ(table->process(backend(1), module(3), -3000, &src, &dst, &user1, &user2), -12345);
    EXPECT_EQ(seenSource, &src);
    EXPECT_EQ(seenDestination, &dst);
    EXPECT_EQ(seen1, &user1);
    EXPECT_EQ(seen2, &user2);

    table->registerFunc(backend(1), module(3), 3001, returning(result::FormatMismatch), L"six");
    EXPECT_EQ(table->process(backend(1), module(3), 3001, &src, &dst, nullptr, nullptr), result::FormatMismatch);
}

TEST_F(FunctionTable, ExceptionsFromAFunctionBecomeNine)
{
    table->registerFunc(backend(0), module(2), 4000,
                        [](const QRV_Image*, QRV_Image*, void*, void*) -> int { throw std::runtime_error("x"); },
                        L"throws");
    table->registerFunc(backend(0), module(2), 4001,
                        [](const QRV_Image*, QRV_Image*, void*, void*) -> int { throw 17; }, L"throws int");
    EXPECT_EQ(table->process(backend(0), module(2), 4000, &src, &dst, nullptr, nullptr), result::FunctionThrew);
    EXPECT_EQ(table->process(backend(0), module(2), 4001, &src, &dst, nullptr, nullptr), result::FunctionThrew);
    EXPECT_EQ(table->process(backend(0), module(2), 4000, &src, &dst, nullptr, nullptr), result::FunctionThrew)
        << "the entry stays usable";
}

TEST_F(FunctionTable, LaterRegistrationWinsAndListsShowOneEntry)
{
    table->registerFunc(backend(3), module(2), 5000, returning(11), L"first");
    table->registerFunc(backend(3), module(2), 5000, returning(22), L"second");
    table->registerFunc(backend(3), module(2), 5001, returning(33), L"other");
    EXPECT_EQ(table->process(backend(3), module(2), 5000, &src, &dst, nullptr, nullptr), 22);
    auto list = table->getAlgorithmList(backend(3), module(2));
    std::sort(list.begin(), list.end());
    const std::vector<std::pair<int, std::wstring>> expected = {{5000, L"second"}, {5001, L"other"}};
    EXPECT_EQ(list, expected);
}

TEST_F(FunctionTable, ListsOfBadOrEmptyCoordinatesAreEmpty)
{
    EXPECT_TRUE(table->getAlgorithmList(backend(5), module(0)).empty());
    EXPECT_TRUE(table->getAlgorithmList(backend(0), module(-1)).empty());
    EXPECT_TRUE(table->getAlgorithmList(backend(4), module(1)).empty());
}

TEST_F(FunctionTable, FunctionMayUseTheTableItself)
{
    table->registerFunc(backend(4), module(2), 6000, returning(7007), L"inner");
    table->registerFunc(backend(4), module(2), 6001,
                        [this](const QRV_Image* s, QRV_Image* d, void*, void*) {
                            return table->process(backend(4), module(2), 6000, s, d, nullptr, nullptr);
                        },
                        L"outer");
    EXPECT_EQ(table->process(backend(4), module(2), 6001, &src, &dst, nullptr, nullptr), 7007);
}

// First use of the table, each in a fresh process.
namespace {

qrvtest::ProcessResult runScenario(const std::string& name)
{
    auto result = qrvtest::runProcess({FUNCTION_TABLE_SCENARIO, name});
    EXPECT_EQ(result.exitCode, 0) << name << "\nstdout:\n" << result.out << "\nstderr:\n" << result.err;
    return result;
}

}  // namespace

TEST(FunctionTableFirstUse, FillLogsItsStepsWithFileLineAndSignature)
{
    const auto records = qrvtest::parseRecords(runScenario("fill-log").out);
    std::vector<std::pair<std::string, std::string>> called;
    for (const auto& record : records) {
        if (record.file != "CIpmFuncTable" || record.text != L"called") continue;
        EXPECT_EQ(record.level, qrvlog::LogLevel::Trace);
        called.emplace_back(record.function, qrvtest::utf8(record.text));
        const std::string line = qrvtest::sourceLine(QRV_SOURCE_DIR "/ipm/CIpmFuncTable.cpp", record.line);
        EXPECT_NE(line.find("IPM_LOG(Trace, L\"called\")"), std::string::npos)
            << "line " << record.line << " is the log call: " << line;
    }
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"void ipmcommon::CIpmFuncTable::InitFuncTable()", "called"},
        {"void ipmcommon::CIpmFuncTable::InitConverterFuncTable()", "called"},
        {"void ipmcommon::CIpmFuncTable::InitScalerFuncTable()", "called"},
        {"void ipmcommon::CIpmFuncTable::InitUserCustomFuncTable()", "called"},
    };
    EXPECT_EQ(called, expected);
}

TEST(FunctionTableFirstUse, LaterUsesDoNotFillAgain)
{
    runScenario("fill-once");
}

TEST(FunctionTableFirstUse, EightThreadsRacingTheFillAllDispatch)
{
    runScenario("race");
}

TEST(FunctionTableFirstUse, ExceptionInTheFillReachesTheCallerAndTheFillRunsAgain)
{
#ifdef QRV_TSAN_BUILD
    GTEST_SKIP() << "ThreadSanitizer's pthread_once interceptor cannot unwind an exception out of "
                    "std::call_once, so a retried fill would hang under TSan only";
#endif
    runScenario("fill-throws");
}
