// For hosts and plug-ins: the platform interface that libQRV_IPM is built on.
//
// Logger of the QRV platform.
//
// Every record carries a level, the source file name, the line, the calling
// function's signature and a message formatted from a wide printf-style
// format. Records go to one sink; the default sink writes a readable line per
// record to stderr for the levels up to the one set with setLevel().
#pragma once

#include <atomic>
#include <cstdarg>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace qrvlog {

enum class LogLevel : int32_t {
    Error = 1,    // a failure that changes what the library offers
    Warning = 2,  // something skipped
    Trace = 3,    // entry traces and reports
};

struct LogRecord {
    LogLevel level = LogLevel::Trace;
    std::string file;
    int line = 0;
    std::string function;
    std::wstring text;  // the formatted message
};

using LogSink = std::function<void(const LogRecord&)>;

// Formats a wide printf-style format independently of the C locale.
// Conversions: d i u x X o c s f e g p %, with the flags - + space # 0, a
// width and a precision (digits or *), and the length modifiers hh h l ll z j
// t L. %s and %hs take a narrow UTF-8 string, %ls a wide one; %c takes an int
// and %lc a wint_t. A conversion it does not know is copied as written.
std::wstring formatWide(const wchar_t* format, va_list args);

// Decodes UTF-8; a byte that does not begin a well-formed sequence becomes
// U+FFFD, so nothing is dropped silently.
std::wstring fromUtf8(const std::string& text);

// Encodes wide text (UTF-32, or UTF-16 surrogate pairs) as UTF-8.
std::string toUtf8(const std::wstring& text);

class QRV_Log {
public:
    static QRV_Log* Instance();

    void writeLog(LogLevel level, const char* file, int line, const char* function, const wchar_t* format,
                  ...);

    // Every later record goes to sink; an empty sink restores the default.
    // The sink is called on the logging thread, possibly from several threads
    // at once, so it must be thread-safe; exceptions it throws reach the
    // caller of writeLog.
    void setSink(LogSink sink);
    // Most verbose level the default sink writes (Warning at start).
    void setLevel(LogLevel level);
    LogLevel level() const;

private:
    QRV_Log() = default;
    void writeDefault_(const LogRecord& record);

    mutable std::mutex mutex_;
    std::shared_ptr<const LogSink> sink_;
    LogLevel level_ = LogLevel::Warning;
    // The most verbose level anyone receives: level_ for the default sink,
    // every level for a sink of the host's. writeLog drops a record above it
    // before formatting it, so that a trace call costs a comparison.
    std::atomic<int32_t> received_{static_cast<int32_t>(LogLevel::Warning)};
    std::mutex stderrMutex_;
};

}  // namespace qrvlog
