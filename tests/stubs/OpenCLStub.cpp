// A stand-in for the OpenCL loader (libOpenCL.so.1), scripted through
// QRV_STUB_OPENCL: platforms separated by ';', each "version|device|device",
// each device "name@vendor", a GPU unless written "cpu:name@vendor".
//   A first entry "!platforms" makes clGetPlatformIDs fail.
//   A version written "!version" makes that platform's clGetDeviceIDs fail.
// Failing calls still write counts and ids, so a caller that ignores the
// result shows. Built a second time without clGetDeviceInfo.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "StubScript.h"

namespace {

constexpr int32_t kSuccess = 0;
constexpr int32_t kDeviceNotFound = -1;
constexpr int32_t kInvalidValue = -30;
constexpr int32_t kInvalidPlatform = -32;
constexpr int32_t kInvalidDevice = -33;
constexpr int32_t kPlatformNotFound = -1001;
constexpr uint32_t kPlatformVersion = 0x0901;
constexpr uint32_t kDeviceName = 0x102B;
constexpr uint32_t kDeviceVendor = 0x102C;
constexpr uint64_t kTypeCpu = 1u << 1;
constexpr uint64_t kTypeGpu = 1u << 2;

struct Device {
    uint64_t type;
    std::string name;
    std::string vendor;
};

struct Platform {
    std::string version;
    bool devicesFail;
    std::vector<Device> devices;
};

struct Script {
    bool platformsFail = false;
    std::vector<Platform> platforms;
};

Script readScript()
{
    Script script;
    const std::string text = stub::script("QRV_STUB_OPENCL");
    if (text.empty()) return script;
    for (const std::string& entry : stub::split(text, ';')) {
        if (entry == "!platforms") {
            script.platformsFail = true;
            continue;
        }
        auto fields = stub::split(entry, '|');
        Platform platform{fields[0], false, {}};
        if (!platform.version.empty() && platform.version[0] == '!') {
            platform.devicesFail = true;
            platform.version.erase(0, 1);
        }
        for (size_t i = 1; i < fields.size(); ++i) {
            std::string device = fields[i];
            uint64_t type = kTypeGpu;
            if (device.compare(0, 4, "cpu:") == 0) {
                type = kTypeCpu;
                device.erase(0, 4);
            }
            const size_t at = device.find('@');
            platform.devices.push_back(
                {type, device.substr(0, at), at == std::string::npos ? "" : device.substr(at + 1)});
        }
        script.platforms.push_back(std::move(platform));
    }
    return script;
}

// Ids are 1-based positions, never null.
void* platformId(size_t p) { return reinterpret_cast<void*>(static_cast<uintptr_t>(p + 1)); }
void* deviceId(size_t p, size_t d)
{
    return reinterpret_cast<void*>(static_cast<uintptr_t>((p + 1) * 1000 + d + 1));
}

const Platform* findPlatform(const Script& script, void* id)
{
    const uintptr_t p = reinterpret_cast<uintptr_t>(id);
    return p >= 1 && p <= script.platforms.size() ? &script.platforms[p - 1] : nullptr;
}

#ifndef QRV_STUB_WITHOUT_DEVICE_INFO
const Device* findDevice(const Script& script, void* id)
{
    const uintptr_t value = reinterpret_cast<uintptr_t>(id);
    const uintptr_t p = value / 1000, d = value % 1000;
    if (p < 1 || p > script.platforms.size()) return nullptr;
    const auto& devices = script.platforms[p - 1].devices;
    return d >= 1 && d <= devices.size() ? &devices[d - 1] : nullptr;
}
#endif

int32_t answerText(const std::string& text, size_t size, void* value, size_t* sizeReturned)
{
    if (sizeReturned != nullptr) *sizeReturned = text.size() + 1;
    if (value == nullptr) return kSuccess;
    if (size < text.size() + 1) return kInvalidValue;
    std::memcpy(value, text.c_str(), text.size() + 1);
    return kSuccess;
}

}  // namespace

extern "C" {

int32_t clGetPlatformIDs(uint32_t entries, void** platforms, uint32_t* count)
{
    const Script script = readScript();
    if (count != nullptr) *count = static_cast<uint32_t>(script.platforms.size());
    for (size_t p = 0; platforms != nullptr && p < entries && p < script.platforms.size(); ++p) {
        platforms[p] = platformId(p);
    }
    if (script.platformsFail) return kInvalidValue;
    return script.platforms.empty() ? kPlatformNotFound : kSuccess;
}

int32_t clGetPlatformInfo(void* platform, uint32_t name, size_t size, void* value, size_t* sizeReturned)
{
    const Script script = readScript();
    const Platform* found = findPlatform(script, platform);
    if (found == nullptr) return kInvalidPlatform;
    if (name != kPlatformVersion) return kInvalidValue;
    return answerText(found->version, size, value, sizeReturned);
}

int32_t clGetDeviceIDs(void* platform, uint64_t type, uint32_t entries, void** devices, uint32_t* count)
{
    const Script script = readScript();
    const Platform* found = findPlatform(script, platform);
    if (found == nullptr) return kInvalidPlatform;
    const size_t p = reinterpret_cast<uintptr_t>(platform) - 1;
    uint32_t matching = 0;
    for (size_t d = 0; d < found->devices.size(); ++d) {
        if ((found->devices[d].type & type) == 0) continue;
        if (devices != nullptr && matching < entries) devices[matching] = deviceId(p, d);
        ++matching;
    }
    if (count != nullptr) *count = matching;
    if (found->devicesFail) return kInvalidValue;
    return matching == 0 ? kDeviceNotFound : kSuccess;
}

#ifndef QRV_STUB_WITHOUT_DEVICE_INFO
int32_t clGetDeviceInfo(void* device, uint32_t name, size_t size, void* value, size_t* sizeReturned)
{
    const Script script = readScript();
    const Device* found = findDevice(script, device);
    if (found == nullptr) return kInvalidDevice;
    if (name == kDeviceName) return answerText(found->name, size, value, sizeReturned);
    if (name == kDeviceVendor) return answerText(found->vendor, size, value, sizeReturned);
    return kInvalidValue;
}
#endif
}
