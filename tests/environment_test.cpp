// The execution environment: SIMD detection, the GPU list that Refresh builds from /sys/class/drm and
// the runtimes (tests/stubs, scripted by QRV_STUB_CUDA and QRV_STUB_OPENCL), and the facade's report.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include "CImageProcessMng.h"
#include "CIpmEnv.h"
#include "CIpmFuncTable.h"
#include "TestSupport.h"
#include "X86Features.h"

using namespace ipm;
using L = En_SimdLevel;
using Strings = std::vector<std::string>;
using Env = std::vector<std::pair<std::string, std::string>>;
namespace fs = std::filesystem;

namespace {

// Runs the current test alone in a fresh process (true there) with, as asked, /sys/class of its own.
bool inChild(bool withTree, const Env& env = {{"LD_LIBRARY_PATH", CUDA_STUB_DIR ":" OPENCL_STUB_DIR}})
{
    if (qrvtest::inChild()) return true;
    qrvtest::TempDir root;
    Strings tree = {"unshare",  "-m", "--", "sh", "-c", "mount --bind $0 /sys/class && exec \"$@\"",
                    root.path()};
    if (!withTree) tree.clear();
    const auto child = qrvtest::runSelf({env, std::chrono::seconds(90), true, tree, ""});
    if (withTree && child.out.empty())
        [&] { GTEST_SKIP() << "no fake /sys/class (unshare -m): " << child.err; }();
    EXPECT_TRUE(child.exitCode == 0 || (withTree && child.out.empty())) << child.out << child.err;
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

// The records as "name/vendor/type", then the fields of each runtime that reported them, sorted:
// display devices come in the directory's own order.
Strings records(const CIpmGpuEnv& gpu)
{
    Strings all;
    auto n = [](auto value) { return std::to_string(static_cast<int>(value)); };
    for (size_t i = 0; i < gpu.getGpuCount(); ++i) {
        const GpuInfo g = gpu.getGpu(i);
        EXPECT_EQ(g.index, static_cast<int>(i));
        all.push_back(g.name + "/" + g.vendor + "/" + n(g.type));
        if (g.cudaState != En_ApiState::Unknown || !g.cudaVersion.empty() || g.cudaIndex != -1)
            all.back() += " cuda " + n(g.cudaState) + "," + g.cudaVersion + "," + n(g.cudaIndex);
        if (g.openCLState != En_ApiState::Unknown || g.openCLPlatform != -1 || g.openCLDevice != -1)
            all.back() += " cl " + n(g.openCLState) + "," + g.openCLVersion + "," + n(g.openCLPlatform) +
                          "," + n(g.openCLDevice);
    }
    EXPECT_EQ(gpu.getGpu(all.size()).index, -1) << "a fresh record past the end";
    std::sort(all.begin(), all.end());
    return all;
}

bool hasWord(const std::string& words, const char* word)
{
    return (" " + words + " ").find(std::string(" ") + word + " ") != std::string::npos;
}

// The SIMD flags by the names /proc/cpuinfo gives them.
const std::pair<const char*, bool CIpmCpuEnv::*> kFlags[] = {
    {"avx2", &CIpmCpuEnv::hasAvx2},         {"avx512f", &CIpmCpuEnv::hasAvx512F},
    {"avx512bw", &CIpmCpuEnv::hasAvx512BW}, {"amx_tile", &CIpmCpuEnv::hasAmx},
    {"neon", &CIpmCpuEnv::hasNeon},         {"sve", &CIpmCpuEnv::hasSve},
    {"sve2", &CIpmCpuEnv::hasSve2}};

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
                 {"avx2 avx512f", L::AVX2, L::AVX512F, L::AVX512F},
                 {"avx2 avx512f avx512bw", L::AVX512BW, L::AVX512F, L::AVX512BW},
                 {"avx2 avx512f avx512bw amx_tile neon sve sve2", L::AVX512BW, L::AVX512F, L::AMX}};
    for (const auto& c : cases) {
        CIpmCpuEnv cpu;
        for (auto [name, flag] : kFlags) cpu.*flag = hasWord(c.flags, name);
        cpu.simdLevel = L::AMX;  // never read
        const L outside = cpu.bestSimdFor(static_cast<En_OpProfile>(3));
        EXPECT_EQ(
            (std::vector<L>{cpu.bestSimdFor(En_OpProfile::Integer), cpu.bestSimdFor(En_OpProfile::Float),
                            cpu.bestSimdFor(En_OpProfile::Matrix), outside}),
            (std::vector<L>{c.integer, c.floating, c.matrix, L::Scalar}))
            << c.flags;
    }
}

