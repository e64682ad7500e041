#include "X86Features.h"

namespace ipm_internal {
namespace {

constexpr bool bit(uint64_t value, int position)
{
    return ((value >> position) & 1u) != 0;
}

}  // namespace

bool x86HasXcr0(uint32_t leaf1Ecx)
{
    return bit(leaf1Ecx, 27);
}

X86Features decodeX86Features(uint32_t leaf1Ecx, uint32_t leaf7Ebx, uint32_t leaf7Edx, uint64_t xcr0)
{
    X86Features features;
    if (!x86HasXcr0(leaf1Ecx)) return features;
    // XCR0 bits 1 and 2: SSE and AVX state; 5 to 7: the mask registers and
    // both halves of the 512-bit registers; 17 and 18: the tile state.
    const bool osSavesAvx = bit(xcr0, 1) && bit(xcr0, 2);
    const bool avx = osSavesAvx && bit(leaf1Ecx, 28);
    features.avx2 = avx && bit(leaf7Ebx, 5);
    const bool osSavesZmm = bit(xcr0, 5) && bit(xcr0, 6) && bit(xcr0, 7);
    features.avx512F = avx && osSavesZmm && bit(leaf7Ebx, 16);
    features.avx512BW = features.avx512F && bit(leaf7Ebx, 30);
    // The tile feature flag is EDX bit 24 of leaf 7 subleaf 0 in the vendor's tables.
    features.amx = bit(leaf7Edx, 24) && bit(xcr0, 17) && bit(xcr0, 18);
    return features;
}

}  // namespace ipm_internal
