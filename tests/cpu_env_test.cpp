#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "CIpmCpuEnv.h"

using ipm::CIpmCpuEnv;
using ipm::En_CpuType;
using ipm::En_OpProfile;
using ipm::En_SimdLevel;

namespace {

// The seven flags in declaration order.
struct Flags {
    bool avx2, avx512F, avx512BW, amx, neon, sve, sve2;
};

CIpmCpuEnv withFlags(const Flags& flags)
{
    CIpmCpuEnv cpu;
    cpu.hasAvx2 = flags.avx2;
    cpu.hasAvx512F = flags.avx512F;
    cpu.hasAvx512BW = flags.avx512BW;
    cpu.hasAmx = flags.amx;
    cpu.hasNeon = flags.neon;
    cpu.hasSve = flags.sve;
    cpu.hasSve2 = flags.sve2;
    return cpu;
}

std::string describe(const CIpmCpuEnv& cpu)
{
    std::ostringstream text;
    text << "cpuType=" << static_cast<int>(cpu.cpuType) << " simdBits=" << cpu.simdBits
         << " simdLevel=" << static_cast<int>(cpu.simdLevel) << " avx2=" << cpu.hasAvx2
         << " avx512f=" << cpu.hasAvx512F << " avx512bw=" << cpu.hasAvx512BW << " amx=" << cpu.hasAmx
         << " neon=" << cpu.hasNeon << " sve=" << cpu.hasSve << " sve2=" << cpu.hasSve2
         << " sveBits=" << cpu.sveBits;
    return text.str();
}

En_OpProfile profile(int value) { return static_cast<En_OpProfile>(value); }

}  // namespace

TEST(CpuSimdChoice, BestLevelForEachProfileFollowsTheFlags)
{
    using L = En_SimdLevel;
    struct Case {
        const char* machine;
        Flags flags;
        L integer, floating, matrix;
    };
    const Case cases[] = {
        {"no SIMD", {false, false, false, false, false, false, false}, L::Scalar, L::Scalar, L::Scalar},
        {"NEON", {false, false, false, false, true, false, false}, L::NEON, L::NEON, L::NEON},
        {"SVE without SVE2", {false, false, false, false, true, true, false}, L::SVE, L::SVE, L::SVE},
        {"SVE2", {false, false, false, false, true, true, true}, L::SVE2, L::SVE, L::SVE2},
        {"SVE2 flag alone", {false, false, false, false, false, false, true}, L::SVE2, L::Scalar, L::SVE2},
        {"AVX2", {true, false, false, false, false, false, false}, L::AVX2, L::AVX2, L::AVX2},
        {"AVX-512F without BW",
         {true, true, false, false, false, false, false},
         L::AVX2,
         L::AVX512F,
         L::AVX512F},
        {"AVX-512F alone",
         {false, true, false, false, false, false, false},
         L::Scalar,
         L::AVX512F,
         L::AVX512F},
        {"AVX-512F and BW",
         {true, true, true, false, false, false, false},
         L::AVX512BW,
         L::AVX512F,
         L::AVX512BW},
        {"AVX-512BW without F",
         {false, false, true, false, false, false, false},
         L::AVX512BW,
         L::Scalar,
         L::Scalar},
        {"AMX with AVX-512", {true, true, true, true, false, false, false}, L::AVX512BW, L::AVX512F, L::AMX},
        {"AMX alone", {false, false, false, true, false, false, false}, L::Scalar, L::Scalar, L::AMX},
        {"x86 and Arm flags", {true, false, false, false, true, true, true}, L::AVX2, L::AVX2, L::AVX2},
        {"everything", {true, true, true, true, true, true, true}, L::AVX512BW, L::AVX512F, L::AMX},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.machine);
        CIpmCpuEnv cpu = withFlags(c.flags);
        // The answer comes from the flags alone, whatever the detected level says.
        cpu.simdLevel = En_SimdLevel::AMX;
        cpu.simdBits = 1024;
        cpu.sveBits = 2048;
        EXPECT_EQ(cpu.bestSimdFor(En_OpProfile::Integer), c.integer);
        EXPECT_EQ(cpu.bestSimdFor(En_OpProfile::Float), c.floating);
        EXPECT_EQ(cpu.bestSimdFor(En_OpProfile::Matrix), c.matrix);
        for (int outside : {3, 4, -1, 1000, INT_MIN, INT_MAX}) {
            EXPECT_EQ(cpu.bestSimdFor(profile(outside)), En_SimdLevel::Scalar) << "profile " << outside;
        }
    }
}

