#include "LogRouter.h"

#include <cwchar>
#include <memory>
#include <mutex>
#include <unistd.h>

namespace {

const char kManagerFile[] = "CImageProcessMng";
const wchar_t kProcessError[] = L"process error: ";

struct Listener {
    std::function<void(int)> onStepFailed;
    std::function<void()> onManagerError;
};

std::mutex& listenerMutex()
{
    static std::mutex mutex;
    return mutex;
}

// Leaked on purpose, like the logger: the library logs from static
// destructors at process exit.
std::shared_ptr<const Listener>& listener()
{
    static auto* current = new std::shared_ptr<const Listener>();
    return *current;
}

std::shared_ptr<const Listener> currentListener()
{
    std::lock_guard<std::mutex> lock(listenerMutex());
    return listener();
}

void writeStderr(const std::string& line)
{
    size_t written = 0;
    while (written < line.size()) {
        const ssize_t n = ::write(STDERR_FILENO, line.data() + written, line.size() - written);
        if (n <= 0) break;
        written += static_cast<size_t>(n);
    }
}

}  // namespace

void LogRouter::install(int printLevel)
{
    if (printLevel > 0) qrvlog::QRV_Log::Instance()->setLevel(static_cast<qrvlog::LogLevel>(printLevel));
    qrvlog::QRV_Log::Instance()->setSink([printLevel](const qrvlog::LogRecord& record) {
        if (record.file == kManagerFile) {
            int code = 0;
            const bool failure = parseStepFailure(record, code);
            if (failure || isManagerError(record)) {
                if (auto current = currentListener()) {
                    if (failure && current->onStepFailed) current->onStepFailed(code);
                    if (!failure && current->onManagerError) current->onManagerError();
                }
            }
        }
        if (static_cast<int>(record.level) <= printLevel) writeStderr(formatLine(record));
    });
}

void LogRouter::setListener(std::function<void(int code)> onStepFailed, std::function<void()> onManagerError)
{
    auto next =
        std::make_shared<const Listener>(Listener{std::move(onStepFailed), std::move(onManagerError)});
    std::lock_guard<std::mutex> lock(listenerMutex());
    listener() = std::move(next);
}

void LogRouter::clearListener()
{
    std::lock_guard<std::mutex> lock(listenerMutex());
    listener().reset();
}

bool LogRouter::parseStepFailure(const qrvlog::LogRecord& record, int& code)
{
    const size_t prefix = std::wcslen(kProcessError);
    if (record.file != kManagerFile || record.text.compare(0, prefix, kProcessError) != 0) return false;
    const std::wstring number = record.text.substr(prefix);
    if (number.empty()) return false;
    wchar_t* end = nullptr;
    const long value = std::wcstol(number.c_str(), &end, 10);
    if (*end != L'\0') return false;
    code = static_cast<int>(value);
    return true;
}

bool LogRouter::isManagerError(const qrvlog::LogRecord& record)
{
    return record.file == kManagerFile && record.level == qrvlog::LogLevel::Error;
}

std::string LogRouter::plainText(const qrvlog::LogRecord& record)
{
    // The report's lines begin with CR LF, which separate them in a raw log;
    // one record per line reads better without.
    const size_t first = record.text.find_first_not_of(L"\r\n");
    return qrvlog::toUtf8(first == std::wstring::npos ? std::wstring() : record.text.substr(first));
}

std::string LogRouter::formatLine(const qrvlog::LogRecord& record)
{
    static const char* const kWords[] = {"?", "ERROR", "WARN", "TRACE"};
    const int level = static_cast<int>(record.level);
    return std::string("[") + kWords[level >= 1 && level <= 3 ? level : 0] + "] " + record.file + ":" +
           std::to_string(record.line) + " " + record.function + ": " + plainText(record) + "\n";
}
