#include "TripleBuffer.h"

void CImageProcessMng::TripleBuffer::publish()
{
    // Release hands the written slot over; acquire takes back a slot that a
    // pass may have read until its last claim.
    const uint32_t previous =
        published.exchange(static_cast<uint32_t>(back) | kHasFrame, std::memory_order_acq_rel);
    back = static_cast<int32_t>(previous & kSlotMask);
}

const qrv_img::QRV_Image* CImageProcessMng::TripleBuffer::claimNewest()
{
    // Only a claim clears the bit, so a set bit seen here is still set at the
    // exchange, possibly on a newer slot.
    if ((published.load(std::memory_order_relaxed) & kHasFrame) == 0) return nullptr;
    const uint32_t previous = published.exchange(static_cast<uint32_t>(claimed), std::memory_order_acq_rel);
    claimed = static_cast<int32_t>(previous & kSlotMask);
    return &slots[claimed];
}
