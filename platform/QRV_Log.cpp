#include "QRV_Log.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <limits>
#include <unistd.h>

namespace qrvlog {
namespace {

constexpr wchar_t kReplacement = 0xFFFD;

std::wstring decodeUtf8(const char* text, size_t length)
{
    std::wstring out;
    out.reserve(length);
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    size_t i = 0;
    while (i < length) {
        const unsigned char lead = bytes[i];
        uint32_t code = 0;
        size_t extra = 0;
        uint32_t minimum = 0;
        if (lead < 0x80) {
            out.push_back(static_cast<wchar_t>(lead));
            ++i;
            continue;
        }
        if ((lead & 0xE0) == 0xC0) {
            code = lead & 0x1F, extra = 1, minimum = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            code = lead & 0x0F, extra = 2, minimum = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            code = lead & 0x07, extra = 3, minimum = 0x10000;
        } else {
            out.push_back(kReplacement);
            ++i;
            continue;
        }
        size_t k = 1;
        for (; k <= extra && i + k < length && (bytes[i + k] & 0xC0) == 0x80; ++k) {
            code = (code << 6) | (bytes[i + k] & 0x3F);
        }
        if (k <= extra || code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
            out.push_back(kReplacement);
            ++i;
            continue;
        }
        out.push_back(static_cast<wchar_t>(code));
        i += extra + 1;
    }
    return out;
}

void appendUtf8(std::string& out, uint32_t code)
{
    if (code < 0x80) {
        out.push_back(static_cast<char>(code));
    } else if (code < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (code >> 6)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else if (code < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (code >> 12)));
        out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (code >> 18)));
        out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    }
}

struct Spec {
    bool left = false, plus = false, space = false, alt = false, zero = false;
    int width = 0;
    int precision = -1;
    std::string length;
};

void pad(std::wstring& out, std::wstring body, const Spec& spec, bool numeric)
{
    const size_t width = spec.width > 0 ? static_cast<size_t>(spec.width) : 0;
    if (body.size() >= width) {
        out += body;
        return;
    }
    const size_t fill = width - body.size();
    if (spec.left) {
        out += body;
        out.append(fill, L' ');
    } else if (spec.zero && numeric) {
        size_t signEnd = (!body.empty() && (body[0] == L'-' || body[0] == L'+' || body[0] == L' ')) ? 1 : 0;
        if (body.size() > signEnd + 1 && body[signEnd] == L'0' &&
            (body[signEnd + 1] == L'x' || body[signEnd + 1] == L'X')) {
            signEnd += 2;
        }
        body.insert(signEnd, fill, L'0');
        out += body;
    } else {
        out.append(fill, L' ');
        out += body;
    }
}

std::wstring widenAscii(const char* begin, const char* end)
{
    return std::wstring(begin, end);
}

std::wstring formatInteger(uintmax_t magnitude, bool negative, int base, bool upper, const Spec& spec)
{
    char digits[72];
    auto result = std::to_chars(digits, digits + sizeof digits, magnitude, base);
    std::string body(digits, result.ptr);
    if (upper) {
        for (char& c : body) {
            if (c >= 'a' && c <= 'f') c = static_cast<char>(c - 'a' + 'A');
        }
    }
    if (spec.precision >= 0) {
        if (spec.precision == 0 && magnitude == 0) body.clear();
        if (body.size() < static_cast<size_t>(spec.precision)) {
            body.insert(0, static_cast<size_t>(spec.precision) - body.size(), '0');
        }
    }
    std::string prefix;
    if (negative)
        prefix = "-";
    else if (base == 10 && spec.plus)
        prefix = "+";
    else if (base == 10 && spec.space)
        prefix = " ";
    if (spec.alt && magnitude != 0) {
        if (base == 16) prefix += upper ? "0X" : "0x";
        if (base == 8 && (body.empty() || body[0] != '0')) body.insert(0, "0");
    }
    body.insert(0, prefix);
    return widenAscii(body.data(), body.data() + body.size());
}

