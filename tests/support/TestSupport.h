// What the test programs share: child processes (a fresh copy of the running
// test among them), a directory that cleans up after itself, buffers fenced by
// guard pages, and the library's log records caught in the test's own process.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "QRV_Log.h"

namespace qrvtest {

struct ProcessResult {
    int exitCode = -1;  // -1 when the child did not exit normally (a signal, or killed at the timeout)
    std::string out;
    std::string err;
};

struct ProcessOptions {
    std::vector<std::pair<std::string, std::string>> env;  // set in the child's environment
    std::chrono::milliseconds timeout{120000};
    bool useEmulator = true;           // through QRV_TEST_EMULATOR, for cross-built programs
    std::vector<std::string> wrapper;  // before the emulator, e.g. {"unshare", "-m", "--"}
    std::string stdinText;             // written to the child's standard input
};

ProcessResult runProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});

// First use of a process-wide object is seen only in a process of its own: the
// test calls runSelf(), which runs this test alone in a new copy of the test
// program (through the emulator and options.wrapper), and inChild() is true
// there. With copyInto set, the program is first copied into that directory
// and run from there, so that what the library finds beside its executable
// comes from that directory.
bool inChild();
ProcessResult runSelf(const ProcessOptions& options = {}, const std::string& copyInto = "");
std::string selfPath();

// A directory under /tmp, removed with everything in it by the destructor.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// `size` bytes that end (Edge::Back) or start (Edge::Front) at an
// inaccessible page, so that a kernel touching a byte outside them faults.
class GuardedBuffer {
public:
    enum class Edge { Front, Back };
    GuardedBuffer(size_t size, Edge edge);
    ~GuardedBuffer();
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;
    uint8_t* data() const { return data_; }

private:
    void* mapping_ = nullptr;
    size_t mappingSize_ = 0;
    uint8_t* data_ = nullptr;
};

// Every log record written while it lives; the default sink comes back after.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::vector<qrvlog::LogRecord> records() const;
    // The texts (UTF-8) in order; with a file name, that file's only.
    std::vector<std::string> texts(const std::string& file = "") const;

private:
    mutable std::mutex mutex_;
    std::vector<qrvlog::LogRecord> records_;
};

std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);

}  // namespace qrvtest