// Detect starts from an object holding every flag, so each field must be rebuilt.
TEST(CpuDetection, DetectFindsTheProcessorsSimdSets)
{
    CIpmCpuEnv cpu;
    for (auto [name, flag] : kFlags) cpu.*flag = true;
    cpu.sveBits = 4096;
    cpu.Detect();
#if defined(__x86_64__)
    const std::string cpuinfo = qrvtest::readFile("/proc/cpuinfo");  // the sets Linux saves the registers of
    const size_t line = cpuinfo.find("\nflags");
    const std::string flags = cpuinfo.substr(line, cpuinfo.find('\n', line + 1) - line);
    EXPECT_EQ(cpu.cpuType, En_CpuType::X86_64);
#else
    // The emulated processor (QEMU_CPU): its SIMD sets, then the SVE vector length in bits.
    const char* model = std::getenv("QRV_EXPECT_CPU");
    const std::string flags = model != nullptr ? model : "";
    EXPECT_TRUE(cpu.cpuType == En_CpuType::ARMv8 && cpu.hasNeon);
    if (model == nullptr) return;
#endif
    for (auto [name, flag] : kFlags) EXPECT_EQ(cpu.*flag, hasWord(flags, name)) << name;
    const int sveBits = std::atoi(flags.substr(flags.find_last_of(' ') + 1).c_str());
    EXPECT_EQ(cpu.sveBits, sveBits);
    EXPECT_EQ(cpu.simdLevel, cpu.bestSimdFor(En_OpProfile::Integer));  // the same on these processors
    EXPECT_EQ(cpu.simdBits, cpu.hasAvx512F ? 512 : cpu.hasAvx2 ? 256 : cpu.hasSve ? sveBits : 128);
}

// Registers of processors and operating systems other than the test machine's.
TEST(X86Features, ASetIsUsableWhenTheProcessorHasItAndTheSystemSavesItsState)
{
    constexpr uint32_t osxsave = 1u << 27, avx = 1u << 28, avx2 = 1u << 5, f = 1u << 16, bw = 1u << 30;
    constexpr uint32_t cpu = osxsave | avx, tile = 1u << 24;
    constexpr uint64_t ymm = 0x7, zmm = 0xe7, tiles = 0x600e7;
    const struct {
        const char* what;
        uint32_t ecx, ebx, edx;
        uint64_t xcr0;
        std::string expected;
    } cases[] = {{"Haswell", cpu, avx2, 0, ymm, "avx2"},
                 {"no AVX state", cpu, avx2, 0, 0x3, ""},
                 {"no SSE state", cpu, avx2, 0, 0x5, ""},
                 {"no OSXSAVE, so no XCR0", avx, avx2 | f | bw, tile, tiles, ""},
                 {"no AVX", osxsave, avx2 | f | bw, 0, zmm, ""},
                 {"Skylake-SP", cpu, avx2 | f | bw, 0, zmm, "avx2 avx512f avx512bw"},
                 {"Knights Landing", cpu, avx2 | f, 0, zmm, "avx2 avx512f"},
                 {"BW without F", cpu, avx2 | bw, 0, zmm, "avx2"},
                 {"no opmask state", cpu, avx2 | f | bw, 0, zmm & ~0x20u, "avx2"},
                 {"no upper ZMM halves", cpu, avx2 | f | bw, 0, zmm & ~0x40u, "avx2"},
                 {"no high ZMM registers", cpu, avx2 | f | bw, 0, zmm & ~0x80u, "avx2"},
                 {"Sapphire Rapids", cpu, avx2 | f | bw, tile, tiles, "avx2 avx512f avx512bw amx_tile"},
                 {"no tile configuration state", cpu, avx2, tile, tiles & ~(1u << 17), "avx2"},
                 {"no tile data state", cpu, avx2, tile, tiles & ~(1u << 18), "avx2"}};
    for (const auto& c : cases) {
        const ipm_internal::X86Features found = ipm_internal::decodeX86Features(c.ecx, c.ebx, c.edx, c.xcr0);
        std::string sets;
        for (auto [name, usable] : {std::pair{"avx2", found.avx2}, std::pair{"avx512f", found.avx512F},
                                    std::pair{"avx512bw", found.avx512BW}, std::pair{"amx_tile", found.amx}})
            if (usable) sets += (sets.empty() ? "" : " ") + std::string(name);
        EXPECT_EQ(sets, c.expected) << c.what;
    }
}

