#include "EnvironmentReport.h"

#include <exception>
#include <mutex>
#include <string>
#include <vector>

#include "CIpmEnv.h"
#include "LogRouter.h"
#include "QRV_Log.h"

int EnvironmentReport::print(std::FILE* out, int printLevel)
{
    std::mutex mutex;
    std::vector<std::string> lines;
    qrvlog::QRV_Log::Instance()->setSink([&](const qrvlog::LogRecord& record) {
        if (record.file != "CIpmEnv" || record.level != qrvlog::LogLevel::Trace) return;
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(LogRouter::plainText(record));
    });
    // The first use in the process detects the machine and writes the report;
    // a display-device directory that cannot be read ends it early.
    try {
        ipm::CIpmEnv::Instance();
    } catch (const std::exception& error) {
        LogRouter::install(printLevel);
        std::fprintf(stderr, "ipm-run: the machine could not be described: %s\n", error.what());
        return 1;
    }
    LogRouter::install(printLevel);
    for (const std::string& line : lines) std::fprintf(out, "%s\n", line.c_str());
    return lines.empty() ? 1 : 0;
}
