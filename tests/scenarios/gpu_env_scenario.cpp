// The GPU list of a fresh CIpmGpuEnv after Refresh, as this process sees the
// machine: its /sys/class/drm and the runtime libraries its loader finds.
//
//   gpu_env_scenario refresh [COMMAND...]
//     Refreshes, prints "REFRESH ok" (or "REFRESH filesystem_error ERRNO PATH"
//     when the display-device walk threw) and the list as "GPU" lines, then
//     runs each command and prints "CMD COMMAND RESULT SELECTED CUDA OPENCL
//     OPENGL GLVERSION" with the selection's getters. Commands:
//       name:TEXT:PREFERCUDA  opencl:P:D  cuda:N  gl:TEXT  clear  refresh
//   gpu_env_scenario concurrent
//     Refreshes and selects from several threads at once; exits 0 when no
//     getter saw a list in the middle of its rebuild.
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "CIpmGpuEnv.h"
#include "GpuRecords.h"
#include "LogCapture.h"

using ipm::CIpmGpuEnv;

namespace {

void print(const std::string& line)
{
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
}

void refresh(CIpmGpuEnv& gpu)
{
    try {
        gpu.Refresh();
        print("REFRESH\tok");
    } catch (const std::filesystem::filesystem_error& error) {
        print("REFRESH\tfilesystem_error\t" + std::to_string(error.code().value()) + "\t" +
              error.path1().string());
    }
    for (const std::string& line : qrvtest::gpuListLines(gpu)) print(line);
}

std::string runCommand(CIpmGpuEnv& gpu, const std::string& command)
{
    const size_t colon = command.find(':');
    const std::string verb = command.substr(0, colon);
    const std::string rest = colon == std::string::npos ? "" : command.substr(colon + 1);
    const size_t second = rest.rfind(':');
    if (verb == "name") {
        return gpu.selectByNameSubstring(rest.substr(0, second), rest.substr(second + 1) == "1") ? "true"
                                                                                                 : "false";
    }
    if (verb == "opencl") {
        return gpu.selectByOpenCL(std::stoi(rest.substr(0, second)), std::stoi(rest.substr(second + 1)))
                   ? "true"
                   : "false";
    }
    if (verb == "cuda") return gpu.selectByCudaIndex(std::stoi(rest)) ? "true" : "false";
    if (verb == "gl") gpu.setSelectedOpenGLVersion(rest);
    if (verb == "clear") gpu.clearSelection();
    if (verb == "refresh") refresh(gpu);
    return "-";
}

int refreshAndSelect(int argc, char** argv)
{
    CIpmGpuEnv gpu;
    refresh(gpu);
    for (int i = 2; i < argc; ++i) {
        const std::string result = runCommand(gpu, argv[i]);
        print("CMD\t" + qrvtest::escapeField(argv[i]) + "\t" + result + "\t" +
              std::to_string(gpu.getSelectedIndex()) + "\t" +
              std::to_string(static_cast<int>(gpu.selectedCudaState())) + "\t" +
              std::to_string(static_cast<int>(gpu.selectedOpenCLState())) + "\t" +
              std::to_string(static_cast<int>(gpu.selectedOpenGLState())) + "\t" +
              qrvtest::escapeField(gpu.getSelectedOpenGLVersion()));
    }
    return 0;
}

int concurrent()
{
    CIpmGpuEnv gpu;
    gpu.Refresh();
    const size_t expected = gpu.getGpuCount();
    if (expected == 0) {
        std::fputs("FAILED: the script gives no records\n", stderr);
        return 1;
    }
    constexpr int kRounds = 20;
    std::atomic<int> torn{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) gpu.Refresh();
        });
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds * 5; ++round) {
                gpu.selectByNameSubstring("", round % 2 == 0);
                gpu.setSelectedOpenGLVersion("4.6");
                // Refresh holds the list's lock from start to end, so no
                // getter sees a list being rebuilt.
                const size_t count = gpu.getGpuCount();
                const ipm::GpuInfo selected = gpu.getSelected();
                const ipm::GpuInfo first = gpu.getGpu(0);
                if (count != expected || first.index != 0) ++torn;
                if (selected.index < -1 || selected.index >= static_cast<int>(expected)) ++torn;
                if ((selected.openGLVersion == "4.6") !=
                    (selected.openGLState == ipm::En_ApiState::Available)) {
                    ++torn;
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    if (torn != 0) {
        std::fprintf(stderr, "FAILED: %d torn or foreign copies\n", torn.load());
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string name = argc > 1 ? argv[1] : "";
    if (name == "refresh") return refreshAndSelect(argc, argv);
    if (name == "concurrent") return concurrent();
    std::fprintf(stderr, "unknown scenario '%s'\n", name.c_str());
    return 2;
}
