// Registration and dispatch through the function table, its vocabulary, and
// its one-time fill in a fresh process.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <stdexcept>
#include <thread>
#include <vector>

#include "CIpmFuncTable.h"
#include "TestSupport.h"

using ipmcommon::CIpmFuncTable;
using qrv_img::QRV_Image;
using B = ipmcommon::EnProcessBackend;
using M = ipmcommon::EnIpmModule;
using List = std::vector<std::pair<int, std::wstring>>;

namespace {

List sortedList(B backend, M module)
{
    List list = CIpmFuncTable::Instance()->getAlgorithmList(backend, module);
    std::sort(list.begin(), list.end());
    return list;
}

}  // namespace

TEST(FunctionTable, RegistrationAndDispatchCodes)
{
    CIpmFuncTable* table = CIpmFuncTable::Instance();
    QRV_Image image;
    int user = 0;
    const auto returning = [](int code) { return [code](auto...) { return code; }; };
    // Refused in this order: an empty function, a bad backend, a bad module.
    EXPECT_EQ(table->registerFunc(B(9), M(9), 900, IpmFn(), L"empty"), 7);
    EXPECT_EQ(table->registerFunc(B(5), M(9), 900, returning(1), L"x"), 2);
    EXPECT_EQ(table->registerFunc(B(-1), M(0), 900, returning(1), L"x"), 2);
    EXPECT_EQ(table->registerFunc(B(4), M(4), 900, returning(1), L"x"), 3);
    EXPECT_EQ(sortedList(B(4), M(3)), List{}) << "a refused registration adds nothing";
    EXPECT_EQ(table->registerFunc(B(4), M(3), 900, returning(11), L"first"), 1);
    EXPECT_EQ(table->registerFunc(B(4), M(3), 900, returning(-12345), L"second"), 1);
    table->registerFunc(B(4), M(3), INT_MIN, returning(6), L"negative");
    table->registerFunc(
        B(4), M(3), 901, [](auto...) -> int { throw std::runtime_error("no"); }, L"throws");
    table->registerFunc(
        B(4), M(3), 902, [](auto...) -> int { throw 17; }, L"throws int");
    table->registerFunc(
        B(4), M(3), 903,
        [&](const QRV_Image* s, QRV_Image* d, void* u1, void* u2) {
            return s == &image && d == &image && u1 == &user && u2 == &image ? 1 : 0;
        },
        L"pointers");
    const struct {
        int backend, module, index;
        bool source, destination;
        int code;
    } calls[] = {
        {5, 3, 900, false, false, 2},   {-3, 3, 900, true, true, 2}, {4, 4, 900, false, false, 3},
        {4, -1, 900, true, true, 3},    {4, 3, 999, false, true, 8}, {4, 3, 900, true, false, 8},
        {4, 3, 999, true, true, 4},     {4, 2, 900, true, true, 4},  {4, 3, 900, true, true, -12345},
        {4, 3, INT_MIN, true, true, 6}, {4, 3, 901, true, true, 9},  {4, 3, 902, true, true, 9},
        {4, 3, 903, true, true, 1},
    };
    for (const auto& c : calls) {
        EXPECT_EQ(table->process(B(c.backend), M(c.module), c.index, c.source ? &image : nullptr,
                                 c.destination ? &image : nullptr, &user, &image),
                  c.code)
            << c.backend << "/" << c.module << "/" << c.index;
    }
    const List expected = {
        {INT_MIN, L"negative"}, {900, L"second"}, {901, L"throws"}, {902, L"throws int"}, {903, L"pointers"}};
    EXPECT_EQ(sortedList(B(4), M(3)), expected);
    EXPECT_EQ(sortedList(B(5), M(3)), List{});
    EXPECT_EQ(sortedList(B(4), M(-1)), List{});
}