// The display devices, a table of runtime scripts with the records that differ from them, the selection.
TEST(GpuList, RefreshMergesDisplayAndRuntimeDevicesThenTheHostSelects)
{
    if (!inChild(true)) return;
    CIpmGpuEnv gpu;
    // A "device" link that points at itself fails the walk: the caller gets the exception, and the list
    // keeps the records of the entries before, unlocked.
    for (const char* entry : {"card6", "card7", "card8", "card9"}) card(entry, "0x8086\n", "DRIVER=i915\n");
    std::string last;  // the entry the walk meets last
    for (const auto& entry : fs::directory_iterator("/sys/class/drm"))
        last = entry.path().string() + "/device";
    fs::remove_all(last);
    fs::create_symlink("device", last);
    EXPECT_THROW(gpu.Refresh(), fs::filesystem_error);
    EXPECT_EQ(gpu.getGpuCount(), 3u);
    fs::remove_all("/sys/class/drm");

    card("card0", "0x8086\n", "PCI_CLASS=30000\nDRIVER=i915\nDRIVER=second\n");
    card("card1", "0x10de\n", "XDRIVER=wrong\n DRIVER=indented\nDRIVER=nvidia\n");
    card("card2", "0x1002", "DRIVER=amdgpu");
    card("card3", "0x1022\n0x10de\n", "DRIVER=\n");
    card("card4", "0x10DE\n", "MODALIAS=pci:DRIVER=x\n");
    card("card0-HDMI-A-1");
    fs::create_directories("/sys/class/drm/card5");
    fs::create_symlink("/nowhere", "/sys/class/drm/card5/device");
    setenv("QRV_STUB_CUDA", "init=100", 1);
    gpu.Refresh();
    const Strings bare = records(gpu);
    EXPECT_EQ(bare, (Strings{"card0 (i915)/Intel/1", "card0-HDMI-A-1/Unknown/0", "card1 (nvidia)/NVIDIA/2",
                             "card2 (amdgpu)/AMD/1", "card3 ()/AMD/1", "card4/Unknown/0"}));
    const std::string rtx = "NVIDIA GeForce RTX 3080", x = std::string(300, 'x');
    const Strings cases[] = {
        // CUDA script, OpenCL script, the records not among the bare ones
        {"names=Tesla T4|!GPU B|Tesla T4||" + x, "", "Tesla T4/NVIDIA/2 cuda 1,Driver 12000,2",
         "card1 (nvidia)/NVIDIA/2 cuda 1,Driver 12000,3", x.substr(45) + "/NVIDIA/2 cuda 1,Driver 12000,4"},
        {"driver=12040;names=" + rtx, "V|" + rtx + "@NVIDIA Corp",
         rtx + "/NVIDIA/2 cuda 1,Driver 12040,0 cl 1,V,0,0"},
        {"init=100", "B|Arc A770@Intel(R) Corporation|Radeon@Advanced Micro Devices|Arc A770@Intel",
         "Arc A770/Intel/1 cl 1,B,0,2", "Radeon/AMD/1 cl 1,B,0,1"},
        {"init=100", "Empty"},
        {"init=100",
         "P|NVIDIA GeForce RTX 3080@NVIDIA|nvidia geforce (RTX) 3080@nvidia corp|{NVIDIA}[GeForce]RTX3080 "
         "Ti@NVIDIA|"
         "RTX 2080@NVIDIA|RTX@NVIDIA|Radeon@AMD|Radeon@GenuineIntel|Radeon@Acme|Radeon@NVIDIA and Intel|"
         "Radeon@AuthenticAMD| ( ) @Intel",
         rtx + "/NVIDIA/2 cl 1,P,0,4", "RTX 2080/NVIDIA/2 cl 1,P,0,3", "Radeon/AMD/1 cl 1,P,0,9",
         "Radeon/Intel/1 cl 1,P,0,6", "Radeon/Unknown/0 cl 1,P,0,7", "Radeon/NVIDIA/2 cl 1,P,0,8",
         "card0 (i915)/Intel/1 cl 1,P,0,10"},
    };
    for (const Strings& c : cases) {
        setenv("QRV_STUB_CUDA", c[0].c_str(), 1);
        setenv("QRV_STUB_OPENCL", c[1].c_str(), 1);
        gpu.Refresh();
        Strings all = records(gpu), changed, expected(c.begin() + 2, c.end());
        std::set_difference(all.begin(), all.end(), bare.begin(), bare.end(), std::back_inserter(changed));
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(changed, expected) << "CUDA " << c[0] << ", OpenCL " << c[1];
    }

    // After the display devices come RTX 3080, reported by both runtimes, and pthread-cpu.
    setenv("QRV_STUB_OPENCL", ("V|" + rtx + "@NVIDIA|pthread-cpu@GenuineIntel").c_str(), 1);
    setenv("QRV_STUB_CUDA", ("names=" + rtx).c_str(), 1);
    gpu.Refresh();
    EXPECT_TRUE(gpu.selectByNameSubstring("NVIDIA", false) && gpu.getSelected().name == "card1 (nvidia)");
    EXPECT_TRUE(gpu.selectByNameSubstring("nvidia", true) && gpu.getSelectedIndex() == 6);
    EXPECT_FALSE(gpu.selectByNameSubstring("radeon", true) || gpu.selectByCudaIndex(1) ||
                 gpu.selectByOpenCL(1, 0));
    EXPECT_TRUE(gpu.getSelected().name == rtx && gpu.selectByOpenCL(0, 1) && gpu.getSelected().index == 7);
    EXPECT_TRUE(gpu.selectByNameSubstring("INTEL", false) && gpu.getSelected().name == "card0 (i915)");
    EXPECT_TRUE(gpu.selectByCudaIndex(-1) && gpu.getSelectedIndex() == 0 && gpu.getSelected().index == 0);
    gpu.Refresh();
    EXPECT_EQ(gpu.getSelectedIndex(), -1) << "a refresh ends every selection";
}

