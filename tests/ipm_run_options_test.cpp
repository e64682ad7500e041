// ipm-run's command line: options, processing steps and the resolved plan.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "Options.h"
#include "ProcessingPlan.h"
#include "StepArgument.h"

using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;
using qrv_img::En_ImageFormat;
using qrv_img::En_YuvLayout;

namespace {

bool parse(const std::vector<std::string>& args, Options& options, std::string& error)
{
    return Options::parse(args, options, error);
}

}  // namespace

TEST(IpmRunOptions, NoArgumentsRunTheSyntheticCameraThroughTheDefaultList)
{
    Options options;
    std::string error;
    ASSERT_TRUE(parse({}, options, error)) << error;
    EXPECT_EQ(options.mode, Options::Mode::Run);
    EXPECT_TRUE(options.input.empty());
    EXPECT_EQ(options.width, 1280u);
    EXPECT_EQ(options.height, 720u);
    EXPECT_EQ(options.layout, En_YuvLayout::YUYV);
    EXPECT_EQ(options.fps, 30.0);
    EXPECT_EQ(options.frames, Options::kSyntheticDefaultFrames);
    EXPECT_TRUE(options.outDir.empty());
    EXPECT_EQ(options.logLevel, 0);
    ASSERT_EQ(options.steps.size(), 2u);
    EXPECT_EQ(options.steps[0].backend, EnProcessBackend::CPU_Parallel);
    EXPECT_EQ(options.steps[0].module, EnIpmModule::Converter);
    EXPECT_EQ(options.steps[0].index, 0);
    EXPECT_EQ(options.steps[1].index, 2);
    EXPECT_FALSE(options.steps[1].fromFrame);
}

TEST(IpmRunOptions, EveryOptionIsReadInBothSpellings)
{
    Options options;
    std::string error;
    ASSERT_TRUE(parse({"--input", "clip.yuv", "--size=640x360", "--layout", "vyuy", "--fps=12.5", "--frames",
                       "7", "--step", "CPU Serial/Converter/1", "--step=frame:GPU CUDA/User_Custom/-3:YUV422",
                       "--out", "out dir", "--save-every=4", "--log-level", "3"},
                      options, error))
        << error;
    EXPECT_EQ(options.input, "clip.yuv");
    EXPECT_EQ(options.width, 640u);
    EXPECT_EQ(options.height, 360u);
    EXPECT_EQ(options.layout, En_YuvLayout::VYUY);
    EXPECT_EQ(options.fps, 12.5);
    EXPECT_EQ(options.frames, 7u);
    ASSERT_EQ(options.steps.size(), 2u);
    EXPECT_EQ(options.steps[0].backend, EnProcessBackend::CPU_Serial);
    EXPECT_EQ(options.steps[0].index, 1);
    EXPECT_FALSE(options.steps[0].destinationFormat.has_value());
    EXPECT_TRUE(options.steps[1].fromFrame);
    EXPECT_EQ(options.steps[1].backend, EnProcessBackend::GPU_CUDA);
    EXPECT_EQ(options.steps[1].module, EnIpmModule::User_Custom);
    EXPECT_EQ(options.steps[1].index, -3);
    EXPECT_EQ(options.steps[1].destinationFormat, En_ImageFormat::YUV422_8);
    EXPECT_EQ(options.outDir, "out dir");
    EXPECT_EQ(options.saveEvery, 4u);
    EXPECT_EQ(options.logLevel, 3);
}

TEST(IpmRunOptions, AFileRunsToItsEndAndFpsZeroMeansUnpaced)
{
    Options options;
    std::string error;
    ASSERT_TRUE(parse({"--input", "a.yuv", "--size", "2x2", "--fps", "0"}, options, error)) << error;
    EXPECT_EQ(options.frames, 0u);
    EXPECT_EQ(options.fps, 0.0);
}

TEST(IpmRunOptions, ListReportAndHelpChooseTheirMode)
{
    Options options;
    std::string error;
    ASSERT_TRUE(parse({"--list"}, options, error));
    EXPECT_EQ(options.mode, Options::Mode::List);
    ASSERT_TRUE(parse({"--report"}, options, error));
    EXPECT_EQ(options.mode, Options::Mode::Report);
    ASSERT_TRUE(parse({"--help"}, options, error));
    EXPECT_EQ(options.mode, Options::Mode::Help);
}

