// The processing list of a run, resolved: for every step its function's
// display name, the format of what it reads and writes, and the images the
// manager's list points to.
//
// Images: the first step's source receives every frame (the manager copies
// the frame there before each pass). A step reads the previous step's
// destination (its source is left null in the list, which the manager fills
// in) or, with "frame:", that first source image, which holds the very frame
// the pass works on. Every destination has the frame's size.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "QRV_Image.h"
#include "StepArgument.h"

class ProcessingPlan {
public:
    // Finds the display name of the function at the coordinates; false if
    // nothing is registered there.
    using Lookup =
        std::function<bool(ipmcommon::EnProcessBackend, ipmcommon::EnIpmModule, int, std::wstring&)>;
    // The Lookup of the process-wide function table.
    static bool lookUpRegistered(ipmcommon::EnProcessBackend backend, ipmcommon::EnIpmModule module,
                                 int index, std::wstring& name);

    struct Step {
        StepArgument argument;
        std::string name;  // the function's display name
        qrv_img::En_ImageFormat sourceFormat = qrv_img::En_ImageFormat::YUV422_8;
        qrv_img::En_ImageFormat destinationFormat = qrv_img::En_ImageFormat::RGB888;
        std::unique_ptr<qrv_img::QRV_Image> destination;
    };

    // False with a one-line message for an index with no function or a step
    // whose destination format is neither known nor given.
    static bool build(const std::vector<StepArgument>& arguments, uint32_t width, uint32_t height,
                      qrv_img::En_YuvLayout layout, const Lookup& lookup, ProcessingPlan& out,
                      std::string& error);

    // The destination format of a built-in converter; false for other steps.
    static bool builtInDestination(const StepArgument& argument, qrv_img::En_ImageFormat& out);

    // The source to put into the manager's list for step `position`.
    qrv_img::QRV_Image* sourceFor(size_t position);

    std::vector<Step>& steps() { return steps_; }
    const std::vector<Step>& steps() const { return steps_; }
    qrv_img::QRV_Image& firstSource() { return *firstSource_; }

private:
    std::unique_ptr<qrv_img::QRV_Image> firstSource_;
    std::vector<Step> steps_;
};