// Eight threads make the first Instance() call at once while cuInit keeps the detection busy; each
// must come back with the processor detected and the report written.
TEST(EnvironmentReport, RacingFirstCallersWaitForTheOneReportWhichLaterCallsDoNotRepeat)
{
    if (!inChild(true)) return;
    card("card0", "0x10de\n", "DRIVER=nv-\xC3\xA9\xF0\x9F\x98\x80\n");  // widened beyond 16 bits and back
    setenv("QRV_STUB_CUDA", "driver=12040;sleep-ms=200", 1);
    setenv("QRV_STUB_OPENCL", "\xC3\x28|Arc A770@Intel(R) Corporation|\xC3\x28@Intel", 1);  // not UTF-8
    qrvtest::LogCapture log;
    std::atomic<int> ready{0}, early{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 8; ++i)
        callers.emplace_back([&] {
            for (++ready; ready < 8;) std::this_thread::yield();
            early += CIpmEnv::Instance()->cpu.cpuType == En_CpuType::X86 || log.records().size() != 9;
        });
    for (std::thread& caller : callers) caller.join();
    EXPECT_EQ(early, 0) << "callers came back before the detection had finished";
    CIpmEnv* env = CIpmEnv::Instance();
    const std::string nv = "card0 (nv-\xC3\xA9\xF0\x9F\x98\x80)",
                      cpu = env->cpu.cpuType == En_CpuType::ARMv8 ? "ARMv8" : "x86_64";
    const std::string card0 =
        "\r\n#0 name=" + nv +
        " | vendor=NVIDIA | type=NVIDIA | CUDA=NotAvailable(Driver 12040) | OpenCL=Unknown(-)";
    const std::string intel =
        " | vendor=Intel | type=Internal | CUDA=Unknown(-) | OpenCL=Available(-) | OpenGL=Unknown(-)";
    const Strings first = {
        "\r\n============ IPM Environment ============",
        "\r\nCPU    : " + cpu,
        "\r\nGPU(s) : 3 device(s) detected",
        card0 + " | OpenGL=Unknown(-)",
        "\r\n#1 name=Arc A770" + intel,
        "\r\n#2 name=" + intel,
        "\r\nSelected: (none)",
        "\r\n(Note) OpenGL probing is disabled. Call setSelectedOpenGLVersion() after creating a GL "
        "context, or build with QRV_IPM_ENABLE_GL_PROBE to auto-detect.",
        "\r\n========== IPM Environment End =========="};
    Strings expected = first;
    expected.insert(expected.end(), first.begin(), first.end());  // Refresh writes nothing
    expected[10] = "\r\nCPU    : Unknown";
    expected[12] = card0 + " | OpenGL=Available(4.6)";
    expected[15] = "\r\nSelected: #0 " + nv +
                   " | CUDA=NotAvailable(Driver 12040) OpenCL=Unknown(-) OpenGL=Available(4.6)";
    env->Refresh();
    ASSERT_TRUE(env->gpu.selectByNameSubstring("nv-", false));
    env->gpu.setSelectedOpenGLVersion("4.6");
    env->cpu.cpuType = static_cast<En_CpuType>(4);
    env->writeCpuGpuStatus();
    EXPECT_EQ(log.texts("CIpmEnv"), expected);
    for (const auto& record : log.records()) EXPECT_EQ(record.level, qrvlog::LogLevel::Trace);
}

