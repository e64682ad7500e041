// The stand-ins for the platform's image, log and stopwatch libraries.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <clocale>
#include <cstdint>
#include <thread>
#include <tuple>
#include <vector>

#include "CWatchTime.h"
#include "QRV_Image.h"
#include "QRV_Log.h"
#include "TestSupport.h"

using qrv_img::CopyMode;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using qrvlog::LogLevel;
using qrvlog::QRV_Log;

namespace {

QRV_Image filled(uint32_t width, uint32_t height, En_ImageFormat format, uint8_t seed)
{
    QRV_Image image(width, height, format, true, 1);
    for (size_t i = 0; i < image.dataSize; ++i) image.data[i] = static_cast<uint8_t>(seed + 7 * i);
    return image;
}

}  // namespace

TEST(PlatformImage, BuffersHoldThePackedPixelsZeroFilled)
{
    const std::pair<En_ImageFormat, size_t> cases[] = {{En_ImageFormat::Gray8, 4},
                                                       {En_ImageFormat::YUV422_8, 8},
                                                       {En_ImageFormat::RGB888, 12},
                                                       {En_ImageFormat::BGR888, 12},
                                                       {En_ImageFormat(999), 4}};
    for (const auto& [format, rowBytes] : cases) {
        const QRV_Image image(4, 3, format, true, 1);
        EXPECT_EQ(image.rowBytes(), rowBytes);
        ASSERT_EQ(image.dataSize, 3 * rowBytes);
        for (size_t i = 0; i < image.dataSize; ++i) ASSERT_EQ(image.pixels()[i], 0);
    }
    QRV_Image unallocated(4, 3, En_ImageFormat::RGB888, false, 1);
    unallocated.dataOffset = 16;
    EXPECT_EQ(unallocated.pixels(), nullptr) << "no offset is added to a missing buffer";
}

TEST(PlatformImage, CopyCarriesPixelsAndFieldsInBothModes)
{
    for (const CopyMode mode : {CopyMode::Processing, CopyMode::Capture}) {
        QRV_Image source = filled(3, 2, En_ImageFormat::YUV422_8, 5);
        source.dataOffset = 2;  // the first pixel two bytes into the buffer
        source.dataSize -= 2;
        source.width = 2;
        std::tie(source.frameTag, source.yuvLayout, source.subFormat) = std::make_tuple(-7, 13, 2);
        QRV_Image target = filled(3, 2, En_ImageFormat::YUV422_8, 0);
        target.dataOffset = 4;
        target.dataSize -= 4;
        target.width = 2;
        ASSERT_TRUE(target.copy(source, mode));
        EXPECT_EQ(std::vector<uint8_t>(target.pixels(), target.pixels() + 8),
                  std::vector<uint8_t>(source.pixels(), source.pixels() + 8));
        for (size_t i : {0, 1, 2, 3}) EXPECT_EQ(target.data[i], 7 * i) << "before the first pixel";
        EXPECT_EQ(std::make_tuple(target.frameTag, target.yuvLayout, target.subFormat),
                  std::make_tuple(-7, 13, 2));
    }
}

TEST(PlatformImage, RefusedCopyWritesNothing)
{
    const struct {
        uint32_t width, height;
        En_ImageFormat format;
        bool sourceBuffer, targetBuffer;
        size_t sourceShort, targetShort;  // bytes fewer than the pixels need
    } cases[] = {
        {5, 3, En_ImageFormat::RGB888, true, true, 0, 0},  {4, 2, En_ImageFormat::RGB888, true, true, 0, 0},
        {4, 3, En_ImageFormat::BGR888, true, true, 0, 0},  {4, 3, En_ImageFormat::RGB888, false, true, 0, 0},
        {4, 3, En_ImageFormat::RGB888, true, false, 0, 0}, {4, 3, En_ImageFormat::RGB888, true, true, 1, 0},
        {4, 3, En_ImageFormat::RGB888, true, true, 0, 1},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        QRV_Image source = filled(4, 3, En_ImageFormat::RGB888, 9);
        if (!c.sourceBuffer) source.data.reset();
        source.dataSize -= c.sourceShort;
        source.frameTag = 5;
        QRV_Image target(c.width, c.height, c.format, c.targetBuffer, 1);
        target.dataSize -= std::min(c.targetShort, target.dataSize);
        EXPECT_FALSE(target.copy(source, CopyMode::Capture)) << "case " << i;
        EXPECT_EQ(target.frameTag, 0) << "case " << i;
        for (size_t k = 0; c.targetBuffer && k < target.pixelBytes(); ++k) ASSERT_EQ(target.data[k], 0) << i;
    }
}

namespace {

// The text of the one record that writeLog makes of format and args.
template <typename... Args>
std::wstring logged(const wchar_t* format, Args... args)
{
    qrvtest::LogCapture capture;
    QRV_Log::Instance()->writeLog(LogLevel::Trace, "F", 1, "f()", format, args...);
    const auto records = capture.records();
    return records.size() == 1 ? records[0].text : L"records: " + std::to_wstring(records.size());
}

}  // namespace

