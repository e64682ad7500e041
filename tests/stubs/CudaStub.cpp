// A stand-in for the CUDA driver library (libcuda.so.1), scripted through
// QRV_STUB_CUDA as "key=value;...":
//   init=N        result of cuInit (default 0); init=hang never returns
//   delay-ms=N    cuInit sleeps that long before it answers
//   driver=N      the driver version (default 12000); driver=fail fails without writing
//   count=N       the number of devices (default 0)
//   names=A|B     device names by ordinal; missing ones are empty
//   get-fails=N   cuDeviceGet fails for that ordinal, although it still writes a handle
// Built a second time without cuDeviceGetName, to stand for a driver that
// lacks one of its entry points.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "StubScript.h"

namespace {

constexpr int kSuccess = 0;
constexpr int kNotInitialized = 3;
constexpr int kInvalidDevice = 101;
// Handles differ from ordinals, so a caller that records the handle shows.
constexpr int kHandleBase = 100;

bool initialized = false;

std::string script() { return stub::script("QRV_STUB_CUDA"); }

int deviceCount() { return std::stoi(stub::value(script(), "count", "0")); }

}  // namespace

extern "C" {

int cuInit(unsigned int)
{
    const std::string text = script();
    std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(stub::value(text, "delay-ms", "0"))));
    const std::string result = stub::value(text, "init", "0");
    if (result == "hang") {
        std::fputs("cuInit: hanging\n", stderr);
        std::fflush(stderr);
        for (;;) std::this_thread::sleep_for(std::chrono::hours(1));
    }
    initialized = std::stoi(result) == kSuccess;
    return std::stoi(result);
}

int cuDriverGetVersion(int* version)
{
    const std::string driver = stub::value(script(), "driver", "12000");
    if (driver == "fail") return kNotInitialized;
    *version = std::stoi(driver);
    return kSuccess;
}

int cuDeviceGetCount(int* count)
{
    if (!initialized) return kNotInitialized;
    *count = deviceCount();
    return kSuccess;
}

int cuDeviceGet(int* device, int ordinal)
{
    if (!initialized) return kNotInitialized;
    if (ordinal < 0 || ordinal >= deviceCount()) return kInvalidDevice;
    *device = kHandleBase + ordinal;
    return std::to_string(ordinal) == stub::value(script(), "get-fails", "") ? kInvalidDevice : kSuccess;
}

#ifndef QRV_STUB_WITHOUT_DEVICE_NAME
int cuDeviceGetName(char* name, int length, int device)
{
    const int ordinal = device - kHandleBase;
    if (!initialized || ordinal < 0 || ordinal >= deviceCount() || length <= 0) return kInvalidDevice;
    const auto names = stub::split(stub::value(script(), "names", ""), '|');
    const std::string text = static_cast<size_t>(ordinal) < names.size() ? names[ordinal] : "";
    // Like the driver: the name is cut to fit the buffer, terminator included.
    const size_t kept = std::min(text.size(), static_cast<size_t>(length) - 1);
    std::memcpy(name, text.data(), kept);
    name[kept] = '\0';
    return kSuccess;
}
#endif
}
