// The execution environment: SIMD detection, the GPU list that Refresh builds from the display devices
// under /sys/class/drm and the two runtimes (the scripted stubs of tests/stubs), and the facade's report.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "CImageProcessMng.h"
#include "CIpmEnv.h"
#include "CIpmFuncTable.h"
#include "TestSupport.h"

using namespace ipm;
namespace fs = std::filesystem;
using L = En_SimdLevel;
using Strings = std::vector<std::string>;

namespace {

// Runs the current test alone in a fresh process, which the test is when this returns true. With a
// tree, the child's /sys/class is an empty directory of its own.
bool inChild(bool withTree, std::vector<std::pair<std::string, std::string>> env = {
                                {"LD_LIBRARY_PATH", CUDA_STUB_DIR ":" OPENCL_STUB_DIR}})
{
    if (qrvtest::inChild()) return true;
    qrvtest::TempDir root;
    qrvtest::ProcessOptions options{env, "", std::chrono::seconds(90)};
    if (withTree)
        options.wrapper = {"unshare",  "-m", "--", "sh", "-c", "mount --bind $0 /sys/class && exec \"$@\"",
                           root.path()};
    if (withTree &&
        qrvtest::runProcess({"true"}, {{}, "", std::chrono::seconds(20), false, options.wrapper}).exitCode !=
            0) {
        [] { GTEST_SKIP() << "no mount namespace for a fake /sys/class (unshare -m needs CAP_SYS_ADMIN)"; }();
        return false;
    }
    const qrvtest::ProcessResult child = qrvtest::runSelf(options);
    EXPECT_EQ(child.exitCode, 0) << "timed out: " << child.timedOut << "\n" << child.out << child.err;
    return false;
}

// /sys/class/drm/<entry> with a "device" directory holding the files given (null: none).
void card(const std::string& entry, const char* vendor = nullptr, const char* uevent = nullptr)
{
    const std::string device = "/sys/class/drm/" + entry + "/device";
    fs::create_directories(device);
    if (vendor != nullptr) qrvtest::writeFile(device + "/vendor", vendor);
    if (uevent != nullptr) qrvtest::writeFile(device + "/uevent", uevent);
}

// "name/vendor/type", then the fields of each API that touched the record.
std::string describe(const GpuInfo& g)
{
    std::ostringstream s;
    s << g.name << '/' << g.vendor << '/' << static_cast<int>(g.type);
    if (g.cudaState != En_ApiState::Unknown || !g.cudaVersion.empty() || g.cudaIndex != -1)
        s << " cuda " << static_cast<int>(g.cudaState) << ',' << g.cudaVersion << ',' << g.cudaIndex;
    if (g.openCLState != En_ApiState::Unknown || !g.openCLVersion.empty() ||
        g.openCLPlatform + g.openCLDevice != -2)
        s << " cl " << static_cast<int>(g.openCLState) << ',' << g.openCLVersion << ',' << g.openCLPlatform
          << ',' << g.openCLDevice;
    if (g.openGLState != En_ApiState::Unknown || !g.openGLVersion.empty())
        s << " gl " << static_cast<int>(g.openGLState) << ',' << g.openGLVersion;
    return s.str();
}

// The records, sorted: display devices come in the directory's own order.
Strings records(const CIpmGpuEnv& gpu)
{
    Strings all;
    for (size_t i = 0; i < gpu.getGpuCount(); ++i) {
        EXPECT_EQ(gpu.getGpu(i).index, static_cast<int>(i));
        all.push_back(describe(gpu.getGpu(i)));
    }
    EXPECT_EQ(describe(gpu.getGpu(all.size())), "//0") << "a fresh record past the end";
    std::sort(all.begin(), all.end());
    return all;
}

}  // namespace