// The real OpenCL loader first, with PoCL, which offers the processor itself: the probe's device type
// must include it. Then, while cuInit hangs inside the first Instance(), frames are still taken and the
// table dispatches what does not consult the environment; had either waited, the child would have run
// out of time.
TEST(EnvironmentFirstUse, RealOpenCLLoaderThenAHangingCuInitBlocksOnlyTheEnvironment)
{
    const char* pocl = "/etc/OpenCL/vendors/pocl.icd";
    if (!inChild(false, {{"LD_LIBRARY_PATH", CUDA_STUB_DIR}, {"OCL_ICD_VENDORS", pocl}})) return;
    setenv("QRV_STUB_CUDA", "init=100", 1);
    CIpmGpuEnv gpu;
    gpu.Refresh();
#if defined(__x86_64__)
    const bool poclSeen =
        gpu.selectByOpenCL(0, 0) && gpu.getSelected().openCLVersion.find("PoCL") != std::string::npos;
    EXPECT_EQ(poclSeen, fs::exists(pocl));
#endif
    int entered[2];
    ASSERT_EQ(pipe(entered), 0);
    setenv("QRV_STUB_CUDA", ("sleep-ms=100000000;entered-fd=" + std::to_string(entered[1])).c_str(), 1);
    std::thread([] { CIpmEnv::Instance(); }).detach();
    char byte = 0;
    ASSERT_EQ(read(entered[0], &byte, 1), 1);
    using namespace ipmcommon;
    using qrv_img::En_ImageFormat;
    qrv_img::QRV_Image rgb(4, 2, En_ImageFormat::RGB888, true, 1), gray(4, 2, En_ImageFormat::Gray8, true, 1);
    CImageProcessMng().onNewFrame(rgb);
    const auto serial = EnProcessBackend::CPU_Serial;
    EXPECT_EQ(
        CIpmFuncTable::Instance()->process(serial, EnIpmModule::Converter, 2, &rgb, &gray, nullptr, nullptr),
        1);
    std::_Exit(::testing::Test::HasFailure() ? 1 : 0);  // the detection never ends
}
