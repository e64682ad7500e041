// For hosts: part of the host interface of libQRV_IPM.
//
// Which processor family the library runs on, which SIMD instruction sets it
// may use, and which level suits a kind of operation best.
#pragma once

#include <cstdint>

namespace ipm {

enum class En_CpuType : int32_t {
    X86 = 0,
    X86_64 = 1,
    ARMv8 = 2,
    ARMv7_9 = 3,
};

enum class En_SimdLevel : int32_t {
    Scalar = 0,
    AVX2 = 1,
    AVX512F = 2,
    AVX512BW = 3,
    AMX = 4,
    NEON = 5,
    SVE = 6,
    SVE2 = 7,
};

// The kind of work a caller wants a SIMD level for.
enum class En_OpProfile : int32_t {
    Integer = 0,  // byte and word work
    Float = 1,    // wide-lane work
    Matrix = 2,   // tile work
};

class CIpmCpuEnv {
public:
    // Rebuilds every field from scratch.
    void Detect();
    void DetectCpuType_();
    void DetectSimd_arm_();
    void DetectSimd_x86_();

    // CPUID of (leaf, subleaf) into EAX, EBX, ECX, EDX; zeros on other processors.
    static void cpuid_(int leaf, int subleaf, int* registers);
    // The extended control register with that index (0 is XCR0); 0 on other processors.
    static uint64_t xgetbv_(unsigned int index);

    // Reads only the flags, never simdLevel.
    En_SimdLevel bestSimdFor(En_OpProfile profile) const;

    En_CpuType cpuType = En_CpuType::X86;
    int32_t simdBits = 0;
    En_SimdLevel simdLevel = En_SimdLevel::Scalar;
    bool hasAvx2 = false;
    bool hasAvx512F = false;
    bool hasAvx512BW = false;
    bool hasAmx = false;
    bool hasNeon = false;
    bool hasSve = false;
    bool hasSve2 = false;
    int32_t sveBits = 0;  // SVE vector length as the kernel reports it; 0 when unknown
};

}  // namespace ipm