TEST(CpuSimd, BestLevelForEachProfileComesFromTheFlagsAlone)
{
    const struct {
        std::string flags;
        L integer, floating, matrix;
    } cases[] = {{"", L::Scalar, L::Scalar, L::Scalar},
                 {"neon", L::NEON, L::NEON, L::NEON},
                 {"neon sve", L::SVE, L::SVE, L::SVE},
                 {"neon sve sve2", L::SVE2, L::SVE, L::SVE2},
                 {"sve2", L::SVE2, L::Scalar, L::SVE2},
                 {"avx2 neon sve sve2", L::AVX2, L::AVX2, L::AVX2},
                 {"avx2 avx512f", L::AVX2, L::AVX512F, L::AVX512F},
                 {"avx512f", L::Scalar, L::AVX512F, L::AVX512F},
                 {"avx2 avx512f avx512bw", L::AVX512BW, L::AVX512F, L::AVX512BW},
                 {"avx512bw", L::AVX512BW, L::Scalar, L::Scalar},
                 {"amx", L::Scalar, L::Scalar, L::AMX},
                 {"avx2 avx512f avx512bw amx neon sve sve2", L::AVX512BW, L::AVX512F, L::AMX}};
    for (const auto& c : cases) {
        auto has = [&](const char* flag) {
            return (" " + c.flags + " ").find(std::string(" ") + flag + " ") != std::string::npos;
        };
        CIpmCpuEnv cpu;
        cpu.hasAvx2 = has("avx2"), cpu.hasAvx512F = has("avx512f"), cpu.hasAvx512BW = has("avx512bw");
        cpu.hasAmx = has("amx"), cpu.hasNeon = has("neon"), cpu.hasSve = has("sve"),
        cpu.hasSve2 = has("sve2");
        cpu.simdLevel = L::AMX;  // never read
        EXPECT_EQ(cpu.bestSimdFor(En_OpProfile::Integer), c.integer) << c.flags;
        EXPECT_EQ(cpu.bestSimdFor(En_OpProfile::Float), c.floating) << c.flags;
        EXPECT_EQ(cpu.bestSimdFor(En_OpProfile::Matrix), c.matrix) << c.flags;
        for (int outside : {-1, 3}) EXPECT_EQ(cpu.bestSimdFor(static_cast<En_OpProfile>(outside)), L::Scalar);
    }
}

// Detect starts from an object holding every flag, so each field must be rebuilt.
TEST(CpuDetection, DetectFindsTheProcessorsSimdSets)
{
    CIpmCpuEnv cpu;
    cpu.hasAvx2 = cpu.hasAvx512F = cpu.hasAvx512BW = cpu.hasAmx = cpu.hasNeon = cpu.hasSve = cpu.hasSve2 =
        true;
    cpu.sveBits = cpu.simdBits = 4096;
    cpu.Detect();
#if defined(__x86_64__)
    std::ifstream cpuinfo("/proc/cpuinfo");  // the kernel lists what it saves the registers of
    std::string flags;
    while (std::getline(cpuinfo, flags) && flags.compare(0, 5, "flags") != 0) {
    }
    auto has = [&](const char* flag) {
        return (flags + " ").find(std::string(" ") + flag + " ") != std::string::npos;
    };
    EXPECT_EQ(cpu.cpuType, En_CpuType::X86_64);
    EXPECT_EQ(cpu.hasAvx2, has("avx2"));
    EXPECT_EQ(cpu.hasAvx512F, has("avx512f"));
    EXPECT_EQ(cpu.hasAvx512BW, has("avx512bw"));
    EXPECT_EQ(cpu.hasAmx, has("amx_tile"));
    EXPECT_FALSE(cpu.hasNeon || cpu.hasSve || cpu.hasSve2 || cpu.sveBits != 0);
    EXPECT_EQ(cpu.simdLevel, has("avx512bw")  ? L::AVX512BW
                             : has("avx512f") ? L::AVX512F
                             : has("avx2")    ? L::AVX2
                                              : L::Scalar);
    EXPECT_EQ(cpu.simdBits, has("avx512f") ? 512 : has("avx2") ? 256 : 0);
#elif defined(__aarch64__)
    EXPECT_EQ(cpu.cpuType, En_CpuType::ARMv8);
    EXPECT_TRUE(cpu.hasNeon);
    EXPECT_FALSE(cpu.hasAvx2 || cpu.hasAvx512F || cpu.hasAvx512BW || cpu.hasAmx);
    // The emulated processor (QEMU_CPU) as neon, sve-<bits> or sve2-<bits>.
    const std::string model = std::getenv("QRV_EXPECT_CPU") != nullptr ? std::getenv("QRV_EXPECT_CPU") : "";
    if (model.empty()) return;
    const bool sve = model.compare(0, 3, "sve") == 0, sve2 = model.compare(0, 4, "sve2") == 0;
    const int bits = sve ? std::stoi(model.substr(model.find('-') + 1)) : 0;
    EXPECT_EQ(cpu.hasSve, sve);
    EXPECT_EQ(cpu.hasSve2, sve2);
    EXPECT_EQ(cpu.sveBits, bits);
    EXPECT_EQ(cpu.simdLevel, sve2 ? L::SVE2 : sve ? L::SVE : L::NEON);
    EXPECT_EQ(cpu.simdBits, sve ? bits : 128);
#endif
}

