// A CUDA driver whose cuInit hangs, as a driver does whose device stopped
// answering. The call announces itself by creating the file that
// QRV_TEST_CUINIT_ENTERED names and returns only once the file that
// QRV_TEST_CUINIT_RELEASE names exists (or after a minute, so that a broken
// test cannot leave a process behind). It then reports one device.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <unistd.h>

namespace {

bool exists(const char* path)
{
    return path != nullptr && access(path, F_OK) == 0;
}

}  // namespace

extern "C" {

int cuInit(unsigned int)
{
    if (const char* entered = std::getenv("QRV_TEST_CUINIT_ENTERED")) {
        if (FILE* file = std::fopen(entered, "w")) std::fclose(file);
    }
    const char* release = std::getenv("QRV_TEST_CUINIT_RELEASE");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!exists(release) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return 0;
}

int cuDriverGetVersion(int* version)
{
    *version = 12040;
    return 0;
}

int cuDeviceGetCount(int* count)
{
    *count = 1;
    return 0;
}

int cuDeviceGet(int* device, int ordinal)
{
    *device = ordinal;
    return 0;
}

int cuDeviceGetName(char* name, int length, int)
{
    std::strncpy(name, "Stub GPU after a slow cuInit", static_cast<size_t>(length) - 1);
    return 0;
}
}