TEST(CpuDetection, FreshObjectIsAllZero)
{
    EXPECT_EQ(
        describe(CIpmCpuEnv()),
        "cpuType=0 simdBits=0 simdLevel=0 avx2=0 avx512f=0 avx512bw=0 amx=0 neon=0 sve=0 sve2=0 sveBits=0");
}

TEST(CpuDetection, DetectRebuildsEveryFieldFromScratch)
{
    CIpmCpuEnv fresh;
    fresh.Detect();
    CIpmCpuEnv stale = withFlags({true, true, true, true, true, true, true});
    stale.cpuType = En_CpuType::ARMv7_9;
    stale.simdLevel = En_SimdLevel::AMX;
    stale.simdBits = 4096;
    stale.sveBits = 4096;
    stale.Detect();
    EXPECT_EQ(describe(stale), describe(fresh));
    stale.Detect();
    EXPECT_EQ(describe(stale), describe(fresh)) << "a second Detect gives the same result";
}

#if defined(__x86_64__)

namespace {

// The flags of the first processor in /proc/cpuinfo, which the kernel
// clears for instruction sets whose registers it does not save.
std::set<std::string> cpuinfoFlags()
{
    std::ifstream cpuinfo("/proc/cpuinfo");
    for (std::string line; std::getline(cpuinfo, line);) {
        if (line.compare(0, 5, "flags") != 0) continue;
        std::istringstream words(line.substr(line.find(':') + 1));
        std::set<std::string> flags;
        for (std::string word; words >> word;) flags.insert(word);
        return flags;
    }
    return {};
}

std::string cpuinfoField(const std::string& name)
{
    std::ifstream cpuinfo("/proc/cpuinfo");
    for (std::string line; std::getline(cpuinfo, line);) {
        if (line.compare(0, name.size(), name) != 0) continue;
        const size_t colon = line.find(':');
        return line.substr(line.find_first_not_of(' ', colon + 1));
    }
    return "";
}

}  // namespace

TEST(CpuDetection, X86FlagsAgreeWithProcCpuinfo)
{
    const std::set<std::string> flags = cpuinfoFlags();
    ASSERT_FALSE(flags.empty()) << "no flags line in /proc/cpuinfo";
    CIpmCpuEnv cpu;
    cpu.Detect();
    EXPECT_EQ(cpu.cpuType, En_CpuType::X86_64);
    EXPECT_EQ(cpu.hasAvx2, flags.count("avx2") == 1);
    EXPECT_EQ(cpu.hasAvx512F, flags.count("avx512f") == 1);
    EXPECT_EQ(cpu.hasAvx512BW, flags.count("avx512bw") == 1);
    EXPECT_EQ(cpu.hasAmx, flags.count("amx_tile") == 1);
    EXPECT_FALSE(cpu.hasNeon || cpu.hasSve || cpu.hasSve2);
    EXPECT_EQ(cpu.sveBits, 0);

    En_SimdLevel level = En_SimdLevel::Scalar;
    int bits = 0;
    if (flags.count("avx512bw")) {
        level = En_SimdLevel::AVX512BW, bits = 512;
    } else if (flags.count("avx512f")) {
        level = En_SimdLevel::AVX512F, bits = 512;
    } else if (flags.count("avx2")) {
        level = En_SimdLevel::AVX2, bits = 256;
    }
    EXPECT_EQ(cpu.simdLevel, level) << describe(cpu);
    EXPECT_EQ(cpu.simdBits, bits);
}