// Each bad command line is refused with a message that names the problem.
TEST(IpmRunOptions, BadCommandLinesAreRefusedWithAMessageNamingTheProblem)
{
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"--frobnicate"}, "unknown option '--frobnicate'"},
        {{"--size"}, "option --size needs a value"},
        {{"--size", "640"}, "bad size '640'"},
        {{"--size", "0x360"}, "bad size '0x360'"},
        {{"--size", "640x-2"}, "bad size '640x-2'"},
        {{"--size", "20000x16"}, "bad size '20000x16'"},
        {{"--size", "641x360"}, "odd width 641"},
        {{"--layout", "YUY2"}, "unknown layout 'YUY2'"},
        {{"--fps", "-1"}, "bad frame rate '-1'"},
        {{"--fps", "fast"}, "bad frame rate 'fast'"},
        {{"--frames", "1e3"}, "bad frame count '1e3'"},
        {{"--input", "clip.yuv"}, "--input needs --size"},
        {{"--input="}, "--input needs a file name"},
        {{"--out="}, "--out needs a directory name"},
        {{"--save-every", "3"}, "--save-every needs --out"},
        {{"--out", "d", "--save-every", "0"}, "bad --save-every '0'"},
        {{"--log-level", "4"}, "bad log level '4'"},
        {{"--list=yes"}, "option --list takes no value"},
        {{"--step", "CPU parallel/Converter/0"}, "unknown backend 'CPU parallel'"},
        {{"--step", "CPU Parallel /Converter/0"}, "unknown backend 'CPU Parallel '"},
        {{"--step", "CPU Serial/Convert/0"}, "unknown module 'Convert'"},
        {{"--step", "CPU Serial/Converter/one"}, "bad algorithm index 'one'"},
        {{"--step", "CPU Serial/Converter/99999999999"}, "bad algorithm index '99999999999'"},
        {{"--step", "CPU Serial/Converter/0:RGB"}, "unknown format 'RGB'"},
        {{"--step", "CPU Serial/Converter"}, "is not BACKEND/MODULE/INDEX"},
        {{"--step", "CPU Serial/Converter/0/1"}, "is not BACKEND/MODULE/INDEX"},
        {{"--step", "Frame:CPU Serial/Converter/0"}, "unknown backend 'Frame:CPU Serial'"},
    };
    for (const auto& [args, expected] : cases) {
        Options options;
        std::string error;
        EXPECT_FALSE(parse(args, options, error)) << args[0];
        EXPECT_NE(error.find(expected), std::string::npos)
            << "message: " << error << "\nexpected: " << expected;
        EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    }
}

TEST(IpmRunStepArgument, CoordinatesUseTheLibrarysDisplayNames)
{
    StepArgument argument;
    std::string error;
    ASSERT_TRUE(StepArgument::parse("frame:GPU GL Compute/Splitter/12:Gray8", argument, error)) << error;
    EXPECT_EQ(argument.coordinates(), "GPU GL Compute/Splitter/12");
    EXPECT_EQ(argument.text, "frame:GPU GL Compute/Splitter/12:Gray8");
    EXPECT_TRUE(argument.fromFrame);
    EXPECT_EQ(argument.destinationFormat, En_ImageFormat::Gray8);
}

namespace {

// A stand-in for the function table: the coordinates that hold a function.
ProcessingPlan::Lookup registered(std::set<std::tuple<EnProcessBackend, EnIpmModule, int>> functions)
{
    return [functions](EnProcessBackend backend, EnIpmModule module, int index, std::wstring& name) {
        if (functions.count({backend, module, index}) == 0) return false;
        name = L"function " + std::to_wstring(index);
        return true;
    };
}

std::vector<StepArgument> steps(const std::vector<std::string>& texts)
{
    std::vector<StepArgument> arguments;
    for (const auto& text : texts) {
        StepArgument argument;
        std::string error;
        EXPECT_TRUE(StepArgument::parse(text, argument, error)) << error;
        arguments.push_back(argument);
    }
    return arguments;
}

}  // namespace

