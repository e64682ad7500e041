// One processing step as written on the command line:
//
//     [frame:]BACKEND/MODULE/INDEX[:FORMAT]
//
// BACKEND and MODULE are the library's display names ("CPU Parallel",
// "Converter", ...), INDEX the algorithm index, FORMAT the destination format.
// The "frame:" prefix makes the step read the frame instead of the previous
// step's destination.
#pragma once

#include <optional>
#include <string>

#include "IpmTypes.h"
#include "QRV_Image.h"

class StepArgument {
public:
    // False with a one-line message naming the problem.
    static bool parse(const std::string& text, StepArgument& out, std::string& error);

    // BACKEND/MODULE/INDEX, the coordinates alone.
    std::string coordinates() const;

    std::string text;  // as written
    ipmcommon::EnProcessBackend backend = ipmcommon::EnProcessBackend::CPU_Serial;
    ipmcommon::EnIpmModule module = ipmcommon::EnIpmModule::Converter;
    int index = 0;
    std::optional<qrv_img::En_ImageFormat> destinationFormat;
    bool fromFrame = false;

    static const char* const kFramePrefix;
};
