// A stand-in for the OpenCL loader (libOpenCL.so.1), scripted through
// QRV_STUB_OPENCL (read on every call): platforms separated by ';', each
// "version|name@vendor|...". Every device matches every device type. Ids count
// from 1: platform p, device p * 1000 + d.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::vector<std::string> split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    for (size_t start = 0, end = 0; end != std::string::npos && !text.empty(); start = end + 1) {
        parts.push_back(text.substr(start, (end = text.find(separator, start)) - start));
    }
    return parts;
}

// Platform p as its version followed by its devices.
std::vector<std::string> platform(uintptr_t p)
{
    const char* script = std::getenv("QRV_STUB_OPENCL");
    return split(split(script != nullptr ? script : "", ';').at(p - 1), '|');
}

int32_t list(size_t found, uintptr_t base, uint32_t entries, void** ids, uint32_t* count)
{
    if (count != nullptr) *count = static_cast<uint32_t>(found);
    for (size_t i = 0; ids != nullptr && i < entries && i < found; ++i)
        ids[i] = reinterpret_cast<void*>(base + i + 1);
    return found > 0 ? 0 : -1;
}

int32_t answer(const std::string& text, size_t size, void* value)
{
    return std::snprintf(static_cast<char*>(value), size, "%s", text.c_str()) < static_cast<int>(size) ? 0
                                                                                                       : -30;
}

}  // namespace

extern "C" {

int32_t clGetPlatformIDs(uint32_t entries, void** ids, uint32_t* count)
{
    const char* script = std::getenv("QRV_STUB_OPENCL");
    return list(split(script != nullptr ? script : "", ';').size(), 0, entries, ids, count);
}

int32_t clGetPlatformInfo(void* id, uint32_t, size_t size, void* value, size_t*)
{
    return answer(platform(reinterpret_cast<uintptr_t>(id))[0], size, value);
}

int32_t clGetDeviceIDs(void* id, uint64_t, uint32_t entries, void** ids, uint32_t* count)
{
    const uintptr_t p = reinterpret_cast<uintptr_t>(id);
    return list(platform(p).size() - 1, p * 1000, entries, ids, count);
}

// 0x102B asks for the name, 0x102C for the vendor.
int32_t clGetDeviceInfo(void* id, uint32_t name, size_t size, void* value, size_t*)
{
    const uintptr_t p = reinterpret_cast<uintptr_t>(id) / 1000, d = reinterpret_cast<uintptr_t>(id) % 1000;
    const std::string device = platform(p).at(d);
    const size_t at = device.find('@');
    return answer(name == 0x102B ? device.substr(0, at) : device.substr(at + 1), size, value);
}
}
