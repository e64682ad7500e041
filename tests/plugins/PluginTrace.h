// The trace that the test plug-ins and the loader's scenario programs share:
// one event per line, appended to the file that QRV_TEST_PLUGIN_TRACE names.
// Each write opens and closes the file, so events from a library's closing
// and from process exit still reach it.
#pragma once

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

static inline void appendPluginTrace(const std::string& event)
{
    const char* path = std::getenv("QRV_TEST_PLUGIN_TRACE");
    if (path == nullptr) return;
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    const std::string line = event + "\n";
    const ssize_t written = write(fd, line.data(), line.size());
    static_cast<void>(written);
    close(fd);
}