TEST(PlatformLog, FormatsIndependentlyOfTheCLocaleAndNeverTruncates)
{
    std::setlocale(LC_ALL, "C");
    const std::string longText(100000, 'x');
    const std::pair<std::wstring, std::wstring> cases[] = {
        {logged(L"process error: %d", -9), L"process error: -9"},
        {logged(L"%d %d %u", INT_MIN, INT_MAX, UINT_MAX), L"-2147483648 2147483647 4294967295"},
        {logged(L"%zu device(s)", SIZE_MAX), L"18446744073709551615 device(s)"},
        {logged(L"name=%ls|", L"GPU \u00e9\u4e2d\U0001F4F7"), L"name=GPU \u00e9\u4e2d\U0001F4F7|"},
        {logged(L"loaded: %hs", "/caf\xc3\xa9/\xf0\x9f\x93\xb7"), L"loaded: /caf\u00e9/\U0001F4F7"},
        {logged(L"%s and %hs, 100%%", "a", "b"), L"a and b, 100%"},
        {logged(L"a%hsb", "\xff\xc3"), L"a\ufffd\ufffdb"},  // malformed UTF-8 keeps its place
        {logged(L"%hs!", longText.c_str()), std::wstring(longText.begin(), longText.end()) + L"!"},
        {logged(L"%ls %hs", static_cast<wchar_t*>(nullptr), static_cast<char*>(nullptr)), L"(null) (null)"},
        {logged(L"[%5d|%-4d|%05d|%+d|% d|%x|%#X|%#o|%.3d]", 42, 7, -42, 3, 4, 255u, 255u, 8u, 5),
         L"[   42|7   |-0042|+3| 4|ff|0XFF|010|005]"},
        {logged(L"%lld %c %lc %.2f %5.1s| %*d %q", -1234567890123ll, 'A', wint_t(0xdf), 2.345, "xyz", 3, 1),
         L"-1234567890123 A \u00df 2.35     x|   1 %q"},
    };
    for (const auto& [actual, expected] : cases) EXPECT_EQ(actual, expected);
    EXPECT_EQ(qrvlog::toUtf8(L"\u00e9\u4e2d\U0001F4F7"), "\xc3\xa9\xe4\xb8\xad\xf0\x9f\x93\xb7");
}

TEST(PlatformLog, SinkGetsWholeRecordsAndTheDefaultWritesUpToTheLevel)
{
    if (!qrvtest::inChild()) {
        const auto child = qrvtest::runSelf();
        EXPECT_EQ(child.exitCode, 0) << child.out << child.err;
        EXPECT_EQ(child.err,
                  "[ERROR] F:1 g(): bad \xc3\xa9\n[WARN] F:2 g(): skipped\n[TRACE] F:4 g(): shown\n"
                  "[ERROR] F:6 g(): back on stderr\n");
        return;
    }
    QRV_Log* log = QRV_Log::Instance();
    log->setLevel(LogLevel::Warning);
    log->writeLog(LogLevel::Error, "F", 1, "g()", L"bad %hs", "\xc3\xa9");
    log->writeLog(LogLevel::Warning, "F", 2, "g()", L"skipped");
    log->writeLog(LogLevel::Trace, "F", 3, "g()", L"hidden");
    log->setLevel(LogLevel::Trace);
    log->writeLog(LogLevel::Trace, "F", 4, "g()", L"\r\nshown");
    {
        qrvtest::LogCapture capture;
        log->writeLog(LogLevel::Warning, "Converter/CConverter", 5, "void f()", L"x=%d", 5);
        const auto records = capture.records();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].level, LogLevel::Warning);
        EXPECT_EQ(std::tie(records[0].file, records[0].line, records[0].function),
                  std::make_tuple("Converter/CConverter", 5, "void f()"));
        EXPECT_EQ(records[0].text, L"x=5");
    }
    log->writeLog(LogLevel::Error, "F", 6, "g()", L"back on stderr");
}

TEST(PlatformLog, ConcurrentWritersLoseAndMixNoRecord)
{
    qrvtest::LogCapture capture;
    constexpr int kThreads = 6, kPerThread = 1000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kPerThread; ++i) {
                QRV_Log::Instance()->writeLog(LogLevel::Trace, "T", t, "f()", L"thread %d record %d %ls", t,
                                              i, L"\u00fc");
            }
        });
    }
    for (auto& thread : threads) thread.join();
    std::vector<int> next(kThreads, 0);
    for (const auto& record : capture.records()) {
        ASSERT_EQ(record.text, L"thread " + std::to_wstring(record.line) + L" record " +
                                   std::to_wstring(next.at(record.line)++) + L" \u00fc");
    }
    EXPECT_EQ(next, std::vector<int>(kThreads, kPerThread));
}

TEST(PlatformWatch, ReadOutsOfCompletedIntervals)
{
    CWatchTime watch;
    watch.stop();  // no interval begun: ignored
    EXPECT_EQ(watch.count(), 0u);
    watch.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    watch.stop();
    const double first = watch.lastMicros();
    EXPECT_GE(first, 20000.0);
    watch.start();
    watch.stop();
    watch.stop();  // the interval has ended: ignored
    EXPECT_EQ(watch.count(), 2u);
    EXPECT_DOUBLE_EQ(watch.meanMicros(), (first + watch.lastMicros()) / 2);
    EXPECT_DOUBLE_EQ(watch.maxMicros(), std::max(first, watch.lastMicros()));
}
