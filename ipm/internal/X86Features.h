// The x86 SIMD sets the library may use, decoded from the identification
// registers apart from the instructions that read them, so that the decoding
// can be checked against the registers of processors other than the one the
// tests run on.
#pragma once

#include <cstdint>

namespace ipm_internal {

struct __attribute__((visibility("hidden"))) X86Features {
    bool avx2 = false;
    bool avx512F = false;
    bool avx512BW = false;
    bool amx = false;
};

// leaf1Ecx: CPUID leaf 1, ECX; leaf7Ebx, leaf7Edx: leaf 7 subleaf 0. A set is
// usable when the processor has it and the operating system saves its
// registers: xcr0 is XCR0, which exists (and is read) only when leaf 1 says
// OSXSAVE; without it xcr0 is ignored.
__attribute__((visibility("hidden"))) X86Features decodeX86Features(uint32_t leaf1Ecx, uint32_t leaf7Ebx,
                                                                    uint32_t leaf7Edx, uint64_t xcr0);

// Whether XCR0 may be read on a processor with this leaf 1 ECX (OSXSAVE).
__attribute__((visibility("hidden"))) bool x86HasXcr0(uint32_t leaf1Ecx);

}  // namespace ipm_internal
