// The stand-ins for the platform's image, log and stopwatch libraries.
#include <gtest/gtest.h>

#include <climits>
#include <thread>
#include <tuple>

#include "CWatchTime.h"
#include "QRV_Image.h"
#include "TestSupport.h"

using qrv_img::En_ImageFormat;
using qrvlog::LogLevel;

// A 2x2 YUV image goes from 2 bytes into a source buffer to 4 bytes into a zero-filled target buffer; each
// case but the first spoils one thing. Outside the pixels, and after a refusal, nothing is written.
TEST(PlatformImage, CopyWritesThePixelsAndCarriedFieldsOrNothing)
{
    const auto yuv = En_ImageFormat::YUV422_8;
    for (const auto mode : {qrv_img::CopyMode::Processing, qrv_img::CopyMode::Capture}) {
        for (int spoil = 0; spoil < 8; ++spoil) {
            qrv_img::QRV_Image source(2, 3, yuv, true, 1), target(2, 3, yuv, true, 1);
            for (size_t i = 0; i < 12; ++i) source.data[i] = static_cast<uint8_t>(i + 1);
            source.height = target.height = 2;
            source.dataOffset = 2, source.dataSize = 8 - (spoil == 1);
            target.dataOffset = 4, target.dataSize = 8 - (spoil == 2);
            std::tie(source.frameTag, source.yuvLayout, source.subFormat) = std::make_tuple(-7, 13, 2);
            if (spoil == 3) target.width = 1;
            if (spoil == 4) target.height = 1;
            if (spoil == 5) target.format = En_ImageFormat::Gray8;
            if (spoil == 6) source.data.reset();
            if (spoil == 7) target.data.reset();
            EXPECT_EQ(target.copy(source, mode), spoil == 0) << spoil;
            std::vector<int> expected(12, 0);
            if (spoil == 0) std::copy_n(&source.data[2], 8, &expected[4]);
            EXPECT_EQ(target.data ? std::vector<int>(target.data.get(), target.data.get() + 12) : expected,
                      expected);
            EXPECT_EQ(std::tie(target.frameTag, target.yuvLayout, target.subFormat),
                      spoil == 0 ? std::make_tuple(-7, 13, 2) : std::make_tuple(0, 0, 0));
        }
    }
}

TEST(PlatformLog, FormatsIndependentlyOfTheCLocaleAndNeverTruncates)
{
    const std::string longText(100000, 'x');
    qrvtest::LogCapture capture;
    const auto log = [](const wchar_t* format, auto... args) {
        qrvlog::QRV_Log::Instance()->writeLog(LogLevel::Trace, "F", 1, "f()", format, args...);
    };
    log(L"%d %d %d %u %zu", INT_MIN, 0, INT_MAX, UINT_MAX, SIZE_MAX);
    log(L"%ls|%hs|%s|100%%", L"\u00e9\u4e2d\U0010FFFF\xD83D\xDCF7x\xDC00",
        "caf\xc3\xa9\xf0\x9f\x93\xb7\xff\xc3", "a");
    log(L"%hs!", longText.c_str());
    log(L"%05d|%+05d|%.0d|%.3d|%*d|%#06X|%#06x|%05.0x|%q", -42, 3, 0, -5, 3, 1, 0xafu, 0xafu, 0xafu);
    log(L"%.2E|%G|%.1f|%10d|%-4d|", 1234.5, 0.00001, 2.5, 7, -7);
    // Malformed UTF-8 and lone surrogates keep their places as U+FFFD.
    EXPECT_EQ(capture.texts(),
              (std::vector<std::string>{"-2147483648 0 2147483647 4294967295 18446744073709551615",
                                        "\xc3\xa9\xe4\xb8\xad\xf4\x8f\xbf\xbf\xf0\x9f\x93\xb7x\xef\xbf\xbd|"
                                        "caf\xc3\xa9\xf0\x9f\x93\xb7\xef\xbf\xbd\xef\xbf\xbd|a|100%",
                                        longText + "!", "-0042|+0003||-005|  1|0X00AF|0x00af|   af|%q",
                                        "1.23E+03|1E-05|2.5|         7|-7  |"}));
}

// The default sink writes a line per record to stderr up to the level set; a sink takes records instead.
TEST(PlatformLog, DefaultSinkAndLevel)
{
    auto* log = qrvlog::QRV_Log::Instance();
    testing::internal::CaptureStderr();
    log->setLevel(LogLevel::Warning);
    log->writeLog(LogLevel::Error, "F", 1, "g()", L"bad %hs", "\xc3\xa9");
    log->writeLog(LogLevel::Warning, "F", 2, "g()", L"skipped");
    log->writeLog(LogLevel::Trace, "F", 3, "g()", L"hidden");
    log->setLevel(LogLevel::Trace);
    qrvtest::LogCapture(),
        log->writeLog(LogLevel::Error, "F", 4, "g()", L"to the sink");  // a sink for one record
    log->writeLog(LogLevel::Trace, "F", 5, "g()", L"\r\nshown");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[ERROR] F:1 g(): bad \xc3\xa9\n[WARN] F:2 g(): skipped\n[TRACE] F:5 g(): shown\n");
}

TEST(PlatformLog, ConcurrentWritersLoseAndMixNoRecord)
{
    qrvtest::LogCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 1000; ++i)
                qrvlog::QRV_Log::Instance()->writeLog(LogLevel::Error, "T", t, "", L"%d", i);
        });
    for (auto& thread : threads) thread.join();
    std::vector<int> next(6, 0);
    for (const auto& record : capture.records()) {
        ASSERT_EQ(std::tie(record.level, record.file, record.function, record.text),
                  std::make_tuple(LogLevel::Error, "T", "", std::to_wstring(next.at(record.line)++)));
    }
    EXPECT_EQ(next, std::vector<int>(6, 1000));
}

TEST(PlatformWatch, ReadOutsOfCompletedIntervals)
{
    CWatchTime watch;
    watch.stop();  // no interval begun: ignored
    watch.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    watch.stop();
    const double first = watch.lastMicros();
    watch.start();
    watch.stop();
    watch.stop();  // the interval has ended: ignored
    EXPECT_GE(first, 20000.0);
    EXPECT_EQ(
        std::make_tuple(watch.count(), watch.meanMicros(), watch.maxMicros()),
        std::make_tuple(uint64_t{2}, (first + watch.lastMicros()) / 2, std::max(first, watch.lastMicros())));
}
