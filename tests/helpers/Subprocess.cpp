#include "Subprocess.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace qrvtest {

std::vector<std::string> emulatorCommand()
{
    std::vector<std::string> words;
    const char* text = std::getenv("QRV_TEST_EMULATOR");
    if (text == nullptr) return words;
    std::istringstream stream(text);
    for (std::string word; stream >> word;) words.push_back(word);
    return words;
}

ProcessResult runProcess(const std::vector<std::string>& argv, const ProcessOptions& options)
{
    std::vector<std::string> command = options.wrapper;
    if (options.useEmulator) {
        for (auto& word : emulatorCommand()) command.push_back(word);
    }
    command.insert(command.end(), argv.begin(), argv.end());

    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        bool replaced = false;
        for (const auto& [key, value] : options.env) {
            if (text.compare(0, key.size() + 1, key + "=") == 0) replaced = true;
        }
        if (!replaced) environment.push_back(text);
    }
    for (const auto& [key, value] : options.env) environment.push_back(key + "=" + value);

    std::vector<char*> args;
    for (auto& word : command) args.push_back(word.data());
    args.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& entry : environment) envp.push_back(entry.data());
    envp.push_back(nullptr);

    int outPipe[2];
    int errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
        return ProcessResult{};
    }
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(outPipe[1], STDOUT_FILENO);
        dup2(errPipe[1], STDERR_FILENO);
        if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0) _exit(126);
        execvpe(args[0], args.data(), envp.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);

    ProcessResult result;
    const auto deadline = std::chrono::steady_clock::now() + options.timeout;
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open = 2;
    while (open > 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result.timedOut = true;
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
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    return result;
}

}  // namespace qrvtest
