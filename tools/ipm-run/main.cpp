// ipm-run: the command-line host of the QRV IPM library.
#include <cstdio>
#include <algorithm>
#include <cstring>
#include <exception>
#include <string>

#include "CIpmEnv.h"
#include "CIpmFuncTable.h"
#include "QRV_Log.h"

namespace {

using ipmcommon::CIpmFuncTable;

void printUsage(FILE* out)
{
    std::fputs(
        "usage: ipm-run [--list] [--report] [--help]\n"
        "\n"
        "  --list     print the backends, the modules and every registered algorithm\n"
        "  --report   print the environment report: the processor family, the graphics\n"
        "             adapters found through sysfs, CUDA and OpenCL, and the selected one\n"
        "  --help     print this text\n",
        out);
}

int listAlgorithms()
{
    CIpmFuncTable* table = CIpmFuncTable::Instance();
    const auto& backends = CIpmFuncTable::getBackendNames();
    const auto& modules = CIpmFuncTable::getModuleNames();
    std::printf("Backends:");
    for (size_t b = 0; b < backends.size(); ++b) std::printf("%s %zu \"%s\"", b ? "," : "", b, qrvlog::toUtf8(backends[b]).c_str());
    std::printf("\nModules:");
    for (size_t m = 0; m < modules.size(); ++m) std::printf("%s %zu \"%s\"", m ? "," : "", m, qrvlog::toUtf8(modules[m]).c_str());
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

// The report as a person reads it: one report line per output line, without
// the CR LF that separates the lines inside a raw log.
int printEnvironmentReport()
{
    qrvlog::QRV_Log::Instance()->setSink([](const qrvlog::LogRecord& record) {
        if (record.file != "CIpmEnv") return;
        const size_t start = record.text.compare(0, 2, L"\r\n") == 0 ? 2 : 0;
        const std::string line = qrvlog::toUtf8(record.text.substr(start)) + "\n";
        std::fwrite(line.data(), 1, line.size(), stdout);
    });
    try {
        ipm::CIpmEnv::Instance();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "ipm-run: the environment could not be detected: %s\n", error.what());
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--list") == 0) return listAlgorithms();
        if (std::strcmp(argv[i], "--report") == 0) return printEnvironmentReport();
        if (std::strcmp(argv[i], "--help") == 0) {
            printUsage(stdout);
            return 0;
        }
        std::fprintf(stderr, "ipm-run: unknown option '%s'\n", argv[i]);
        printUsage(stderr);
        return 2;
    }
    return listAlgorithms();
}