TEST(GpuList, DisplayDevicesFollowTheVendorTableAndTheFirstDriverLine)
{
    if (!inChild(true)) return;
    CIpmGpuEnv gpu;
    gpu.Refresh();
    EXPECT_EQ(gpu.getGpuCount(), 0u) << "without /sys/class/drm";
    setenv("QRV_STUB_CUDA", "init=100", 1);
    card("card0", "0x8086\n", "PCI_CLASS=30000\nDRIVER=i915\nDRIVER=second\n");
    card("card1", "0x10de\n", "XDRIVER=wrong\n DRIVER=indented\nDRIVER=nvidia\n");
    card("card2", "0x1002", "DRIVER=amdgpu");
    card("card3", "0x1022\n0x10de\n", "DRIVER=\n");
    card("card4", "0x10DE\n", "MODALIAS=pci:DRIVER=x\n");
    card("card5");
    card("card0-HDMI-A-1");
    card("renderD128", "0x8086\n");
    card("Card6", "0x8086\n");
    fs::create_directories("/sys/class/drm/card7");
    fs::create_symlink("/nowhere", "/sys/class/drm/card7/device");
    qrvtest::writeFile("/sys/class/drm/version", "drm 1.1.0\n");
    gpu.Refresh();
    EXPECT_EQ(records(gpu),
              (Strings{"card0 (i915)/Intel/1", "card0-HDMI-A-1/Unknown/0", "card1 (nvidia)/NVIDIA/2",
                       "card2 (amdgpu)/AMD/1", "card3 ()/AMD/1", "card4/Unknown/0", "card5/Unknown/0"}));
}

