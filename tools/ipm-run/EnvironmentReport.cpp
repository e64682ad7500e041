#include "EnvironmentReport.h"

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
    // The first use in the process detects the machine and writes the report.
    ipm::CIpmEnv::Instance();
    LogRouter::install(printLevel);
    for (const std::string& line : lines) std::fprintf(out, "%s\n", line.c_str());
    return lines.empty() ? 1 : 0;
}