TEST(FunctionTable, NamesOfBackendsAndModules)
{
    EXPECT_EQ(CIpmFuncTable::getBackendNames(),
              (std::vector<std::wstring>{L"CPU Serial", L"CPU Parallel", L"GPU GL Compute", L"GPU OpenCL",
                                         L"GPU CUDA"}));
    EXPECT_EQ(CIpmFuncTable::getModuleNames(),
              (std::vector<std::wstring>{L"Converter", L"Scaler", L"Splitter", L"User_Custom"}));
    B backend = B(42);
    M module = M(42);
    for (const wchar_t* text : {L"gpu opencl", L"GPU OpenCL ", L"GPU", L""}) {
        EXPECT_FALSE(CIpmFuncTable::TryParseBackend(text, backend) ||
                     CIpmFuncTable::TryParseModule(text, module));
    }
    EXPECT_TRUE(backend == B(42) && module == M(42)) << "a failed parse leaves the output alone";
    EXPECT_TRUE(CIpmFuncTable::TryParseBackend(L"GPU OpenCL", backend) && backend == B::GPU_OpenCL);
    EXPECT_TRUE(CIpmFuncTable::TryParseModule(L"User_Custom", module) && module == M::User_Custom);
}

// Eight threads make the process's first calls at once, conversions of both
// CPU backends: the fill runs once, with the lines a host reads, and every
// caller gets a filled table.
TEST(FunctionTableFill, RacingFirstCallersFillOnce)
{
    if (!qrvtest::inChild()) {
        const auto child = qrvtest::runSelf();
        EXPECT_EQ(child.exitCode, 0) << child.out << child.err;
        return;
    }
    qrvtest::LogCapture capture;
    QRV_Image source(16, 2, qrv_img::En_ImageFormat::RGB888, true, 1);
    for (size_t i = 0; i < source.dataSize; ++i) source.data[i] = static_cast<uint8_t>(i * 37);
    std::vector<QRV_Image> gray;
    for (int t = 0; t < 8; ++t) gray.emplace_back(16, 2, qrv_img::En_ImageFormat::Gray8, true, 1);
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (++ready; ready < 8;) {
            }
            EXPECT_EQ(CIpmFuncTable::Instance()->process(B(t % 2), M::Converter, 2, &source, &gray[t],
                                                         nullptr, nullptr),
                      1);
        });
    }
    for (auto& thread : threads) thread.join();
    for (int t = 1; t < 8; ++t)
        EXPECT_TRUE(std::equal(gray[t].data.get(), gray[t].data.get() + 32, gray[0].data.get()));
    std::vector<std::pair<qrvlog::LogLevel, std::string>> lines;
    for (const auto& record : capture.records()) {
        if (record.file == "CIpmFuncTable") lines.emplace_back(record.level, qrvlog::toUtf8(record.text));
    }
    using qrvlog::LogLevel;
    EXPECT_EQ(lines, (decltype(lines){{LogLevel::Trace, "called"},
                                      {LogLevel::Trace, "called"},
                                      {LogLevel::Trace, "called"},
                                      {LogLevel::Trace, "called"},
                                      {LogLevel::Error, "No User_Custom plugin found."}}));
    const wchar_t* names[] = {L"YUV422 -> RGB888 (CPU ", L"YUV422 -> BGR888 (CPU ", L"RGB888 -> Gray8 (CPU "};
    for (int backend = 0; backend < 5; ++backend) {
        List expected;
        for (int i = 0; backend < 2 && i < 3; ++i)
            expected.emplace_back(i, names[i] + std::wstring(backend == 0 ? L"Serial)" : L"Parallel)"));
        EXPECT_EQ(sortedList(B(backend), M::Converter), expected) << backend;
    }
    EXPECT_EQ(sortedList(B::CPU_Serial, M::Scaler), List{});
}

// A fill that ends in an exception passes it to the caller and runs again,
// whole, on the next use.
TEST(FunctionTableFill, FillThatThrowsRunsAgain)
{
#ifdef QRV_TSAN_BUILD
    GTEST_SKIP() << "ThreadSanitizer's pthread_once interceptor cannot unwind an exception out of "
                    "std::call_once, so a retried fill would hang under TSan only";
#endif
    if (!qrvtest::inChild()) {
        const auto child = qrvtest::runSelf();
        EXPECT_EQ(child.exitCode, 0) << child.out << child.err;
        return;
    }
    // The fill's third line comes after the converters are registered.
    int lines = 0;
    qrvlog::QRV_Log::Instance()->setSink([&lines](const qrvlog::LogRecord& record) {
        if (record.file == "CIpmFuncTable" && ++lines == 3) throw std::runtime_error("sink refused");
    });
    EXPECT_THROW(CIpmFuncTable::Instance(), std::runtime_error);
    EXPECT_EQ(sortedList(B::CPU_Serial, M::Converter).size(), 3u);
    EXPECT_EQ(lines, 3 + 5);
}