TEST(GpuList, RuntimeProbesMarkMergeAndAppendThenTheHostSelects)
{
    if (!inChild(true)) return;
    card("card0", "0x8086\n", "DRIVER=i915\n");
    card("card1", "0x10de\n", "DRIVER=nvidia\n");
    card("card2");
    const Strings bare = {"card0 (i915)/Intel/1", "card1 (nvidia)/NVIDIA/2", "card2/Unknown/0"};
    const std::string rtx = "NVIDIA GeForce RTX 3080", x = std::string(300, 'x');
    const struct {
        std::string cuda, openCL;
        Strings changed;  // the records that are not one of the bare display devices
    } cases[] = {
        {"driver=12040", "", {"card1 (nvidia)/NVIDIA/2 cuda 2,Driver 12040,-1"}},
        {"names=Tesla T4|!GPU B|Tesla T4||" + x,
         "",
         {"Tesla T4/NVIDIA/2 cuda 1,Driver 12000,2", "card1 (nvidia)/NVIDIA/2 cuda 1,Driver 12000,3",
          x.substr(45) + "/NVIDIA/2 cuda 1,Driver 12000,4"}},
        {"driver=12040;names=" + rtx,
         "OpenCL 3.0 CUDA|" + rtx + "@NVIDIA Corporation",
         {rtx + "/NVIDIA/2 cuda 1,Driver 12040,0 cl 1,OpenCL 3.0 CUDA,0,0"}},
        {"",
         "OpenCL 1.0 Empty;OpenCL 1.2 A|Arc A770@Intel(R) Corporation;B|Radeon@Advanced Micro Devices|Arc "
         "A770@Intel",
         {"Arc A770/Intel/1 cl 1,B,2,1", "Radeon/AMD/1 cl 1,B,2,0"}},
        {"",
         "P|" + rtx +
             "@NVIDIA|nvidia geforce (RTX) 3080@nvidia corp|{NVIDIA}[GeForce]RTX3080 Ti@NVIDIA|RTX "
             "2080@NVIDIA|"
             "RTX@NVIDIA|Radeon@AMD|Radeon@GenuineIntel|Radeon@Acme|Radeon@NVIDIA and "
             "Intel|Radeon@AuthenticAMD|"
             "GPU-1@Intel|GPU 1@Intel|\xC3\x84GPU@AMD|\xC3\xA4gpu@AMD| ( ) @Intel|@",
         {rtx + "/NVIDIA/2 cl 1,P,0,4", "RTX 2080/NVIDIA/2 cl 1,P,0,3", "Radeon/AMD/1 cl 1,P,0,9",
          "Radeon/Intel/1 cl 1,P,0,6", "Radeon/Unknown/0 cl 1,P,0,7", "Radeon/NVIDIA/2 cl 1,P,0,8",
          "GPU-1/Intel/1 cl 1,P,0,10", "GPU 1/Intel/1 cl 1,P,0,11", "\xC3\x84GPU/AMD/1 cl 1,P,0,12",
          "\xC3\xA4gpu/AMD/1 cl 1,P,0,13", "card0 (i915)/Intel/1 cl 1,P,0,14",
          "card2/Unknown/0 cl 1,P,0,15"}},
    };
    CIpmGpuEnv gpu;
    for (const auto& c : cases) {
        setenv("QRV_STUB_CUDA", c.cuda.empty() ? "init=100" : c.cuda.c_str(), 1);
        setenv("QRV_STUB_OPENCL", c.openCL.c_str(), 1);
        gpu.Refresh();
        Strings changed = records(gpu), expected = c.changed;
        for (const auto& device : bare)
            changed.erase(std::remove(changed.begin(), changed.end(), device), changed.end());
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(changed, expected) << "CUDA " << c.cuda << ", OpenCL " << c.openCL;
    }

    // The list holds the display devices, then RTX 3080 (3) and pthread-cpu (4).
    setenv("QRV_STUB_CUDA", ("names=" + rtx).c_str(), 1);
    setenv("QRV_STUB_OPENCL", ("OpenCL 3.0|" + rtx + "@NVIDIA|pthread-cpu@GenuineIntel").c_str(), 1);
    gpu.Refresh();
    EXPECT_EQ(gpu.getSelectedIndex(), -1);
    auto expectSelected = [&](bool result, bool expectedResult, const std::string& name) {
        const GpuInfo selected = gpu.getSelected();
        EXPECT_EQ(result, expectedResult) << name;
        EXPECT_EQ(selected.name, name);
        EXPECT_EQ(gpu.getSelectedIndex(), selected.index);
        EXPECT_EQ(describe(selected), describe(gpu.getGpu(static_cast<size_t>(selected.index))));
        EXPECT_EQ(gpu.selectedCudaState(), selected.cudaState);
        EXPECT_EQ(gpu.selectedOpenCLState(), selected.openCLState);
        EXPECT_EQ(gpu.selectedOpenGLState(), selected.openGLState);
        EXPECT_EQ(gpu.getSelectedOpenGLVersion(), selected.openGLVersion);
    };
    expectSelected(gpu.selectByNameSubstring("NVIDIA", false), true, "card1 (nvidia)");
    expectSelected(gpu.selectByNameSubstring("nvidia", true), true, rtx);
    gpu.setSelectedOpenGLVersion("4.6");
    EXPECT_EQ(describe(gpu.getGpu(3)), rtx + "/NVIDIA/2 cuda 1,Driver 12000,0 cl 1,OpenCL 3.0,0,0 gl 1,4.6");
    expectSelected(gpu.selectByNameSubstring("radeon", true), false, rtx);
    expectSelected(gpu.selectByCudaIndex(1), false, rtx);
    expectSelected(gpu.selectByOpenCL(0, 1), true, "pthread-cpu");
    expectSelected(gpu.selectByOpenCL(1, 0), false, "pthread-cpu");
    expectSelected(gpu.selectByNameSubstring("INTEL", false), true, "card0 (i915)");
    expectSelected(gpu.selectByCudaIndex(-1), true, gpu.getGpu(0).name);
    expectSelected(gpu.selectByNameSubstring("", true), true, rtx);
    gpu.setSelectedOpenGLVersion("");
    expectSelected(gpu.selectByNameSubstring("", false), true, gpu.getGpu(0).name);
    EXPECT_EQ(describe(gpu.getGpu(3)), rtx + "/NVIDIA/2 cuda 1,Driver 12000,0 cl 1,OpenCL 3.0,0,0");
    gpu.clearSelection();
    gpu.setSelectedOpenGLVersion("3.3");
    expectSelected(true, true, "");
    gpu.selectByNameSubstring("", false);
    gpu.setSelectedOpenGLVersion("3.3");
    gpu.Refresh();
    expectSelected(true, true, "");
    EXPECT_EQ(describe(gpu.getGpu(0)).find(" gl "), std::string::npos)
        << "the version went with the old list";
}

