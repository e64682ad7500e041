#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

#include "LogCapture.h"
#include "QRV_Log.h"

using qrvlog::LogLevel;
using qrvlog::QRV_Log;
using qrvtest::LogCapture;

namespace {

std::wstring format(const wchar_t* text, ...)
{
    va_list args;
    va_start(args, text);
    std::wstring out = qrvlog::formatWide(text, args);
    va_end(args);
    return out;
}

// Runs body with fd 2 redirected to a file and returns what was written.
template <typename Body>
std::string captureStderr(Body body)
{
    char path[] = "/tmp/qrv_log_stderrXXXXXX";
    const int file = mkstemp(path);
    const int saved = dup(STDERR_FILENO);
    dup2(file, STDERR_FILENO);
    body();
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string text;
    lseek(file, 0, SEEK_SET);
    char buffer[4096];
    for (ssize_t n; (n = read(file, buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<size_t>(n));
    close(file);
    unlink(path);
    return text;
}

}  // namespace

TEST(QrvLogFormat, ConversionsTheLibraryUses)
{
    const std::wstring wide = L"GPU \u00e9\u4e2d";
    EXPECT_EQ(format(L"process error: %d", -9), L"process error: -9");
    EXPECT_EQ(format(L"GPU(s) : %zu device(s)", size_t{18446744073709551615ull}),
              L"GPU(s) : 18446744073709551615 device(s)");
    EXPECT_EQ(format(L"name=%ls|", wide.c_str()), L"name=GPU \u00e9\u4e2d|");
    EXPECT_EQ(format(L"loaded: %hs", "/opt/caf\xc3\xa9/libX.so"), L"loaded: /opt/caf\u00e9/libX.so");
    EXPECT_EQ(format(L"%s and %hs", "a", "b"), L"a and b");
    EXPECT_EQ(format(L"%u%% %x %X %o", 7u, 255u, 255u, 8u), L"7% ff FF 10");
    EXPECT_EQ(format(L"[%5d|%-4d|%05d|%+d]", 42, 7, -42, 3), L"[   42|7   |-0042|+3]");
    EXPECT_EQ(format(L"%lld %c %lc", -1234567890123ll, 'A', static_cast<wint_t>(L'\u00df')),
              L"-1234567890123 A \u00df");
    EXPECT_EQ(format(L"%.2f", 2.345), L"2.35");
    EXPECT_EQ(format(L"%ls %hs", static_cast<const wchar_t*>(nullptr), static_cast<const char*>(nullptr)),
              L"(null) (null)");
    EXPECT_EQ(format(L"100%"), L"100%") << "a dangling percent is copied";
    EXPECT_EQ(format(L"%q"), L"%q") << "an unknown conversion is copied as written";
}

TEST(QrvLogFormat, IndependentOfTheCLocaleAndNeverTruncates)
{
    std::setlocale(LC_ALL, "C");
    const std::string longText(100000, 'x');
    EXPECT_EQ(format(L"%hs!", longText.c_str()).size(), longText.size() + 1);
    // Supplementary-plane characters, narrow and wide, under the C locale.
    EXPECT_EQ(format(L"%hs", "\xf0\x9f\x93\xb7"), std::wstring(1, static_cast<wchar_t>(0x1F4F7)));
    EXPECT_EQ(qrvlog::toUtf8(format(L"%ls", L"\U0001F4F7")), "\xf0\x9f\x93\xb7");
    // Invalid UTF-8 keeps its place as U+FFFD instead of vanishing.
    EXPECT_EQ(format(L"a%hsb", "\xff\xc3"), L"a\ufffd\ufffdb");
}

TEST(QrvLog, RecordsCarryLevelFileLineFunctionAndText)
{
    LogCapture capture;
    QRV_Log::Instance()->writeLog(LogLevel::Warning, "Converter/CConverter", 77, "void f()", L"x=%d", 5);
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, LogLevel::Warning);
    EXPECT_EQ(records[0].file, "Converter/CConverter");
    EXPECT_EQ(records[0].line, 77);
    EXPECT_EQ(records[0].function, "void f()");
    EXPECT_EQ(records[0].text, L"x=5");
}

TEST(QrvLog, EightThreadsLoseAndMixNoRecord)
{
    LogCapture capture;
    constexpr int kThreads = 8;
    constexpr int kPerThread = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kPerThread; ++i) {
                QRV_Log::Instance()->writeLog(LogLevel::Trace, "T", t, "fn", L"thread %d record %d %ls", t,
                                              i, L"\u00fc");
            }
        });
    }
    for (auto& thread : threads) thread.join();
    const auto records = capture.records();
    ASSERT_EQ(records.size(), static_cast<size_t>(kThreads * kPerThread));
    std::vector<int> next(kThreads, 0);
    for (const auto& record : records) {
        const int t = record.line;
        ASSERT_EQ(record.text, L"thread " + std::to_wstring(t) + L" record " + std::to_wstring(next[t]) + L" \u00fc");
        ++next[t];
    }
}

TEST(QrvLog, DefaultSinkWritesUpToTheSetLevelAsUtf8Lines)
{
    QRV_Log* log = QRV_Log::Instance();
    const std::string text = captureStderr([log] {
        log->setLevel(LogLevel::Warning);
        log->writeLog(LogLevel::Error, "F", 1, "g()", L"bad %hs", "\xc3\xa9");
        log->writeLog(LogLevel::Warning, "F", 2, "g()", L"skipped");
        log->writeLog(LogLevel::Trace, "F", 3, "g()", L"hidden");
        log->setLevel(LogLevel::Trace);
        log->writeLog(LogLevel::Trace, "F", 4, "g()", L"\r\nshown");
        log->setLevel(LogLevel::Warning);
    });
    EXPECT_NE(text.find("F:1 g(): bad \xc3\xa9\n"), std::string::npos) << text;
    EXPECT_NE(text.find("F:2 g(): skipped\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("hidden"), std::string::npos) << text;
    EXPECT_NE(text.find("F:4 g(): shown\n"), std::string::npos) << text;
}

TEST(QrvLog, SinkReplacesTheDefaultUntilCleared)
{
    QRV_Log* log = QRV_Log::Instance();
    std::vector<std::wstring> seen;
    const std::string text = captureStderr([&] {
        log->setSink([&seen](const qrvlog::LogRecord& record) { seen.push_back(record.text); });
        log->writeLog(LogLevel::Error, "F", 1, "g()", L"to sink");
        log->setSink(nullptr);
        log->writeLog(LogLevel::Error, "F", 2, "g()", L"to stderr");
    });
    EXPECT_EQ(seen, std::vector<std::wstring>{L"to sink"});
    EXPECT_EQ(text.find("to sink"), std::string::npos);
    EXPECT_NE(text.find("to stderr"), std::string::npos);
}
