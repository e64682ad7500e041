// Faults from outside the library: a CUDA driver that hangs in cuInit. The
// faults of user plug-ins (register entry points breaking their contract,
// files that are no shared object, functions that throw) are injected by the
// plug-in loader's own tests, those of displayer callbacks by the manager's.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "Subprocess.h"

namespace fs = std::filesystem;

namespace {

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        out.push_back(text.substr(start, end - start));
    }
    return out;
}

}  // namespace

TEST(FaultInjection, HangingCuInitBlocksTheFirstEnvironmentUseButNeitherTheProducerNorTheTable)
{
    const fs::path dir = fs::temp_directory_path() / ("qrv_cuda_hang_" + std::to_string(getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir);
    qrvtest::ProcessOptions options;
    options.env = {{"LD_LIBRARY_PATH", HANGING_CUDA_DIR},
                   {"QRV_TEST_CUINIT_ENTERED", (dir / "entered").string()},
                   {"QRV_TEST_CUINIT_RELEASE", (dir / "release").string()}};
    const qrvtest::ProcessResult run = qrvtest::runProcess({CUDA_HANG_SCENARIO}, options);
    fs::remove_all(dir);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(lines(run.out), (std::vector<std::string>{
                                  "cuInit entered",
                                  "frame accepted",
                                  "serial RGB to gray dispatch: 1",
                                  "initialize waits",
                                  "environment waits",
                                  "serial YUV dispatch waits",
                                  "all returned after the release",
                                  "serial YUV dispatch: 1",
                                  "processed frame 7",
                                  "last adapter: Stub GPU after a slow cuInit, CUDA available",
                              }));
}
