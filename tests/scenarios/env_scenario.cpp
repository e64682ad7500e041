// First use of the environment facade in a fresh process.
//
//   env_scenario steps STEP...
//     Prints every log record as a "LOG" line and runs the steps in order:
//       instance  refresh  report  mark:NAME (prints "MARK NAME")
//       select-cuda:N  gl:TEXT  setenv:NAME=VALUE  cpu-type:N
//   env_scenario threads [throws]
//     Eight threads make the first Instance() call at the same moment; exits
//     0 when what they got back is right (see threads()).
//   env_scenario hang
//     Prints "calling Instance", calls it, prints "Instance returned".
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "CIpmEnv.h"
#include "LogCapture.h"

using ipm::CIpmEnv;

namespace {

void print(const std::string& line)
{
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
}

int fail(const std::string& what)
{
    std::fprintf(stderr, "FAILED: %s\n", what.c_str());
    return 1;
}

std::string argumentOf(const std::string& step) { return step.substr(step.find(':') + 1); }

int steps(int argc, char** argv)
{
    qrvtest::printRecordsToStdout();
    for (int i = 2; i < argc; ++i) {
        const std::string step = argv[i];
        const std::string verb = step.substr(0, step.find(':'));
        if (verb == "instance") {
            CIpmEnv::Instance();
        } else if (verb == "refresh") {
            CIpmEnv::Instance()->Refresh();
        } else if (verb == "report") {
            CIpmEnv::Instance()->writeCpuGpuStatus();
        } else if (verb == "mark") {
            print("MARK\t" + argumentOf(step));
        } else if (verb == "select-cuda") {
            if (!CIpmEnv::Instance()->gpu.selectByCudaIndex(std::stoi(argumentOf(step)))) return fail(step);
        } else if (verb == "gl") {
            CIpmEnv::Instance()->gpu.setSelectedOpenGLVersion(argumentOf(step));
        } else if (verb == "setenv") {
            const std::string assignment = argumentOf(step);
            const size_t equals = assignment.find('=');
            setenv(assignment.substr(0, equals).c_str(), assignment.substr(equals + 1).c_str(), 1);
        } else if (verb == "cpu-type") {
            CIpmEnv::Instance()->cpu.cpuType = static_cast<ipm::En_CpuType>(std::stoi(argumentOf(step)));
        } else {
            return fail("unknown step " + step);
        }
    }
    return 0;
}

bool sameCpu(const ipm::CIpmCpuEnv& a, const ipm::CIpmCpuEnv& b)
{
    return a.cpuType == b.cpuType && a.simdBits == b.simdBits && a.simdLevel == b.simdLevel &&
           a.hasAvx2 == b.hasAvx2 && a.hasAvx512F == b.hasAvx512F && a.hasAvx512BW == b.hasAvx512BW &&
           a.hasAmx == b.hasAmx && a.hasNeon == b.hasNeon && a.hasSve == b.hasSve && a.hasSve2 == b.hasSve2 &&
           a.sveBits == b.sveBits;
}

// Eight threads make the first Instance() call at the same moment. When
// detection succeeds, each must get back the detected processor after the one
// report. When the display-device walk throws, exactly one caller sees the
// exception and the others are released.
int threads(bool detectionThrows)
{
    std::atomic<int> headers{0};
    std::atomic<int> ends{0};
    qrvlog::QRV_Log::Instance()->setSink([&](const qrvlog::LogRecord& record) {
        if (record.file != "CIpmEnv") return;
        if (record.text == L"\r\n============ IPM Environment ============") ++headers;
        if (record.text == L"\r\n========== IPM Environment End ==========") ++ends;
    });
    ipm::CIpmCpuEnv detected;
    detected.Detect();

    constexpr int kThreads = 8;
    std::atomic<int> ready{0};
    std::atomic<int> early{0};
    std::atomic<int> wrongCpu{0};
    std::atomic<int> thrown{0};
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t) {
        workers.emplace_back([&] {
            ++ready;
            while (ready < kThreads) std::this_thread::yield();
            try {
                const CIpmEnv* env = CIpmEnv::Instance();
                if (ends == 0 && !detectionThrows) ++early;
                if (!sameCpu(env->cpu, detected)) ++wrongCpu;
            } catch (const std::filesystem::filesystem_error&) {
                ++thrown;
            }
        });
    }
    for (auto& worker : workers) worker.join();
    if (early != 0)
        return fail(std::to_string(early) + " callers returned before the first detection had finished");
    if (wrongCpu != 0)
        return fail(std::to_string(wrongCpu) + " callers saw another processor than Detect finds");
    const int reports = detectionThrows ? 0 : 1;
    if (headers != reports || ends != reports) {
        return fail(std::to_string(headers) + " report headers and " + std::to_string(ends) + " report ends");
    }
    if (thrown != (detectionThrows ? 1 : 0))
        return fail(std::to_string(thrown) + " callers saw the walk's exception");
    CIpmEnv::Instance();
    if (headers != reports) return fail("a later Instance() writes a report");
    return 0;
}

int hang()
{
    print("calling Instance");
    CIpmEnv::Instance();
    print("Instance returned");
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string name = argc > 1 ? argv[1] : "";
    if (name == "steps") return steps(argc, argv);
    if (name == "threads") return threads(argc > 2 && std::string(argv[2]) == "throws");
    if (name == "hang") return hang();
    std::fprintf(stderr, "unknown scenario '%s'\n", name.c_str());
    return 2;
}