TEST(CpuDetection, CpuidStoresEaxEbxEcxEdxInOrder)
{
    int registers[4] = {};
    CIpmCpuEnv::cpuid_(0, 0, registers);
    // Leaf 0 spells the vendor in EBX, EDX, ECX.
    char vendor[13] = {};
    std::memcpy(vendor, &registers[1], 4);
    std::memcpy(vendor + 4, &registers[3], 4);
    std::memcpy(vendor + 8, &registers[2], 4);
    EXPECT_EQ(std::string(vendor), cpuinfoField("vendor_id"));
    EXPECT_GE(registers[0], 1) << "the highest standard leaf";

    if (cpuinfoFlags().count("avx")) {
        const uint64_t xcr0 = CIpmCpuEnv::xgetbv_(0);
        EXPECT_EQ(xcr0 & 0x6, 0x6u) << "the OS saves SSE and AVX state where /proc/cpuinfo lists avx";
    }
}

#endif

#if defined(__aarch64__)

namespace {

// What each emulated processor model reports (QRV_EXPECT_CPU names it).
struct ArmProfile {
    const char* name;
    bool sve, sve2;
    int sveBits;
    En_SimdLevel level;
    int bits;
    En_SimdLevel integer, floating, matrix;
};

const ArmProfile kArmProfiles[] = {
    {"neon", false, false, 0, En_SimdLevel::NEON, 128, En_SimdLevel::NEON, En_SimdLevel::NEON,
     En_SimdLevel::NEON},
    {"sve-512", true, false, 512, En_SimdLevel::SVE, 512, En_SimdLevel::SVE, En_SimdLevel::SVE,
     En_SimdLevel::SVE},
    {"sve2-512", true, true, 512, En_SimdLevel::SVE2, 512, En_SimdLevel::SVE2, En_SimdLevel::SVE,
     En_SimdLevel::SVE2},
    {"sve2-256", true, true, 256, En_SimdLevel::SVE2, 256, En_SimdLevel::SVE2, En_SimdLevel::SVE,
     En_SimdLevel::SVE2},
};

}  // namespace

TEST(CpuDetection, ArmFieldsMatchTheProcessor)
{
    CIpmCpuEnv cpu;
    cpu.Detect();
    SCOPED_TRACE(describe(cpu));
    EXPECT_EQ(cpu.cpuType, En_CpuType::ARMv8);
    EXPECT_TRUE(cpu.hasNeon);
    EXPECT_FALSE(cpu.hasAvx2 || cpu.hasAvx512F || cpu.hasAvx512BW || cpu.hasAmx);
    const En_SimdLevel integer = cpu.bestSimdFor(En_OpProfile::Integer);
    EXPECT_TRUE(integer == En_SimdLevel::NEON || integer == En_SimdLevel::SVE ||
                integer == En_SimdLevel::SVE2);

    const char* expected = std::getenv("QRV_EXPECT_CPU");
    if (expected == nullptr) return;
    const ArmProfile* profile = nullptr;
    for (const ArmProfile& candidate : kArmProfiles) {
        if (std::strcmp(candidate.name, expected) == 0) profile = &candidate;
    }
    ASSERT_NE(profile, nullptr) << "unknown QRV_EXPECT_CPU " << expected;
    EXPECT_EQ(cpu.hasSve, profile->sve);
    EXPECT_EQ(cpu.hasSve2, profile->sve2);
    EXPECT_EQ(cpu.sveBits, profile->sveBits);
    EXPECT_EQ(cpu.simdLevel, profile->level);
    EXPECT_EQ(cpu.simdBits, profile->bits);
    EXPECT_EQ(cpu.bestSimdFor(En_OpProfile::Integer), profile->integer);
    EXPECT_EQ(cpu.bestSimdFor(En_OpProfile::Float), profile->floating);
    EXPECT_EQ(cpu.bestSimdFor(En_OpProfile::Matrix), profile->matrix);
}

TEST(CpuDetection, X86InstructionWrappersAreInertOnArm)
{
    int registers[4] = {-1, -1, -1, -1};
    CIpmCpuEnv::cpuid_(7, 0, registers);
    for (int value : registers) EXPECT_EQ(value, 0);
    EXPECT_EQ(CIpmCpuEnv::xgetbv_(0), 0u);
}

#endif