std::wstring formatFloating(long double value, wchar_t conversion, const Spec& spec)
{
    const int precision = spec.precision >= 0 ? spec.precision : 6;
    std::chars_format style = std::chars_format::fixed;
    if (conversion == L'e' || conversion == L'E') style = std::chars_format::scientific;
    if (conversion == L'g' || conversion == L'G') style = std::chars_format::general;
    char digits[512];
    auto result = std::to_chars(digits, digits + sizeof digits, static_cast<double>(value), style, precision);
    std::string body = result.ec == std::errc() ? std::string(digits, result.ptr) : std::string("?");
    if (body[0] != '-' && spec.plus)
        body.insert(0, "+");
    else if (body[0] != '-' && spec.space)
        body.insert(0, " ");
    if (conversion == L'E' || conversion == L'G') {
        for (char& c : body) {
            if (c == 'e') c = 'E';
        }
    }
    return widenAscii(body.data(), body.data() + body.size());
}

}  // namespace

std::wstring fromUtf8(const std::string& text)
{
    return decodeUtf8(text.data(), text.size());
}

std::string toUtf8(const std::wstring& text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        uint32_t code = static_cast<uint32_t>(text[i]);
        if (code >= 0xD800 && code <= 0xDBFF && i + 1 < text.size()) {
            const uint32_t low = static_cast<uint32_t>(text[i + 1]);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                ++i;
            }
        }
        if (code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) code = kReplacement;
        appendUtf8(out, code);
    }
    return out;
}

std::wstring formatWide(const wchar_t* format, va_list args)
{
    std::wstring out;
    if (format == nullptr) return out;
    const wchar_t* p = format;
    while (*p != L'\0') {
        if (*p != L'%') {
            out.push_back(*p++);
            continue;
        }
        const wchar_t* start = p++;
        if (*p == L'%') {
            out.push_back(L'%');
            ++p;
            continue;
        }
        Spec spec;
        for (;; ++p) {
            if (*p == L'-')
                spec.left = true;
            else if (*p == L'+')
                spec.plus = true;
            else if (*p == L' ')
                spec.space = true;
            else if (*p == L'#')
                spec.alt = true;
            else if (*p == L'0')
                spec.zero = true;
            else
                break;
        }
        if (*p == L'*') {
            spec.width = va_arg(args, int);
            if (spec.width < 0) {
                spec.left = true;
                spec.width = -spec.width;
            }
            ++p;
        } else {
            while (*p >= L'0' && *p <= L'9') spec.width = spec.width * 10 + (*p++ - L'0');
        }
        if (*p == L'.') {
            ++p;
            spec.precision = 0;
            if (*p == L'*') {
                spec.precision = va_arg(args, int);
                ++p;
            } else {
                while (*p >= L'0' && *p <= L'9') spec.precision = spec.precision * 10 + (*p++ - L'0');
            }
        }
        while (*p == L'h' || *p == L'l' || *p == L'z' || *p == L'j' || *p == L't' || *p == L'L') {
            spec.length.push_back(static_cast<char>(*p++));
        }
        const wchar_t conversion = *p;
        if (conversion == L'\0') {
            out.append(start);
            break;
        }
        ++p;
        const std::string& len = spec.length;
        switch (conversion) {
        case L'd':
        case L'i': {
            intmax_t value;
            if (len == "ll")
                value = va_arg(args, long long);
            else if (len == "l")
                value = va_arg(args, long);
            else if (len == "z" || len == "t")
                value = va_arg(args, ptrdiff_t);
            else if (len == "j")
                value = va_arg(args, intmax_t);
            else if (len == "hh")
                value = static_cast<signed char>(va_arg(args, int));
            else if (len == "h")
                value = static_cast<short>(va_arg(args, int));
            else
                value = va_arg(args, int);
            const uintmax_t magnitude =
                value < 0 ? uintmax_t(0) - static_cast<uintmax_t>(value) : static_cast<uintmax_t>(value);
            pad(out, formatInteger(magnitude, value < 0, 10, false, spec), spec, spec.precision < 0);
            break;
        }
        case L'u':
        case L'x':
        case L'X':
        case L'o': {
            uintmax_t value;
            if (len == "ll")
                value = va_arg(args, unsigned long long);
            else if (len == "l")
                value = va_arg(args, unsigned long);
            else if (len == "z" || len == "t")
                value = va_arg(args, size_t);
            else if (len == "j")
                value = va_arg(args, uintmax_t);
            else if (len == "hh")
                value = static_cast<unsigned char>(va_arg(args, unsigned int));
            else if (len == "h")
                value = static_cast<unsigned short>(va_arg(args, unsigned int));
            else
                value = va_arg(args, unsigned int);
            const int base = conversion == L'u' ? 10 : conversion == L'o' ? 8 : 16;
            pad(out, formatInteger(value, false, base, conversion == L'X', spec), spec, spec.precision < 0);
            break;
        }
        case L'c': {
            std::wstring body(1, len == "l"
                                     ? static_cast<wchar_t>(va_arg(args, wint_t))
                                     : static_cast<wchar_t>(static_cast<unsigned char>(va_arg(args, int))));
            pad(out, body, spec, false);
            break;
        }
        case L's': {
            std::wstring body;
            if (len == "l") {
                const wchar_t* text = va_arg(args, const wchar_t*);
                body = text ? std::wstring(text) : std::wstring(L"(null)");
            } else {
                const char* text = va_arg(args, const char*);
                body =
                    text ? decodeUtf8(text, std::char_traits<char>::length(text)) : std::wstring(L"(null)");
            }
            if (spec.precision >= 0 && body.size() > static_cast<size_t>(spec.precision)) {
                body.resize(static_cast<size_t>(spec.precision));
            }
            pad(out, body, spec, false);
            break;
        }
        case L'f':
        case L'F':
        case L'e':
        case L'E':
        case L'g':
        case L'G': {
            const long double value = len == "L" ? va_arg(args, long double) : va_arg(args, double);
            pad(out, formatFloating(value, conversion, spec), spec, true);
            break;
        }
        case L'p': {
            const void* pointer = va_arg(args, void*);
            Spec hex = spec;
            hex.alt = true;
            pad(out, formatInteger(reinterpret_cast<uintptr_t>(pointer), false, 16, false, hex), spec, false);
            break;
        }
        default: out.append(start, p); break;
        }
    }
    return out;
}

