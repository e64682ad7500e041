// Runs a program as a child process and collects what it printed.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace qrvtest {

struct ProcessResult {
    int exitCode = -1;  // -1 when the child did not exit normally
    int signal = 0;     // the signal that ended the child, or 0
    bool timedOut = false;
    std::string out;
    std::string err;
};

struct ProcessOptions {
    std::vector<std::pair<std::string, std::string>> env;  // added to (or replacing in) the environment
    std::string cwd;                                        // empty: the parent's
    std::chrono::milliseconds timeout{120000};
    bool useEmulator = true;  // run through QRV_TEST_EMULATOR for cross-built programs
    std::vector<std::string> wrapper;  // prefix before the emulator, e.g. {"unshare", "-m", "--"}
};

// The emulator command of a cross build (empty natively), from the
// QRV_TEST_EMULATOR variable that the build passes to the tests.
std::vector<std::string> emulatorCommand();

ProcessResult runProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});

}  // namespace qrvtest
