#include "ProcessingPlan.h"

#include "CIpmFuncTable.h"
#include "Converter/CConverter.h"
#include "QRV_Log.h"

using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;

bool ProcessingPlan::lookUpRegistered(EnProcessBackend backend, EnIpmModule module, int index,
                                      std::wstring& name)
{
    for (const auto& [registered, display] :
         ipmcommon::CIpmFuncTable::Instance()->getAlgorithmList(backend, module)) {
        if (registered == index) {
            name = display;
            return true;
        }
    }
    return false;
}

bool ProcessingPlan::builtInDestination(const StepArgument& argument, En_ImageFormat& out)
{
    const bool cpu = argument.backend == EnProcessBackend::CPU_Serial ||
                     argument.backend == EnProcessBackend::CPU_Parallel;
    if (!cpu || argument.module != EnIpmModule::Converter) return false;
    return CConverter::destinationFormat(static_cast<CConverter::F>(argument.index), out);
}

bool ProcessingPlan::build(const std::vector<StepArgument>& arguments, uint32_t width, uint32_t height,
                           qrv_img::En_YuvLayout layout, const Lookup& lookup, ProcessingPlan& out,
                           std::string& error)
{
    ProcessingPlan plan;
    plan.firstSource_ = std::make_unique<QRV_Image>(width, height, En_ImageFormat::YUV422_8, true, 1);
    plan.firstSource_->yuvLayout = static_cast<int32_t>(layout);
    for (const StepArgument& argument : arguments) {
        Step step;
        step.argument = argument;
        std::wstring name;
        if (!lookup(argument.backend, argument.module, argument.index, name)) {
            error = "no function at " + argument.coordinates() + " (step '" + argument.text +
                    "'; ipm-run --list shows what is registered)";
            return false;
        }
        step.name = qrvlog::toUtf8(name);
        if (argument.destinationFormat) {
            step.destinationFormat = *argument.destinationFormat;
        } else if (!builtInDestination(argument, step.destinationFormat)) {
            error = "step '" + argument.text +
                    "' needs a destination format: append :Gray8, :RGB888, :BGR888 or :YUV422";
            return false;
        }
        const bool readsFrame = plan.steps_.empty() || argument.fromFrame;
        step.sourceFormat = readsFrame ? En_ImageFormat::YUV422_8 : plan.steps_.back().destinationFormat;
        step.destination = std::make_unique<QRV_Image>(width, height, step.destinationFormat, true, 1);
        if (step.destinationFormat == En_ImageFormat::YUV422_8) {
            step.destination->yuvLayout = static_cast<int32_t>(layout);
        }
        plan.steps_.push_back(std::move(step));
    }
    out = std::move(plan);
    return true;
}

QRV_Image* ProcessingPlan::sourceFor(size_t position)
{
    if (position == 0 || steps_[position].argument.fromFrame) return firstSource_.get();
    return nullptr;
}