TEST(IpmRunPlan, BuiltInConvertersGiveTheirFormatsAndStepsChain)
{
    const auto lookup = registered({{EnProcessBackend::CPU_Serial, EnIpmModule::Converter, 1},
                                    {EnProcessBackend::CPU_Parallel, EnIpmModule::Converter, 2},
                                    {EnProcessBackend::CPU_Parallel, EnIpmModule::Converter, 0}});
    ProcessingPlan plan;
    std::string error;
    ASSERT_TRUE(ProcessingPlan::build(
        steps({"CPU Serial/Converter/1", "CPU Parallel/Converter/2", "frame:CPU Parallel/Converter/0"}), 64,
        48, En_YuvLayout::UYVY, lookup, plan, error))
        << error;
    ASSERT_EQ(plan.steps().size(), 3u);
    EXPECT_EQ(plan.steps()[0].name, "function 1");
    EXPECT_EQ(plan.steps()[0].sourceFormat, En_ImageFormat::YUV422_8);
    EXPECT_EQ(plan.steps()[0].destinationFormat, En_ImageFormat::BGR888);
    EXPECT_EQ(plan.steps()[1].sourceFormat, En_ImageFormat::BGR888);
    EXPECT_EQ(plan.steps()[1].destinationFormat, En_ImageFormat::Gray8);
    EXPECT_EQ(plan.steps()[2].sourceFormat, En_ImageFormat::YUV422_8);
    EXPECT_EQ(plan.steps()[2].destinationFormat, En_ImageFormat::RGB888);

    // The first step and the frame: step read the image that receives the
    // frame; the chained step is left for the manager to link.
    EXPECT_EQ(plan.sourceFor(0), &plan.firstSource());
    EXPECT_EQ(plan.sourceFor(1), nullptr);
    EXPECT_EQ(plan.sourceFor(2), &plan.firstSource());
    EXPECT_EQ(plan.firstSource().format, En_ImageFormat::YUV422_8);
    EXPECT_EQ(plan.firstSource().yuvLayout, static_cast<int32_t>(En_YuvLayout::UYVY));
    for (const auto& step : plan.steps()) {
        ASSERT_NE(step.destination, nullptr);
        EXPECT_EQ(step.destination->width, 64u);
        EXPECT_EQ(step.destination->height, 48u);
        EXPECT_EQ(step.destination->format, step.destinationFormat);
        EXPECT_NE(step.destination->pixels(), nullptr);
    }
}

TEST(IpmRunPlan, OtherStepsMustNameTheirDestinationFormat)
{
    const auto lookup = registered({{EnProcessBackend::CPU_Serial, EnIpmModule::User_Custom, 0},
                                    {EnProcessBackend::GPU_OpenCL, EnIpmModule::Converter, 0}});
    ProcessingPlan plan;
    std::string error;
    for (const char* step : {"CPU Serial/User_Custom/0", "GPU OpenCL/Converter/0"}) {
        EXPECT_FALSE(ProcessingPlan::build(steps({step}), 8, 8, En_YuvLayout::YUYV, lookup, plan, error));
        EXPECT_NE(error.find("needs a destination format"), std::string::npos) << error;
    }
    ASSERT_TRUE(ProcessingPlan::build(steps({"CPU Serial/User_Custom/0:YUV422"}), 8, 8, En_YuvLayout::YVYU,
                                      lookup, plan, error))
        << error;
    EXPECT_EQ(plan.steps()[0].destination->format, En_ImageFormat::YUV422_8);
    EXPECT_EQ(plan.steps()[0].destination->yuvLayout, static_cast<int32_t>(En_YuvLayout::YVYU));
}

TEST(IpmRunPlan, AnIndexWithNoFunctionIsRefused)
{
    ProcessingPlan plan;
    std::string error;
    EXPECT_FALSE(ProcessingPlan::build(steps({"CPU Parallel/Converter/7"}), 8, 8, En_YuvLayout::YUYV,
                                       registered({}), plan, error));
    EXPECT_NE(error.find("no function at CPU Parallel/Converter/7"), std::string::npos) << error;
}
