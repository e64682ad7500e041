// Table-driven checks of refusals: each case spoils a valid pair of images so
// that one check fails; the function must return that check's code and leave
// the destination's pixel bytes alone.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "QRV_Image.h"

namespace qrvtest {

constexpr uint8_t kCanary = 0x77;  // the destination's bytes before a call

using ImagePair = std::function<void(qrv_img::QRV_Image& source, qrv_img::QRV_Image& destination)>;
using EntryPoint = std::function<int(const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination)>;

struct RefusalCase {
    const char* name;
    ImagePair spoil;
    int code;
    bool dropSource = false;  // pass null instead of the image
    bool dropDestination = false;
};

inline void keepPair(qrv_img::QRV_Image&, qrv_img::QRV_Image&) {}

std::vector<RefusalCase> operator+(std::vector<RefusalCase> first, const std::vector<RefusalCase>& second);

// makePair builds a valid pair whose destination holds kCanary.
void expectRefusals(const std::string& entryName, const EntryPoint& entry,
                    const std::vector<RefusalCase>& cases, const ImagePair& makePair);

}  // namespace qrvtest
