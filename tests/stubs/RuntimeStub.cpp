// A stand-in for the CUDA driver (built as libcuda.so.1) and the OpenCL loader (libOpenCL.so.1),
// scripted through variables read on every call. QRV_STUB_CUDA: "key=value;..." with init=N (cuInit's
// result), driver=N, names=A|!B (one device per name; "!" fails cuDeviceGet), entered-fd=N (cuInit
// first writes a byte there), sleep-ms=N (then sleeps). QRV_STUB_OPENCL: one platform,
// "version|name@vendor|...".
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::vector<std::string> split(const char* text, char separator)
{
    const std::string s = text != nullptr ? text : "";
    std::vector<std::string> parts;
    for (size_t start = 0, end = 0; end != std::string::npos && !s.empty(); start = end + 1)
        parts.push_back(s.substr(start, (end = s.find(separator, start)) - start));
    return parts;
}

std::string setting(const std::string& key, const char* fallback = "")
{
    for (const std::string& item : split(std::getenv("QRV_STUB_CUDA"), ';'))
        if (item.compare(0, key.size() + 1, key + "=") == 0) return item.substr(key.size() + 1);
    return fallback;
}

// Ids count from 1: the platform 1, its devices 1001 on.
int32_t list(size_t found, uintptr_t first, uint32_t entries, void** ids, uint32_t* count)
{
    if (count != nullptr) *count = static_cast<uint32_t>(found);
    for (size_t i = 0; ids != nullptr && i < entries && i < found; ++i)
        ids[i] = reinterpret_cast<void*>(first + i);
    return found > 0 ? 0 : -1;
}

// Cut to fit, as the runtimes do.
int answer(const std::string& text, size_t size, void* value)
{
    return std::snprintf(static_cast<char*>(value), size, "%s", text.c_str()) >= static_cast<int>(size);
}

}  // namespace

extern "C" {

int cuInit(unsigned int)
{
    if (!setting("entered-fd").empty() && write(std::stoi(setting("entered-fd")), "x", 1) != 1) return 999;
    for (long ms = std::stol(setting("sleep-ms", "0")); ms > 0; ms -= 10) usleep(10000);
    return std::stoi(setting("init", "0"));
}

int cuDriverGetVersion(int* version)
{
    *version = std::stoi(setting("driver", "12000"));
    return 0;
}

int cuDeviceGetCount(int* count)
{
    *count = static_cast<int>(split(setting("names").c_str(), '|').size());
    return 0;
}

int cuDeviceGet(int* device, int ordinal)
{
    *device = 100 + ordinal;  // unlike the ordinal, so that recording the handle shows
    return split(setting("names").c_str(), '|').at(static_cast<size_t>(ordinal))[0] == '!' ? 101 : 0;
}

int cuDeviceGetName(char* name, int length, int device)
{
    return answer(split(setting("names").c_str(), '|').at(static_cast<size_t>(device) - 100),
                  static_cast<size_t>(length), name);
}

int32_t clGetPlatformIDs(uint32_t entries, void** ids, uint32_t* count)
{
    return list(split(std::getenv("QRV_STUB_OPENCL"), '|').empty() ? 0 : 1, 1, entries, ids, count);
}

int32_t clGetPlatformInfo(void*, uint32_t, size_t size, void* value, size_t*)
{
    return answer(split(std::getenv("QRV_STUB_OPENCL"), '|').at(0), size, value);
}

int32_t clGetDeviceIDs(void*, uint64_t, uint32_t entries, void** ids, uint32_t* count)
{
    return list(split(std::getenv("QRV_STUB_OPENCL"), '|').size() - 1, 1001, entries, ids, count);
}

// 0x102B asks for the name, 0x102C for the vendor.
int32_t clGetDeviceInfo(void* id, uint32_t name, size_t size, void* value, size_t*)
{
    const std::string device =
        split(std::getenv("QRV_STUB_OPENCL"), '|').at(reinterpret_cast<uintptr_t>(id) - 1000);
    const size_t at = device.find('@');
    return answer(name == 0x102B ? device.substr(0, at) : device.substr(at + 1), size, value);
}
}
