#include "StepList.h"

#include "ImageNames.h"
#include "ProcessingPlan.h"

namespace {

std::string trimmed(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

bool StepList::parse(const std::string& text, int outputStep, StepList& out, std::string& error)
{
    StepList list;
    for (size_t begin = 0;;) {
        const size_t end = text.find(';', begin);
        StepArgument argument;
        if (!StepArgument::parse(trimmed(text.substr(begin, end - begin)), argument, error)) return false;
        list.steps.push_back(std::move(argument));
        if (end == std::string::npos) break;
        begin = end + 1;
    }
    // A plan of any size resolves every step's function and formats.
    ProcessingPlan plan;
    if (!ProcessingPlan::build(list.steps, 2, 1, qrv_img::En_YuvLayout::YUYV,
                               ProcessingPlan::lookUpRegistered, plan, error)) {
        return false;
    }
    if (outputStep < -1 || outputStep >= static_cast<int>(list.steps.size())) {
        error = "output-step " + std::to_string(outputStep) + " is not a step of the list (it has " +
                std::to_string(list.steps.size()) + ", counted from 0)";
        return false;
    }
    list.outputPosition = outputStep < 0 ? list.steps.size() - 1 : static_cast<size_t>(outputStep);
    list.outputFormat = plan.steps()[list.outputPosition].destinationFormat;
    if (list.outputFormat == qrv_img::En_ImageFormat::YUV422_8) {
        error = "output step '" + list.steps[list.outputPosition].text + "' writes " +
                ImageNames::formatName(list.outputFormat) + "; ipmprocess pushes RGB888, BGR888 or Gray8";
        return false;
    }
    out = std::move(list);
    return true;
}
