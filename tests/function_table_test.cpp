// Registration and dispatch through the function table, and its one-time fill in a fresh process.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <stdexcept>
#include <thread>
#include <tuple>
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
    const auto returning = [](int code) { return [code](auto...) { return code; }; };
    EXPECT_EQ(table->registerFunc(B(9), M(9), 900, IpmFn(), L"empty"), 7);
    EXPECT_EQ(table->registerFunc(B(5), M(9), 900, returning(1), L"x"), 2);
    EXPECT_EQ(table->registerFunc(B(-1), M(0), 900, returning(1), L"x"), 2);
    EXPECT_EQ(table->registerFunc(B(4), M(4), 900, returning(1), L"x"), 3);
    const std::tuple<int, IpmFn, const wchar_t*> entries[] = {
        {900, returning(11), L"first"},
        {900, returning(-12345), L"second"},
        {INT_MIN, returning(6), L"negative"},
        {901, [](auto...) -> int { throw std::runtime_error("no"); }, L"throws"},
        {902, [](auto...) -> int { throw 17; }, L"throws int"}};
    for (const auto& [index, function, name] : entries)
        EXPECT_EQ(table->registerFunc(B(4), M(3), index, function, name), 1);
    // Backend, module, index, whether the source and the destination are given, and the code.
    const std::tuple<int, int, int, bool, bool, int> calls[] = {
        {5, 3, 900, false, false, 2},   {-3, 3, 900, true, true, 2}, {4, 4, 900, false, false, 3},
        {4, -1, 900, true, true, 3},    {4, 3, 999, false, true, 8}, {4, 3, 900, true, false, 8},
        {4, 3, 999, true, true, 4},     {4, 2, 900, true, true, 4},  {4, 3, 900, true, true, -12345},
        {4, 3, INT_MIN, true, true, 6}, {4, 3, 901, true, true, 9},  {4, 3, 902, true, true, 9},
    };
    for (const auto& [b, m, index, source, destination, code] : calls) {
        QRV_Image* images[2] = {source ? &image : nullptr, destination ? &image : nullptr};
        EXPECT_EQ(table->process(B(b), M(m), index, images[0], images[1], {}, {}), code)
            << b << "/" << m << "/" << index;
    }
    const List expected = {{INT_MIN, L"negative"}, {900, L"second"}, {901, L"throws"}, {902, L"throws int"}};
    EXPECT_EQ(sortedList(B(4), M(3)), expected);
    EXPECT_EQ(sortedList(B(5), M(3)), List{});
    EXPECT_EQ(sortedList(B(4), M(-1)), List{});
}

TEST(FunctionTable, ParsersTakeWholeNamesOnly)
{
    B backend = B(42);
    M module = M(42);
    EXPECT_FALSE(CIpmFuncTable::TryParseBackend(L"GPU OpenCL ", backend) ||
                 CIpmFuncTable::TryParseBackend(L"gpu opencl", backend) ||
                 CIpmFuncTable::TryParseModule(L"User", module));
    EXPECT_TRUE(backend == B(42) && module == M(42)) << "a failed parse leaves the output alone";
    EXPECT_TRUE(CIpmFuncTable::TryParseBackend(L"GPU OpenCL", backend) && backend == B::GPU_OpenCL);
    EXPECT_TRUE(CIpmFuncTable::TryParseModule(L"User_Custom", module) && module == M::User_Custom);
}

// Eight threads make the process's first calls at once, conversions of both CPU backends: the fill
// runs once, with the lines a host reads, and every caller gets a filled table.
TEST(FunctionTableFill, RacingFirstCallersFillOnce)
{
    if (!qrvtest::inChild()) {
        const auto child = qrvtest::runSelf();
        EXPECT_EQ(child.exitCode, 0) << child.out << child.err;
        return;
    }
    qrvtest::LogCapture capture;
    QRV_Image image;  // empty: the converters' refusals (serial 8, parallel 5) show that calls reach them
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&, t] {
            for (++ready; ready < 8;) std::this_thread::yield();
            const int code =
                CIpmFuncTable::Instance()->process(B(t % 2), M::Converter, 2, &image, &image, {}, {});
            EXPECT_EQ(code, t % 2 == 0 ? 8 : 5);
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(
        capture.texts("CIpmFuncTable"),
        (std::vector<std::string>{"called", "called", "called", "called", "No User_Custom plugin found."}));
    const wchar_t* names[] = {L"YUV422 -> RGB888 (CPU ", L"YUV422 -> BGR888 (CPU ", L"RGB888 -> Gray8 (CPU "};
    for (int backend = 0; backend < 5; ++backend) {
        List expected;
        for (int i = 0; backend < 2 && i < 3; ++i)
            expected.emplace_back(i, names[i] + std::wstring(backend == 0 ? L"Serial)" : L"Parallel)"));
        EXPECT_EQ(sortedList(B(backend), M::Converter), expected) << backend;
    }
}

// A fill that ends in an exception passes it to the caller and runs again, whole, on the next use.
TEST(FunctionTableFill, FillThatThrowsRunsAgain)
{
#ifdef QRV_TSAN_BUILD
    GTEST_SKIP() << "TSan's pthread_once cannot unwind an exception out of std::call_once: the retry hangs";
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