QRV_Log* QRV_Log::Instance()
{
    // Never destroyed: static objects of other libraries log from their
    // destructors at process exit, after this library's statics would be gone.
    static QRV_Log* const instance = new QRV_Log();
    return instance;
}

void QRV_Log::writeLog(LogLevel level, const char* file, int line, const char* function,
                       const wchar_t* format, ...)
{
    if (static_cast<int32_t>(level) > received_.load(std::memory_order_relaxed)) return;
    LogRecord record;
    record.level = level;
    record.file = file ? file : "";
    record.line = line;
    record.function = function ? function : "";
    va_list args;
    va_start(args, format);
    try {
        record.text = formatWide(format, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);

    std::shared_ptr<const LogSink> sink;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        sink = sink_;
    }
    if (sink) {
        (*sink)(record);
    } else {
        writeDefault_(record);
    }
}

void QRV_Log::setSink(LogSink sink)
{
    std::shared_ptr<const LogSink> next;
    if (sink) next = std::make_shared<const LogSink>(std::move(sink));
    std::lock_guard<std::mutex> lock(mutex_);
    sink_ = std::move(next);
    received_.store(sink_ ? std::numeric_limits<int32_t>::max() : static_cast<int32_t>(level_),
                    std::memory_order_relaxed);
}

void QRV_Log::setLevel(LogLevel level)
{
    std::lock_guard<std::mutex> lock(mutex_);
    level_ = level;
    if (!sink_) received_.store(static_cast<int32_t>(level_), std::memory_order_relaxed);
}

LogLevel QRV_Log::level() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return level_;
}

void QRV_Log::writeDefault_(const LogRecord& record)
{
    if (static_cast<int>(record.level) > static_cast<int>(level())) return;
    static const char* const kWords[] = {"?", "ERROR", "WARN", "TRACE"};
    const int levelValue = static_cast<int>(record.level);
    const char* word = levelValue >= 1 && levelValue <= 3 ? kWords[levelValue] : kWords[0];
    // Report lines start with CR LF to separate them in a raw log; a line per
    // record reads better without them.
    std::wstring text = record.text;
    const size_t first = text.find_first_not_of(L"\r\n");
    text.erase(0, first == std::wstring::npos ? text.size() : first);
    std::string line = std::string("[") + word + "] " + record.file + ":" + std::to_string(record.line) +
                       " " + record.function + ": " + toUtf8(text) + "\n";
    std::lock_guard<std::mutex> lock(stderrMutex_);
    size_t written = 0;
    while (written < line.size()) {
        const ssize_t n = ::write(STDERR_FILENO, line.data() + written, line.size() - written);
        if (n <= 0) break;
        written += static_cast<size_t>(n);
    }
}

}  // namespace qrvlog
