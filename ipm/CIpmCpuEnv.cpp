#include "CIpmCpuEnv.h"

#include "X86Features.h"

#if defined(__aarch64__)
#include <sys/auxv.h>
#include <sys/prctl.h>
#elif defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace ipm {

#if defined(__aarch64__)
namespace {

constexpr unsigned long kHwcapSve = 1ul << 22;
constexpr unsigned long kHwcap2Sve2 = 1ul << 1;
constexpr int kPrSveGetVl = 51;

}  // namespace
#endif

void CIpmCpuEnv::Detect()
{
    DetectCpuType_();
    simdBits = 0;
    simdLevel = En_SimdLevel::Scalar;
    hasAvx2 = hasAvx512F = hasAvx512BW = hasAmx = false;
    hasNeon = hasSve = hasSve2 = false;
    sveBits = 0;
#if defined(__aarch64__)
    DetectSimd_arm_();
#elif defined(__x86_64__) || defined(__i386__)
    DetectSimd_x86_();
#endif
    const int32_t sveWidth = sveBits > 0 ? sveBits : 128;
    if (hasAvx512BW) {
        simdLevel = En_SimdLevel::AVX512BW, simdBits = 512;
    } else if (hasAvx512F) {
        simdLevel = En_SimdLevel::AVX512F, simdBits = 512;
    } else if (hasAvx2) {
        simdLevel = En_SimdLevel::AVX2, simdBits = 256;
    } else if (hasSve2) {
        simdLevel = En_SimdLevel::SVE2, simdBits = sveWidth;
    } else if (hasSve) {
        simdLevel = En_SimdLevel::SVE, simdBits = sveWidth;
    } else if (hasNeon) {
        simdLevel = En_SimdLevel::NEON, simdBits = 128;
    }
}

void CIpmCpuEnv::DetectCpuType_()
{
#if defined(__aarch64__)
    cpuType = En_CpuType::ARMv8;
#elif defined(__x86_64__)
    cpuType = En_CpuType::X86_64;
#else
    cpuType = En_CpuType::X86;
#endif
}

void CIpmCpuEnv::DetectSimd_arm_()
{
#if defined(__aarch64__)
    // Advanced SIMD is part of every 64-bit Arm processor.
    hasNeon = true;
    const unsigned long hwcap = getauxval(AT_HWCAP);
    const unsigned long hwcap2 = getauxval(AT_HWCAP2);
    if ((hwcap & kHwcapSve) != 0) {
        hasSve = true;
        const int vl = prctl(kPrSveGetVl, 0, 0, 0, 0);
        // The low 16 bits are the length in bytes, the higher ones flags.
        if (vl > 0 && (vl & 0xfff0) != 0) sveBits = (vl & 0xffff) * 8;
    }
    if ((hwcap2 & kHwcap2Sve2) != 0) hasSve2 = true;
#endif
}

void CIpmCpuEnv::DetectSimd_x86_()
{
    int leaf1[4];
    cpuid_(1, 0, leaf1);
    int leaf7[4];
    cpuid_(7, 0, leaf7);
    const auto ecx = static_cast<uint32_t>(leaf1[2]);
    // XGETBV is an invalid instruction where the processor has no XCR0.
    const uint64_t xcr0 = ipm_internal::x86HasXcr0(ecx) ? xgetbv_(0) : 0;
    const ipm_internal::X86Features features = ipm_internal::decodeX86Features(
        ecx, static_cast<uint32_t>(leaf7[1]), static_cast<uint32_t>(leaf7[3]), xcr0);
    hasAvx2 = features.avx2;
    hasAvx512F = features.avx512F;
    hasAvx512BW = features.avx512BW;
    hasAmx = features.amx;
}

void CIpmCpuEnv::cpuid_(int leaf, int subleaf, int* registers)
{
#if defined(__x86_64__) || defined(__i386__)
    unsigned int a = 0, b = 0, c = 0, d = 0;
    __cpuid_count(static_cast<unsigned int>(leaf), static_cast<unsigned int>(subleaf), a, b, c, d);
    registers[0] = static_cast<int>(a);
    registers[1] = static_cast<int>(b);
    registers[2] = static_cast<int>(c);
    registers[3] = static_cast<int>(d);
#else
    (void)leaf;
    (void)subleaf;
    registers[0] = registers[1] = registers[2] = registers[3] = 0;
#endif
}

uint64_t CIpmCpuEnv::xgetbv_(unsigned int index)
{
#if defined(__x86_64__) || defined(__i386__)
    uint32_t low = 0, high = 0;
    __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(index));
    return (static_cast<uint64_t>(high) << 32) | low;
#else
    (void)index;
    return 0;
#endif
}

En_SimdLevel CIpmCpuEnv::bestSimdFor(En_OpProfile profile) const
{
    switch (profile) {
    case En_OpProfile::Integer:
        if (hasAvx512BW) return En_SimdLevel::AVX512BW;
        if (hasAvx2) return En_SimdLevel::AVX2;
        if (hasSve2) return En_SimdLevel::SVE2;
        if (hasSve) return En_SimdLevel::SVE;
        if (hasNeon) return En_SimdLevel::NEON;
        return En_SimdLevel::Scalar;
    case En_OpProfile::Float:
        if (hasAvx512F) return En_SimdLevel::AVX512F;
        if (hasAvx2) return En_SimdLevel::AVX2;
        if (hasSve) return En_SimdLevel::SVE;
        if (hasNeon) return En_SimdLevel::NEON;
        return En_SimdLevel::Scalar;
    case En_OpProfile::Matrix:
        if (hasAmx) return En_SimdLevel::AMX;
        if (hasAvx512F) return hasAvx512BW ? En_SimdLevel::AVX512BW : En_SimdLevel::AVX512F;
        if (hasAvx2) return En_SimdLevel::AVX2;
        if (hasSve2) return En_SimdLevel::SVE2;
        if (hasSve) return En_SimdLevel::SVE;
        if (hasNeon) return En_SimdLevel::NEON;
        return En_SimdLevel::Scalar;
    }
    return En_SimdLevel::Scalar;
}

}  // namespace ipm
