#include "CIpmGpuEnv.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <map>

namespace ipm {
namespace {

std::string toLower(std::string text)
{
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string scrubName(const std::string& text)
{
    std::string kept;
    kept.reserve(text.size());
    for (char c : text) {
        if (std::strchr(" ()[]{}", c) == nullptr || c == '\0') kept.push_back(c);
    }
    return toLower(std::move(kept));
}

std::string normalizeVendor(std::string text)
{
    const std::string lowered = toLower(std::move(text));
    if (lowered.find("nvidia") != std::string::npos) return "NVIDIA";
    if (lowered.find("intel") != std::string::npos) return "Intel";
    if (lowered.find("amd") != std::string::npos || lowered.find("advanced micro") != std::string::npos) {
        return "AMD";
    }
    return "Unknown";
}

En_GpuType vendorToType(const std::string& text)
{
    if (text == "NVIDIA") return En_GpuType::NVIDIA;
    if (text == "Intel" || text == "AMD") return En_GpuType::Internal;
    return En_GpuType::None;
}

// A runtime library opened for one probe and closed when the probe ends.
class RuntimeLibrary {
public:
    RuntimeLibrary(const char* name, const char* fallback)
    {
        handle_ = dlopen(name, RTLD_LAZY);
        if (handle_ == nullptr) handle_ = dlopen(fallback, RTLD_LAZY);
    }
    ~RuntimeLibrary()
    {
        if (handle_ != nullptr) dlclose(handle_);
    }
    RuntimeLibrary(const RuntimeLibrary&) = delete;
    RuntimeLibrary& operator=(const RuntimeLibrary&) = delete;

    bool isOpen() const { return handle_ != nullptr; }
    template <typename Function>
    bool find(const char* symbol, Function& function) const
    {
        function = reinterpret_cast<Function>(dlsym(handle_, symbol));
        return function != nullptr;
    }

private:
    void* handle_ = nullptr;
};

constexpr size_t kTextBuffer = 256;

// The driver and loader entry points, with the types of their published headers.
using CuInit = int (*)(unsigned int);
using CuDriverGetVersion = int (*)(int*);
using CuDeviceGetCount = int (*)(int*);
using CuDeviceGet = int (*)(int*, int);
using CuDeviceGetName = int (*)(char*, int, int);

using ClPlatformId = void*;
using ClDeviceId = void*;
using ClGetPlatformIDs = int32_t (*)(uint32_t, ClPlatformId*, uint32_t*);
using ClGetPlatformInfo = int32_t (*)(ClPlatformId, uint32_t, size_t, void*, size_t*);
using ClGetDeviceIDs = int32_t (*)(ClPlatformId, uint64_t, uint32_t, ClDeviceId*, uint32_t*);
using ClGetDeviceInfo = int32_t (*)(ClDeviceId, uint32_t, size_t, void*, size_t*);

constexpr int32_t kClSuccess = 0;
constexpr uint32_t kClPlatformVersion = 0x0901;
constexpr uint64_t kClDeviceTypeAll = 0xFFFFFFFF;
constexpr uint32_t kClDeviceName = 0x102B;
constexpr uint32_t kClDeviceVendor = 0x102C;

}  // namespace

size_t CIpmGpuEnv::getGpuCount() const
{
    std::lock_guard<std::mutex> lock(mtx_);
    return gpus_.size();
}

GpuInfo CIpmGpuEnv::getGpu(size_t index) const
{
    std::lock_guard<std::mutex> lock(mtx_);
    return index < gpus_.size() ? gpus_[index] : GpuInfo{};
}

int CIpmGpuEnv::getSelectedIndex() const
{
    std::lock_guard<std::mutex> lock(mtx_);
    return selectedIndex_;
}

bool CIpmGpuEnv::hasValidSelection_() const
{
    return selectedIndex_ >= 0 && selectedIndex_ < static_cast<int32_t>(gpus_.size());
}

GpuInfo CIpmGpuEnv::getSelected() const
{
    std::lock_guard<std::mutex> lock(mtx_);
    return hasValidSelection_() ? gpus_[static_cast<size_t>(selectedIndex_)] : GpuInfo{};
}

bool CIpmGpuEnv::selectByNameSubstring(const std::string& text, bool preferCuda)
{
    std::lock_guard<std::mutex> lock(mtx_);
    if (gpus_.empty()) return false;
    const std::string needle = toLower(text);
    int32_t candidate = -1;
    for (const GpuInfo& gpu : gpus_) {
        if (toLower(gpu.name).find(needle) == std::string::npos &&
            toLower(gpu.vendor).find(needle) == std::string::npos) {
            continue;
        }
        if (candidate < 0) candidate = gpu.index;
        if (preferCuda && gpu.cudaState == En_ApiState::Available) {
            candidate = gpu.index;
            break;
        }
    }
    if (candidate < 0) return false;
    selectedIndex_ = candidate;
    return true;
}

bool CIpmGpuEnv::selectByCudaIndex(int cudaIndex)
{
    std::lock_guard<std::mutex> lock(mtx_);
    for (const GpuInfo& gpu : gpus_) {
        if (gpu.cudaIndex == cudaIndex) {
            selectedIndex_ = gpu.index;
            return true;
        }
    }
    return false;
}

bool CIpmGpuEnv::selectByOpenCL(int platform, int device)
{
    std::lock_guard<std::mutex> lock(mtx_);
    for (const GpuInfo& gpu : gpus_) {
        if (gpu.openCLPlatform == platform && gpu.openCLDevice == device) {
            selectedIndex_ = gpu.index;
            return true;
        }
    }
    return false;
}

void CIpmGpuEnv::clearSelection()
{
    std::lock_guard<std::mutex> lock(mtx_);
    selectedIndex_ = -1;
}

void CIpmGpuEnv::setSelectedOpenGLVersion(const std::string& version)
{
    std::lock_guard<std::mutex> lock(mtx_);
    if (!hasValidSelection_()) return;
    GpuInfo& gpu = gpus_[static_cast<size_t>(selectedIndex_)];
    gpu.openGLVersion = version;
    gpu.openGLState = version.empty() ? En_ApiState::Unknown : En_ApiState::Available;
}

std::string CIpmGpuEnv::getSelectedOpenGLVersion() const
{
    std::lock_guard<std::mutex> lock(mtx_);
    return hasValidSelection_() ? gpus_[static_cast<size_t>(selectedIndex_)].openGLVersion : std::string();
}

En_ApiState CIpmGpuEnv::selectedCudaState() const
{
    std::lock_guard<std::mutex> lock(mtx_);
    return hasValidSelection_() ? gpus_[static_cast<size_t>(selectedIndex_)].cudaState : En_ApiState::Unknown;
}

En_ApiState CIpmGpuEnv::selectedOpenCLState() const
{
    std::lock_guard<std::mutex> lock(mtx_);
    return hasValidSelection_() ? gpus_[static_cast<size_t>(selectedIndex_)].openCLState
                                : En_ApiState::Unknown;
}

En_ApiState CIpmGpuEnv::selectedOpenGLState() const
{
    std::lock_guard<std::mutex> lock(mtx_);
    return hasValidSelection_() ? gpus_[static_cast<size_t>(selectedIndex_)].openGLState
                                : En_ApiState::Unknown;
}

void CIpmGpuEnv::Refresh()
{
    std::lock_guard<std::mutex> lock(mtx_);
    clearGpuListUnsafe();
    enumerateGpusOS();
    selectOsActiveDisplayGpu();
    probeOpenGLRuntime();
    probeCudaRuntime();
    probeOpenCLRuntime();
    if (selectedIndex_ >= static_cast<int32_t>(gpus_.size())) selectedIndex_ = -1;
}

void CIpmGpuEnv::clearGpuListUnsafe()
{
    gpus_.clear();
    selectedIndex_ = -1;
}

int CIpmGpuEnv::addOrMergeByKey(const std::string& name, const std::string& vendor, En_GpuType type)
{
    const std::string canonicalVendor = normalizeVendor(vendor);
    const std::string scrubbed = scrubName(name);
    for (GpuInfo& gpu : gpus_) {
        if (normalizeVendor(gpu.vendor) != canonicalVendor) continue;
        const std::string existing = scrubName(gpu.name);
        if (existing.find(scrubbed) == std::string::npos && scrubbed.find(existing) == std::string::npos) {
            continue;
        }
        if (gpu.type == En_GpuType::None) gpu.type = type;
        return gpu.index;
    }
    GpuInfo gpu;
    gpu.index = static_cast<int32_t>(gpus_.size());
    gpu.name = name;
    gpu.vendor = canonicalVendor;
    gpu.type = type;
    gpus_.push_back(std::move(gpu));
    return gpus_.back().index;
}

void CIpmGpuEnv::enumerateGpusOS()
{
    namespace fs = std::filesystem;
    const fs::path root("/sys/class/drm");
    const fs::file_status rootStatus = fs::status(root);
    if (rootStatus.type() == fs::file_type::not_found || rootStatus.type() == fs::file_type::unknown) return;

    const std::map<std::string, std::string> vendors = {
        {"0x10de", "NVIDIA"}, {"0x8086", "Intel"}, {"0x1002", "AMD"}, {"0x1022", "AMD"}};
    for (const fs::directory_entry& entry : fs::directory_iterator(root)) {
        const std::string fileName = entry.path().filename().string();
        if (fileName.compare(0, 4, "card") != 0) continue;
        const fs::path devicePath = entry.path() / "device";
        const fs::file_status deviceStatus = fs::status(devicePath);
        if (deviceStatus.type() == fs::file_type::not_found ||
            deviceStatus.type() == fs::file_type::unknown) {
            continue;
        }
        std::string vendorId;
        std::ifstream vendorFile(devicePath / "vendor");
        if (vendorFile) std::getline(vendorFile, vendorId);
        const auto known = vendors.find(vendorId);
        const std::string vendorText = known != vendors.end() ? known->second : "Unknown";

        std::string label = fileName;
        std::ifstream uevent(devicePath / "uevent");
        for (std::string line; uevent && std::getline(uevent, line);) {
            if (line.compare(0, 7, "DRIVER=") == 0) {
                label += " (" + line.substr(7) + ")";
                break;
            }
        }
        addOrMergeByKey(label, vendorText, vendorToType(vendorText));
    }
}

void CIpmGpuEnv::selectOsActiveDisplayGpu() {}

void CIpmGpuEnv::probeOpenGLRuntime() {}

void CIpmGpuEnv::probeCudaRuntime()
{
    const RuntimeLibrary cuda("libcuda.so.1", "libcuda.so");
    if (!cuda.isOpen()) return;
    CuInit init = nullptr;
    CuDriverGetVersion driverGetVersion = nullptr;
    CuDeviceGetCount deviceGetCount = nullptr;
    CuDeviceGet deviceGet = nullptr;
    CuDeviceGetName deviceGetName = nullptr;
    if (!cuda.find("cuInit", init) || !cuda.find("cuDriverGetVersion", driverGetVersion) ||
        !cuda.find("cuDeviceGetCount", deviceGetCount) || !cuda.find("cuDeviceGet", deviceGet) ||
        !cuda.find("cuDeviceGetName", deviceGetName)) {
        return;
    }
    if (init(0) != 0) return;
    int driverVersion = 0;
    driverGetVersion(&driverVersion);
    int deviceCount = 0;
    deviceGetCount(&deviceCount);
    char versionText[64];
    std::snprintf(versionText, sizeof versionText, "Driver %d", driverVersion);

    if (deviceCount <= 0) {
        for (GpuInfo& gpu : gpus_) {
            if (toLower(gpu.vendor) == "nvidia") {
                gpu.cudaState = En_ApiState::NotAvailable;
                gpu.cudaVersion = versionText;
            }
        }
        return;
    }
    for (int ordinal = 0; ordinal < deviceCount; ++ordinal) {
        int device = 0;
        if (deviceGet(&device, ordinal) != 0) continue;
        char name[kTextBuffer] = {};
        deviceGetName(name, static_cast<int>(kTextBuffer), device);
        const int position =
            addOrMergeByKey(std::string(name, strnlen(name, kTextBuffer)), "NVIDIA", En_GpuType::NVIDIA);
        GpuInfo& gpu = gpus_[static_cast<size_t>(position)];
        gpu.cudaState = En_ApiState::Available;
        gpu.cudaVersion = versionText;
        gpu.cudaIndex = ordinal;
    }
}

void CIpmGpuEnv::probeOpenCLRuntime()
{
    const RuntimeLibrary openCL("libOpenCL.so.1", "libOpenCL.so");
    if (!openCL.isOpen()) return;
    ClGetPlatformIDs getPlatformIds = nullptr;
    ClGetPlatformInfo getPlatformInfo = nullptr;
    ClGetDeviceIDs getDeviceIds = nullptr;
    ClGetDeviceInfo getDeviceInfo = nullptr;
    if (!openCL.find("clGetPlatformIDs", getPlatformIds) ||
        !openCL.find("clGetPlatformInfo", getPlatformInfo) || !openCL.find("clGetDeviceIDs", getDeviceIds) ||
        !openCL.find("clGetDeviceInfo", getDeviceInfo)) {
        return;
    }
    uint32_t platformCount = 0;
    if (getPlatformIds(0, nullptr, &platformCount) != kClSuccess || platformCount == 0) return;
    std::vector<ClPlatformId> platforms(platformCount, nullptr);
    if (getPlatformIds(platformCount, platforms.data(), nullptr) != kClSuccess) return;

    // Texts are received in zeroed buffers; one byte more than the runtime may
    // fill keeps them terminated whatever it writes.
    auto text = [](const char(&buffer)[kTextBuffer + 1]) { return std::string(buffer); };
    for (uint32_t p = 0; p < platformCount; ++p) {
        char platformVersion[kTextBuffer + 1] = {};
        getPlatformInfo(platforms[p], kClPlatformVersion, kTextBuffer, platformVersion, nullptr);
        uint32_t deviceCount = 0;
        if (getDeviceIds(platforms[p], kClDeviceTypeAll, 0, nullptr, &deviceCount) != kClSuccess ||
            deviceCount == 0) {
            continue;
        }
        std::vector<ClDeviceId> devices(deviceCount, nullptr);
        if (getDeviceIds(platforms[p], kClDeviceTypeAll, deviceCount, devices.data(), nullptr) !=
            kClSuccess) {
            continue;
        }
        for (uint32_t d = 0; d < deviceCount; ++d) {
            char name[kTextBuffer + 1] = {};
            char vendorText[kTextBuffer + 1] = {};
            getDeviceInfo(devices[d], kClDeviceName, kTextBuffer, name, nullptr);
            getDeviceInfo(devices[d], kClDeviceVendor, kTextBuffer, vendorText, nullptr);
            const std::string vendor = normalizeVendor(text(vendorText));
            const int position = addOrMergeByKey(text(name), vendor, vendorToType(vendor));
            GpuInfo& gpu = gpus_[static_cast<size_t>(position)];
            gpu.openCLState = En_ApiState::Available;
            gpu.openCLVersion = text(platformVersion);
            gpu.openCLPlatform = static_cast<int32_t>(p);
            gpu.openCLDevice = static_cast<int32_t>(d);
        }
    }
}

}  // namespace ipm
