// For hosts: part of the host interface of libQRV_IPM.
//
// The graphics adapters found on the machine and the one the host selected.
//
// Three sources fill the list: the kernel's display devices, the CUDA driver
// and the OpenCL loader. The same adapter usually shows up in several of them
// under slightly different names, so every source goes through one merge rule
// (addOrMergeByKey): same vendor, and one scrubbed name containing the other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace ipm {

enum class En_GpuType : int32_t {
    None = 0,      // vendor unknown
    Internal = 1,  // Intel and AMD
    NVIDIA = 2,
};

enum class En_ApiState : int32_t {
    Unknown = 0,       // never probed, or the probe could not tell
    Available = 1,     // the API reported this adapter
    NotAvailable = 2,  // the API's runtime works but reported no device for it
};

struct GpuInfo {
    int32_t index = -1;  // position in the list
    std::string name;    // as the source that created the record reported it
    std::string vendor;  // "NVIDIA", "Intel", "AMD" or "Unknown"
    En_GpuType type = En_GpuType::None;
    En_ApiState cudaState = En_ApiState::Unknown;
    En_ApiState openCLState = En_ApiState::Unknown;
    En_ApiState openGLState = En_ApiState::Unknown;
    std::string cudaVersion;    // "Driver %d"
    std::string openCLVersion;  // version text of the platform exposing the adapter
    std::string openGLVersion;  // as given to setSelectedOpenGLVersion
    int32_t cudaIndex = -1;
    int32_t openCLPlatform = -1;
    int32_t openCLDevice = -1;
};

class CIpmGpuEnv {
public:
    CIpmGpuEnv() = default;
    CIpmGpuEnv(const CIpmGpuEnv&) = delete;
    CIpmGpuEnv& operator=(const CIpmGpuEnv&) = delete;

    // Each public operation holds the list's mutex from start to end; records
    // leave the object only as copies.
    size_t getGpuCount() const;
    GpuInfo getGpu(size_t index) const;  // a fresh record when out of range
    int getSelectedIndex() const;
    GpuInfo getSelected() const;  // a fresh record without a valid selection
    bool selectByNameSubstring(const std::string& text, bool preferCuda);
    bool selectByCudaIndex(int cudaIndex);
    bool selectByOpenCL(int platform, int device);
    void clearSelection();
    void setSelectedOpenGLVersion(const std::string& version);
    std::string getSelectedOpenGLVersion() const;
    En_ApiState selectedCudaState() const;
    En_ApiState selectedOpenCLState() const;
    En_ApiState selectedOpenGLState() const;

    // Rebuilds the list: display devices, then CUDA, then OpenCL. Ends with no
    // selection. A std::filesystem::filesystem_error from the display-device
    // walk leaves it with the records appended until then.
    void Refresh();

private:
    // The steps of Refresh. They take no lock: Refresh holds it, and nothing
    // else may call them.
    void clearGpuListUnsafe();
    int addOrMergeByKey(const std::string& name, const std::string& vendor, En_GpuType type);
    void enumerateGpusOS();
    void selectOsActiveDisplayGpu();
    void probeOpenGLRuntime();
    void probeCudaRuntime();
    void probeOpenCLRuntime();

    bool hasValidSelection_() const;

    mutable std::mutex mtx_;
    std::vector<GpuInfo> gpus_;
    int32_t selectedIndex_ = -1;
};

}  // namespace ipm
