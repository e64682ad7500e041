// The manager's frame buffer: three slots that the producer and the worker
// hand to each other without ever waiting for one another.
//
// At any moment each slot has exactly one role: the back slot, which only the
// producer writes; the newest published slot, which nobody touches; and the
// claimed slot, which only the running pass reads. The producer fills the
// back slot and publishes it by swapping it with the newest one in one atomic
// exchange; a frame that no pass claimed in time is then overwritten by the
// frame after next. A pass claims the newest slot by swapping its claimed slot
// in, again in one exchange, and owns it until it ends: the producer cannot
// reach the claimed slot, so no frame is ever read while it is being written,
// and onNewFrame() never waits.
//
// A slot keeps its pixel buffer while frames keep its width, height, format
// and YUV layout; the producer reallocates it only on a change.
//
// The published word carries the slot number and the hasFrame bit, set by
// every publication and cleared by every claim. A pass that finds the bit
// clear has nothing new to process; keeping both in one word is what makes
// each claim see a slot and its bit from the same publication.
#pragma once

#include <atomic>
#include <cstdint>

#include "CImageProcessMng.h"

// Hidden: the buffer is the manager's own, not part of what the library exports.
struct __attribute__((visibility("hidden"))) CImageProcessMng::TripleBuffer {
    static constexpr uint32_t kSlotMask = 0x3;
    static constexpr uint32_t kHasFrame = 0x4;

    // The producer publishes the back slot and takes the former newest slot
    // as its next back slot.
    void publish();
    // The newest published slot, now owned by the caller until its next
    // claim, or null when nothing was published since the last claim.
    const qrv_img::QRV_Image* claimNewest();

    qrv_img::QRV_Image slots[3];
    int32_t back = 0;                    // producer side only
    std::atomic<uint32_t> published{1};  // the newest slot | kHasFrame
    int32_t claimed = 2;                 // worker side only: the slot the running pass reads
};