#if defined(__x86_64__)
// PoCL offers the processor itself, which the probe's device type must include.
TEST(GpuList, PoclProcessorDeviceThroughTheRealIcdLoader)
{
    const char* icd = "/etc/OpenCL/vendors/pocl.icd";
    if (!fs::exists(icd)) GTEST_SKIP() << "PoCL is not installed (pocl-opencl-icd)";
    // The ICD loader keeps its vendors' allocations after the probe has closed it.
    const char* asan = std::getenv("ASAN_OPTIONS");
    if (!inChild(false, {{"OCL_ICD_VENDORS", icd},
                         {"ASAN_OPTIONS", std::string(asan ? asan : "") + ":detect_leaks=0"}}))
        return;
    CIpmGpuEnv gpu;
    gpu.Refresh();
    ASSERT_TRUE(gpu.selectByOpenCL(0, 0));
    const GpuInfo pocl = gpu.getSelected();
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string vendor;
    while (std::getline(cpuinfo, vendor) && vendor.compare(0, 9, "vendor_id") != 0) {
    }
    const bool intel = vendor.find("GenuineIntel") != std::string::npos,
               amd = vendor.find("AuthenticAMD") != std::string::npos;
    EXPECT_EQ(pocl.vendor + "/" + std::to_string(static_cast<int>(pocl.type)), intel ? "Intel/1"
                                                                               : amd ? "AMD/1"
                                                                                     : "Unknown/0");
    EXPECT_FALSE(pocl.name.empty());
    EXPECT_EQ(pocl.openCLVersion.compare(0, 7, "OpenCL "), 0) << pocl.openCLVersion;
    EXPECT_NE(pocl.openCLVersion.find("PoCL"), std::string::npos) << pocl.openCLVersion;
}
#endif

namespace {

// The environment's log lines written while `action` runs, all at level 3.
template <typename Action>
Strings logged(Action action)
{
    qrvtest::LogCapture capture;
    action();
    for (const auto& record : capture.records()) EXPECT_EQ(record.level, qrvlog::LogLevel::Trace);
    return capture.texts("CIpmEnv");
}

Strings report(const std::string& cpu, const Strings& gpus, const std::string& selected)
{
    Strings lines = {"\r\n============ IPM Environment ============", "\r\nCPU    : " + cpu,
                     "\r\nGPU(s) : " + std::to_string(gpus.size()) + " device(s) detected"};
    for (const std::string& gpu : gpus) lines.push_back("\r\n" + gpu);
    lines.push_back("\r\nSelected: " + selected);
    lines.push_back(
        "\r\n(Note) OpenGL probing is disabled. Call setSelectedOpenGLVersion() after creating a GL context, "
        "or build with QRV_IPM_ENABLE_GL_PROBE to auto-detect.");
    lines.push_back("\r\n========== IPM Environment End ==========");
    return lines;
}

}  // namespace

