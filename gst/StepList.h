// The element's processing list: ipm-run's --step texts separated by ';',
// checked against the function table, and the step whose destination goes
// downstream.
#pragma once

#include <string>
#include <vector>

#include "QRV_Image.h"
#include "StepArgument.h"

class StepList {
public:
    // False with a one-line message: a step that does not parse, an index
    // with no function, an output step that is not in the list or that writes
    // something other than RGB888, BGR888 or Gray8. outputStep -1 is the last.
    static bool parse(const std::string& text, int outputStep, StepList& out, std::string& error);

    std::vector<StepArgument> steps;
    size_t outputPosition = 0;
    qrv_img::En_ImageFormat outputFormat = qrv_img::En_ImageFormat::RGB888;
};
