// ipm-run: the command-line host of the QRV IPM library.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "CIpmFuncTable.h"
#include "EnvironmentReport.h"
#include "LogRouter.h"
#include "Options.h"
#include "QRV_Log.h"
#include "Runner.h"

namespace {

using ipmcommon::CIpmFuncTable;

int listAlgorithms()
{
    CIpmFuncTable* table = CIpmFuncTable::Instance();
    const auto& backends = CIpmFuncTable::getBackendNames();
    const auto& modules = CIpmFuncTable::getModuleNames();
    std::printf("Backends:");
    for (size_t b = 0; b < backends.size(); ++b)
        std::printf("%s %zu \"%s\"", b ? "," : "", b, qrvlog::toUtf8(backends[b]).c_str());
    std::printf("\nModules:");
    for (size_t m = 0; m < modules.size(); ++m)
        std::printf("%s %zu \"%s\"", m ? "," : "", m, qrvlog::toUtf8(modules[m]).c_str());
    std::printf("\n\nRegistered algorithms (BACKEND/MODULE/INDEX  name):\n");
    size_t count = 0;
    for (size_t b = 0; b < backends.size(); ++b) {
        for (size_t m = 0; m < modules.size(); ++m) {
            auto list = table->getAlgorithmList(static_cast<ipmcommon::EnProcessBackend>(b),
                                                static_cast<ipmcommon::EnIpmModule>(m));
            std::sort(list.begin(), list.end());
            for (const auto& [index, name] : list) {
                std::printf("  %s/%s/%d  %s\n", qrvlog::toUtf8(backends[b]).c_str(),
                            qrvlog::toUtf8(modules[m]).c_str(), index, qrvlog::toUtf8(name).c_str());
                ++count;
            }
        }
    }
    if (count == 0) std::printf("  (none)\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    std::string error;
    if (!Options::parse(std::vector<std::string>(argv + 1, argv + argc), options, error)) {
        std::fprintf(stderr, "ipm-run: %s\n", error.c_str());
        return Runner::kUsageError;
    }
    LogRouter::install(options.logLevel);
    switch (options.mode) {
    case Options::Mode::Help: std::fputs(Options::usage(), stdout); return 0;
    case Options::Mode::List: return listAlgorithms();
    case Options::Mode::Report: return EnvironmentReport::print(stdout, options.logLevel);
    case Options::Mode::Run: break;
    }
    return Runner::run(options);
}
