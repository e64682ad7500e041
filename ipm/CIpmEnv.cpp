#include "CIpmEnv.h"

#include <codecvt>
#include <locale>
#include <string>

#define IPM_LOG_FILE "CIpmEnv"
#include "IpmLog.h"

namespace ipm {
namespace {

const wchar_t* cpuWord(En_CpuType type)
{
    switch (type) {
    case En_CpuType::X86: return L"x86";
    case En_CpuType::X86_64: return L"x86_64";
    case En_CpuType::ARMv8: return L"ARMv8";
    case En_CpuType::ARMv7_9: return L"ARMv7/9";
    }
    return L"Unknown";
}

const wchar_t* typeWord(En_GpuType type)
{
    switch (type) {
    case En_GpuType::None: return L"None";
    case En_GpuType::Internal: return L"Internal";
    case En_GpuType::NVIDIA: return L"NVIDIA";
    }
    return L"Unknown";
}

const wchar_t* stateWord(En_ApiState state)
{
    switch (state) {
    case En_ApiState::Available: return L"Available";
    case En_ApiState::NotAvailable: return L"NotAvailable";
    case En_ApiState::Unknown: break;
    }
    return L"Unknown";
}

// UTF-8 to wide text the way the report has always done it: UTF-16 code
// units, one per wide character; text that does not convert becomes empty.
std::wstring widen(const std::string& text)
{
    try {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
        std::wstring_convert<std::codecvt_utf8_utf16<wchar_t>> converter;
#pragma GCC diagnostic pop
        return converter.from_bytes(text);
    } catch (...) {
        return std::wstring();
    }
}

std::wstring versionText(const std::string& version)
{
    const std::wstring wide = widen(version);
    return wide.empty() ? std::wstring(L"-") : wide;
}

}  // namespace

CIpmEnv* CIpmEnv::Instance()
{
    static CIpmEnv env;
    env.Initialize();
    return &env;
}

void CIpmEnv::Initialize()
{
    bool expected = false;
    if (initialized_.compare_exchange_strong(expected, true, std::memory_order_acq_rel)) {
        detectingThread_.store(std::this_thread::get_id());
        // Waiting callers are released however detection ends; an exception
        // goes on to this caller.
        struct Release {
            CIpmEnv* env;
            ~Release() { env->finishDetection_(); }
        } release{this};
        cpu.Detect();
        gpu.Refresh();
        writeCpuGpuStatus();
        return;
    }
    if (detected_.load(std::memory_order_acquire)) return;
    if (detectingThread_.load() == std::this_thread::get_id()) return;
    std::unique_lock<std::mutex> lock(detectedMutex_);
    detectedCv_.wait(lock, [this] { return detected_.load(std::memory_order_acquire); });
}

void CIpmEnv::finishDetection_()
{
    {
        std::lock_guard<std::mutex> lock(detectedMutex_);
        detected_.store(true, std::memory_order_release);
    }
    detectedCv_.notify_all();
}

void CIpmEnv::Refresh()
{
    gpu.Refresh();
}

void CIpmEnv::writeCpuGpuStatus()
{
    CIpmEnv* env = Instance();
    IPM_LOG(Trace, L"\r\n============ IPM Environment ============");
    IPM_LOG(Trace, L"\r\nCPU    : %ls", cpuWord(env->cpu.cpuType));
    const size_t count = env->gpu.getGpuCount();
    IPM_LOG(Trace, L"\r\nGPU(s) : %zu device(s) detected", count);
    for (size_t i = 0; i < count; ++i) {
        const GpuInfo g = env->gpu.getGpu(i);
        IPM_LOG(
            Trace,
            L"\r\n#%d name=%ls | vendor=%ls | type=%ls | CUDA=%ls(%ls) | OpenCL=%ls(%ls) | OpenGL=%ls(%ls)",
            g.index, widen(g.name).c_str(), widen(g.vendor).c_str(), typeWord(g.type), stateWord(g.cudaState),
            versionText(g.cudaVersion).c_str(), stateWord(g.openCLState),
            versionText(g.openCLVersion).c_str(), stateWord(g.openGLState),
            versionText(g.openGLVersion).c_str());
    }
    const GpuInfo s = env->gpu.getSelected();
    if (s.index < 0) {
        IPM_LOG(Trace, L"\r\nSelected: (none)");
    } else {
        IPM_LOG(Trace, L"\r\nSelected: #%d %ls | CUDA=%ls(%ls) OpenCL=%ls(%ls) OpenGL=%ls(%ls)", s.index,
                widen(s.name).c_str(), stateWord(env->gpu.selectedCudaState()),
                versionText(s.cudaVersion).c_str(), stateWord(env->gpu.selectedOpenCLState()),
                versionText(s.openCLVersion).c_str(), stateWord(env->gpu.selectedOpenGLState()),
                versionText(env->gpu.getSelectedOpenGLVersion()).c_str());
    }
    IPM_LOG(Trace,
            L"\r\n(Note) OpenGL probing is disabled. Call setSelectedOpenGLVersion() after creating a GL "
            L"context, or build with QRV_IPM_ENABLE_GL_PROBE to auto-detect.");
    IPM_LOG(Trace, L"\r\n========== IPM Environment End ==========");
}

}  // namespace ipm