TEST(EnvironmentReport, FirstUseReportsOnceAndLaterReportsShowTheSelectionAndTheRefreshedList)
{
    if (!inChild(true)) return;
#if defined(__aarch64__)
    const std::string cpu = "ARMv8";
#else
    const std::string cpu = "x86_64";
#endif
    const std::string nv = "card0 (nv-\xC3\xA9\xF0\x9F\x98\x80)";  // widened beyond 16 bits and back
    card("card0", "0x10de\n", "DRIVER=nv-\xC3\xA9\xF0\x9F\x98\x80\n");
    setenv("QRV_STUB_CUDA", "driver=12040", 1);
    setenv("QRV_STUB_OPENCL", "OpenCL 3.0|Arc A770@Intel(R) Corporation", 1);
    const std::string card0 = "#0 name=" + nv + " | vendor=NVIDIA | type=NVIDIA | CUDA=";
    const std::string arc =
        "name=Arc A770 | vendor=Intel | type=Internal | CUDA=Unknown(-) | OpenCL=Available(OpenCL 3.0) | "
        "OpenGL=Unknown(-)";
    EXPECT_EQ(
        logged([] { CIpmEnv::Instance(); }),
        report(cpu,
               {card0 + "NotAvailable(Driver 12040) | OpenCL=Unknown(-) | OpenGL=Unknown(-)", "#1 " + arc},
               "(none)"));
    CIpmEnv* env = CIpmEnv::Instance();
    EXPECT_EQ(logged([] { CIpmEnv::Instance(); }), Strings{}) << "a second Instance() reports nothing";

    ASSERT_TRUE(env->gpu.selectByNameSubstring("nv-", false));
    env->gpu.setSelectedOpenGLVersion("4.6");
    EXPECT_EQ(
        logged([&] { env->writeCpuGpuStatus(); }),
        report(
            cpu,
            {card0 + "NotAvailable(Driver 12040) | OpenCL=Unknown(-) | OpenGL=Available(4.6)", "#1 " + arc},
            "#0 " + nv + " | CUDA=NotAvailable(Driver 12040) OpenCL=Unknown(-) OpenGL=Available(4.6)"));

    setenv("QRV_STUB_CUDA", "driver=12040;names=\xC3\x28 invalid UTF-8", 1);
    EXPECT_EQ(logged([&] { env->Refresh(); }), Strings{}) << "Refresh reports nothing";
    EXPECT_EQ(logged([&] { env->writeCpuGpuStatus(); }),
              report(cpu,
                     {card0 + "Unknown(-) | OpenCL=Unknown(-) | OpenGL=Unknown(-)",
                      "#1 name= | vendor=NVIDIA | type=NVIDIA | CUDA=Available(Driver 12040) | "
                      "OpenCL=Unknown(-) | OpenGL=Unknown(-)",
                      "#2 " + arc},
                     "(none)"));

    const char* words[] = {"x86", "x86_64", "ARMv8", "ARMv7/9", "Unknown"};
    for (int type = 0; type < 5; ++type) {
        env->cpu.cpuType = static_cast<En_CpuType>(type);
        EXPECT_EQ(logged([&] { env->writeCpuGpuStatus(); }).at(1),
                  std::string("\r\nCPU    : ") + words[type]);
    }
}

