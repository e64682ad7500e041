#include "TestSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

extern char** environ;

namespace qrvtest {

constexpr const char* kChildVariable = "QRV_TEST_CHILD";

ProcessResult runProcess(const std::vector<std::string>& argv, const ProcessOptions& options)
{
    std::vector<std::string> command = options.wrapper;
    const char* emulator = std::getenv("QRV_TEST_EMULATOR");  // the cross build's, words separated by spaces
    std::istringstream words(options.useEmulator && emulator != nullptr ? emulator : "");
    for (std::string word; words >> word;) command.push_back(word);
    command.insert(command.end(), argv.begin(), argv.end());
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        bool replaced = false;
        for (const auto& setting : options.env) replaced |= text.rfind(setting.first + "=", 0) == 0;
        if (!replaced) environment.push_back(text);
    }
    for (const auto& [key, value] : options.env) environment.push_back(key + "=" + value);
    std::vector<char*> args;
    for (auto& word : command) args.push_back(word.data());
    args.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);

    int outPipe[2], errPipe[2], inPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0 || pipe2(inPipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2 failed");
    }
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(inPipe[0], STDIN_FILENO);
        dup2(outPipe[1], STDOUT_FILENO);
        dup2(errPipe[1], STDERR_FILENO);
        execvpe(args[0], args.data(), envp.data());
        _exit(127);
    }
    close(inPipe[0]);
    close(outPipe[1]);
    close(errPipe[1]);
    // The input is written from a thread of its own, so that a child that
    // prints while it reads never waits for us.
    std::thread writer([fd = inPipe[1], &options] {
        signal(SIGPIPE, SIG_IGN);
        for (size_t done = 0; done < options.stdinText.size();) {
            const ssize_t n = write(fd, options.stdinText.data() + done, options.stdinText.size() - done);
            if (n <= 0) break;
            done += static_cast<size_t>(n);
        }
        close(fd);
    });

    ProcessResult result;
    const auto deadline = std::chrono::steady_clock::now() + options.timeout;
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    for (int open = 2; open > 0;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            kill(pid, SIGKILL);
            break;
        }
        if (poll(fds, 2, static_cast<int>(left.count())) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
            char buffer[65536];
            const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                sinks[i]->append(buffer, static_cast<size_t>(n));
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (auto& fd : fds) {
        if (fd.fd >= 0) close(fd.fd);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
    writer.join();
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    return result;
}

bool inChild()
{
    return std::getenv(kChildVariable) != nullptr;
}

std::string selfPath()
{
    return std::filesystem::read_symlink("/proc/self/exe").string();
}

ProcessResult runSelf(const ProcessOptions& options, const std::string& copyInto)
{
    std::string program = selfPath();
    if (!copyInto.empty()) {
        const std::string copy = copyInto + "/" + std::filesystem::path(program).filename().string();
        std::filesystem::copy_file(program, copy, std::filesystem::copy_options::overwrite_existing);
        program = copy;
    }
    const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
    std::vector<std::string> argv = {
        program, std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name()};
    ProcessOptions childOptions = options;
    childOptions.env.emplace_back(kChildVariable, "1");
    return runProcess(argv, childOptions);
}

TempDir::TempDir()
{
    std::string pattern = "/tmp/qrv-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

GuardedBuffer::GuardedBuffer(size_t size, Edge edge)
{
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t usable = (size + page - 1) / page * page;
    mappingSize_ = usable + 2 * page;
    mapping_ = mmap(nullptr, mappingSize_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping_ == MAP_FAILED) throw std::runtime_error("mmap failed");
    auto* base = static_cast<uint8_t*>(mapping_);
    mprotect(base, page, PROT_NONE);
    mprotect(base + page + usable, page, PROT_NONE);
    data_ = edge == Edge::Front ? base + page : base + page + usable - size;
}

GuardedBuffer::~GuardedBuffer()
{
    munmap(mapping_, mappingSize_);
}

LogCapture::LogCapture()
{
    qrvlog::QRV_Log::Instance()->setSink([this](const qrvlog::LogRecord& record) {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.push_back(record);
    });
}

LogCapture::~LogCapture()
{
    qrvlog::QRV_Log::Instance()->setSink(nullptr);
}

std::vector<qrvlog::LogRecord> LogCapture::records() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
}

std::vector<std::string> LogCapture::texts(const std::string& file) const
{
    std::vector<std::string> texts;
    for (const auto& record : records()) {
        if (file.empty() || record.file == file) texts.push_back(qrvlog::toUtf8(record.text));
    }
    return texts;
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

}  // namespace qrvtest