namespace {

// Eight threads make the first Instance() call at once while cuInit keeps the detection busy. Each
// comes back after the one report with the detected processor; when the walk fails on a "device"
// link that points at itself, the caller that ran it gets the exception and the others are released.
void raceFirstCallers(bool walkThrows)
{
    for (const char* entry : {"card0", "card1", "card2", "card3"}) card(entry, "0x8086\n", "DRIVER=i915\n");
    Strings before;  // what the walk records before it fails
    if (walkThrows) {
        fs::create_directories("/sys/class/drm/card9");
        fs::create_symlink("device", "/sys/class/drm/card9/device");
        for (const auto& entry : fs::directory_iterator("/sys/class/drm")) {
            if (entry.path().filename() == "card9") break;
            before.push_back(entry.path().filename().string() + " (i915)/Intel/1");
        }
        std::sort(before.begin(), before.end());
    }
    setenv("QRV_STUB_CUDA", "sleep-ms=200;names=Tesla T4", 1);
    std::atomic<int> reports{0}, ready{0}, early{0}, thrown{0}, otherProcessor{0};
    qrvlog::QRV_Log::Instance()->setSink([&](const qrvlog::LogRecord& record) {
        reports += record.text == L"\r\n========== IPM Environment End ==========";
    });
    CIpmCpuEnv detected;
    detected.Detect();
    std::vector<std::thread> callers;
    for (int i = 0; i < 8; ++i) {
        callers.emplace_back([&] {
            for (++ready; ready < 8;) std::this_thread::yield();
            try {
                const CIpmEnv* env = CIpmEnv::Instance();
                early += reports != (walkThrows ? 0 : 1);
                otherProcessor += env->cpu.simdLevel != detected.simdLevel ||
                                  env->cpu.hasNeon != detected.hasNeon ||
                                  env->cpu.hasAvx2 != detected.hasAvx2;
            } catch (const fs::filesystem_error&) {
                ++thrown;
            }
        });
    }
    for (std::thread& caller : callers) caller.join();
    qrvlog::QRV_Log::Instance()->setSink(nullptr);
    EXPECT_EQ(early, 0);
    EXPECT_EQ(otherProcessor, 0);
    EXPECT_EQ(thrown, walkThrows ? 1 : 0);
    if (walkThrows)
        EXPECT_EQ(records(CIpmEnv::Instance()->gpu), before) << "kept, and the runtimes not probed";
}

}  // namespace

TEST(EnvironmentFirstUse, RacingCallersWaitForTheOneDetection)
{
    if (inChild(true)) raceFirstCallers(false);
}

TEST(EnvironmentFirstUse, RacingCallersAreReleasedAndTheListKeptWhenTheWalkFails)
{
    if (inChild(true)) raceFirstCallers(true);
}

// While cuInit hangs inside the first Instance(), frames are still taken and the table dispatches
// what does not consult the environment. Had either waited, the child would have run out of time.
TEST(EnvironmentFirstUse, HangingCuInitBlocksOnlyTheEnvironment)
{
    if (!inChild(false)) return;
    int entered[2];
    ASSERT_EQ(pipe(entered), 0);
    setenv("QRV_STUB_CUDA", ("sleep-ms=100000000;entered-fd=" + std::to_string(entered[1])).c_str(), 1);
    std::atomic<bool> returned{false};
    std::thread([&returned] { CIpmEnv::Instance(), returned = true; }).detach();
    char byte = 0;
    ASSERT_EQ(read(entered[0], &byte, 1), 1);

    qrv_img::QRV_Image rgb(4, 2, qrv_img::En_ImageFormat::RGB888, true, 1),
        gray(4, 2, qrv_img::En_ImageFormat::Gray8, true, 1);
    CImageProcessMng manager;
    manager.onNewFrame(rgb);
    EXPECT_EQ(ipmcommon::CIpmFuncTable::Instance()->process(ipmcommon::EnProcessBackend::CPU_Serial,
                                                            ipmcommon::EnIpmModule::Converter, 2, &rgb, &gray,
                                                            nullptr, nullptr),
              1);
    EXPECT_FALSE(returned);
    std::_Exit(::testing::Test::HasFailure() ? 1 : 0);  // the detection never ends
}
