// ipm-run end to end: the real program on generated clips, ffmpeg clips and
// the synthetic camera; its pictures against the converters' own output, its
// summary, its pacing and its refusals of bad input.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "CIpmFuncTable.h"
#include "JsonReader.h"
#include "PngReader.h"
#include "QRV_Image.h"
#include "Subprocess.h"
#include "SyntheticCamera.h"
#include "TempDir.h"

namespace fs = std::filesystem;
using ipmcommon::CIpmFuncTable;
using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;
using qrv_img::En_ImageFormat;
using qrv_img::En_YuvLayout;
using qrv_img::QRV_Image;
using qrvtest::JsonValue;

namespace {

const char* const kIpmRun = IPM_RUN_BINARY;

// Each suite's scratch directories carry its name.
class TempDir : public qrvtest::TempDir {
public:
    TempDir() : qrvtest::TempDir("ipm-run-test") {}
};

qrvtest::ProcessResult ipmRun(const std::vector<std::string>& args)
{
    std::vector<std::string> argv{kIpmRun};
    argv.insert(argv.end(), args.begin(), args.end());
    return qrvtest::runProcess(argv);
}

std::string describe(const qrvtest::ProcessResult& result)
{
    return "exit " + std::to_string(result.exitCode) + "\nstdout:\n" + result.out + "\nstderr:\n" +
           result.err;
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

JsonValue readSummary(const std::string& dir)
{
    return JsonValue::parse(readFile(dir + "/summary.json"));
}

const char* layoutName(En_YuvLayout layout)
{
    switch (layout) {
    case En_YuvLayout::UYVY: return "UYVY";
    case En_YuvLayout::YVYU: return "YVYU";
    case En_YuvLayout::VYUY: return "VYUY";
    default: return "YUYV";
    }
}

// Frames of random bytes, written back to back as a raw clip.
std::vector<std::vector<uint8_t>> writeClip(const std::string& path, int frames, uint32_t width,
                                            uint32_t height, uint32_t seed)
{
    std::mt19937 random(seed);
    std::vector<std::vector<uint8_t>> clip(frames, std::vector<uint8_t>(2ull * width * height));
    std::ofstream out(path, std::ios::binary);
    for (auto& frame : clip) {
        for (auto& byte : frame) byte = static_cast<uint8_t>(random());
        out.write(reinterpret_cast<const char*>(frame.data()), static_cast<std::streamsize>(frame.size()));
    }
    return clip;
}

// A step of a processing list as the command line gives it, with the
// coordinates and destination format the test expects it to mean.
struct Step {
    std::string text;
    EnProcessBackend backend;
    int index;
    bool fromFrame;
};

En_ImageFormat converterDestination(int index)
{
    static const En_ImageFormat kFormats[] = {En_ImageFormat::RGB888, En_ImageFormat::BGR888,
                                              En_ImageFormat::Gray8};
    return kFormats[index];
}

const char* formatName(En_ImageFormat format)
{
    switch (format) {
    case En_ImageFormat::Gray8: return "Gray8";
    case En_ImageFormat::RGB888: return "RGB888";
    case En_ImageFormat::BGR888: return "BGR888";
    default: return "YUV422";
    }
}

// Every step's destination for one frame, computed in this process by the
// library's own converters through the function table.
std::vector<QRV_Image> expectedDestinations(const QRV_Image& frame, const std::vector<Step>& steps)
{
    std::vector<QRV_Image> destinations;
    for (size_t i = 0; i < steps.size(); ++i) {
        const QRV_Image* source = i == 0 || steps[i].fromFrame ? &frame : &destinations[i - 1];
        QRV_Image destination(frame.width, frame.height, converterDestination(steps[i].index), true, 1);
        const int code = CIpmFuncTable::Instance()->process(
            steps[i].backend, EnIpmModule::Converter, steps[i].index, source, &destination, nullptr, nullptr);
        EXPECT_EQ(code, 1) << steps[i].text;
        destinations.push_back(std::move(destination));
    }
    return destinations;
}

// What the PNG of an image decodes to: grey as is, colour as RGB.
std::vector<uint8_t> pngPixelsOf(const QRV_Image& image)
{
    std::vector<uint8_t> pixels(image.pixels(), image.pixels() + image.pixelBytes());
    if (image.format == En_ImageFormat::BGR888) {
        for (size_t i = 0; i + 2 < pixels.size(); i += 3) std::swap(pixels[i], pixels[i + 2]);
    }
    return pixels;
}

struct Picture {
    int frame;
    int step;
    std::string format;
};

// The pictures in an output directory, by file name.
std::map<std::string, Picture> picturesIn(const std::string& dir)
{
    const std::regex pattern("frame([0-9]{6})-step([0-9]+)-([A-Za-z0-9]+)\\.png");
    std::map<std::string, Picture> pictures;
    for (const auto& entry : fs::directory_iterator(dir)) {
        const std::string name = entry.path().filename().string();
        std::smatch match;
        if (std::regex_match(name, match, pattern)) {
            pictures[name] = Picture{std::stoi(match[1]), std::stoi(match[2]), match[3]};
        }
    }
    return pictures;
}

void expectPictureEquals(const std::string& path, const QRV_Image& expected)
{
    qrvtest::PngPicture picture;
    std::string error;
    ASSERT_TRUE(qrvtest::readPng(path, picture, error)) << error;
    EXPECT_EQ(picture.width, expected.width) << path;
    EXPECT_EQ(picture.height, expected.height) << path;
    EXPECT_EQ(picture.channels, expected.format == En_ImageFormat::Gray8 ? 1 : 3) << path;
    EXPECT_TRUE(picture.pixels == pngPixelsOf(expected)) << path << " differs from the converter's output";
}

// Checks what every run writes into summary.json against what the test knows.
void expectConsistentSummary(const JsonValue& summary, uint64_t delivered, const std::vector<Step>& steps)
{
    EXPECT_EQ(summary["frames"]["delivered"].number(), delivered);
    const double passes = summary["passes"].number();
    EXPECT_GE(passes, 1);
    EXPECT_EQ(summary["frames"]["processed"].number(), passes);
    EXPECT_EQ(summary["frames"]["dropped"].number() + passes, delivered);
    ASSERT_EQ(summary["steps"].size(), steps.size());
    for (size_t i = 0; i < steps.size(); ++i) {
        const JsonValue& step = summary["steps"][i];
        EXPECT_EQ(step["position"].number(), i);
        EXPECT_EQ(step["step"].string(), steps[i].text);
        EXPECT_EQ(step["destination_format"].string(), formatName(converterDestination(steps[i].index)));
        EXPECT_EQ(step["reads"].string(), i == 0 || steps[i].fromFrame ? "frame" : "previous");
        EXPECT_EQ(step["successes"].number(), passes) << steps[i].text;
        EXPECT_EQ(step["failures"].number(), 0) << steps[i].text;
        const JsonValue& latency = step["latency_ms"];
        EXPECT_GT(latency["median"].number(), 0.0);
        EXPECT_LE(latency["median"].number(), latency["p99"].number());
        EXPECT_LE(latency["p99"].number(), latency["max"].number());
    }
}

// A build without libpng (a cross build whose target lacks it) runs the same,
// writes no pictures and says so in the summary. True when pictures can be
// checked.
bool picturesCheckable(const JsonValue& summary, const std::string& dir)
{
    if (qrvtest::pngReaderAvailable()) return true;
    EXPECT_EQ(summary["pictures"].size(), 0u);
    EXPECT_TRUE(picturesIn(dir).empty());
    bool said = false;
    for (size_t i = 0; i < summary["notes"].size(); ++i) {
        said = said || summary["notes"][i].string().find("built without libpng") != std::string::npos;
    }
    EXPECT_TRUE(said) << "the summary says why there are no pictures";
    std::printf("pictures not compared: this build has no libpng\n");
    return false;
}

const std::vector<std::vector<Step>> kLists = {
    {{"CPU Parallel/Converter/0", EnProcessBackend::CPU_Parallel, 0, false},
     {"CPU Parallel/Converter/2", EnProcessBackend::CPU_Parallel, 2, false}},
    {{"CPU Serial/Converter/1", EnProcessBackend::CPU_Serial, 1, false},
     {"CPU Serial/Converter/2", EnProcessBackend::CPU_Serial, 2, false},
     {"frame:CPU Parallel/Converter/1", EnProcessBackend::CPU_Parallel, 1, true}},
    {{"CPU Serial/Converter/0", EnProcessBackend::CPU_Serial, 0, false},
     {"frame:CPU Serial/Converter/1", EnProcessBackend::CPU_Serial, 1, true},
     {"CPU Parallel/Converter/2", EnProcessBackend::CPU_Parallel, 2, false}},
};

std::vector<std::string> stepArgs(const std::vector<Step>& steps)
{
    std::vector<std::string> args;
    for (const Step& step : steps) args.insert(args.end(), {"--step", step.text});
    return args;
}

class IpmRunClip : public ::testing::TestWithParam<En_YuvLayout> {};

}  // namespace

// Every picture a run writes equals, byte for byte, what the serial and
// parallel converters make of the same frame; the summary adds up.
TEST_P(IpmRunClip, PicturesEqualTheConvertersOutputForEveryProcessingList)
{
    const En_YuvLayout layout = GetParam();
    const uint32_t width = 64;
    const uint32_t height = 24;
    const int frames = 4;
    TempDir dir;
    const auto clip =
        writeClip(dir.file("clip.yuv"), frames, width, height, 100 + static_cast<uint32_t>(layout));
    for (size_t list = 0; list < kLists.size(); ++list) {
        SCOPED_TRACE("processing list " + std::to_string(list));
        const std::vector<Step>& steps = kLists[list];
        const std::string out = dir.file("out" + std::to_string(list));
        std::vector<std::string> args = {"--input",      dir.file("clip.yuv"),
                                         "--size",       "64x24",
                                         "--layout",     layoutName(layout),
                                         "--fps",        "0",
                                         "--out",        out,
                                         "--save-every", "1"};
        const auto stepsArgs = stepArgs(steps);
        args.insert(args.end(), stepsArgs.begin(), stepsArgs.end());
        const auto result = ipmRun(args);
        ASSERT_EQ(result.exitCode, 0) << describe(result);

        const JsonValue summary = readSummary(out);
        expectConsistentSummary(summary, frames, steps);
        EXPECT_EQ(summary["source"]["layout"].string(), layoutName(layout));
        if (!picturesCheckable(summary, out)) continue;

        const auto pictures = picturesIn(out);
        std::set<std::string> listed;
        for (size_t i = 0; i < summary["pictures"].size(); ++i)
            listed.insert(summary["pictures"][i].string());
        std::set<std::string> found;
        std::set<int> framesSeen;
        for (const auto& [name, picture] : pictures) {
            found.insert(name);
            framesSeen.insert(picture.frame);
            ASSERT_LT(picture.frame, frames);
            ASSERT_LT(static_cast<size_t>(picture.step), steps.size());
            QRV_Image frame(width, height, En_ImageFormat::YUV422_8, true, 1);
            frame.yuvLayout = static_cast<int32_t>(layout);
            std::copy(clip[picture.frame].begin(), clip[picture.frame].end(), frame.pixels());
            const auto expected = expectedDestinations(frame, steps);
            EXPECT_EQ(picture.format, formatName(expected[picture.step].format)) << name;
            expectPictureEquals(out + "/" + name, expected[picture.step]);
        }
        EXPECT_EQ(listed, found) << "summary.json lists exactly the pictures written";
        // Every processed frame was saved, each with all its steps.
        EXPECT_EQ(framesSeen.size(), static_cast<size_t>(summary["passes"].number()));
        EXPECT_EQ(pictures.size(), framesSeen.size() * steps.size());
        EXPECT_EQ(framesSeen.count(frames - 1), 1u) << "the last frame is always processed";
    }
}

INSTANTIATE_TEST_SUITE_P(EveryLayout, IpmRunClip,
                         ::testing::Values(En_YuvLayout::YUYV, En_YuvLayout::UYVY, En_YuvLayout::YVYU,
                                           En_YuvLayout::VYUY),
                         [](const auto& info) { return std::string(layoutName(info.param)); });

TEST(IpmRun, TheSyntheticCameraReachesTheListAndItsLastFrameIsSaved)
{
    TempDir dir;
    const auto result = ipmRun(
        {"--size", "96x48", "--layout", "YVYU", "--frames", "3", "--fps", "0", "--out", dir.file("out")});
    ASSERT_EQ(result.exitCode, 0) << describe(result);
    const std::vector<Step> steps = kLists[0];
    const JsonValue summary = readSummary(dir.file("out"));
    expectConsistentSummary(summary, 3, steps);
    EXPECT_EQ(summary["source"]["input"].string(), "synthetic camera");
    EXPECT_NE(result.out.find("3 frames delivered"), std::string::npos) << result.out;
    if (!picturesCheckable(summary, dir.file("out"))) return;

    SyntheticCamera camera(96, 48, En_YuvLayout::YVYU);
    QRV_Image frame(96, 48, En_ImageFormat::YUV422_8, true, 1);
    camera.render(2, frame);
    const auto expected = expectedDestinations(frame, steps);
    expectPictureEquals(dir.file("out/frame000002-step0-RGB888.png"), expected[0]);
    expectPictureEquals(dir.file("out/frame000002-step1-Gray8.png"), expected[1]);
    EXPECT_EQ(picturesIn(dir.file("out")).size(), 2u) << "without --save-every only the last frame";
    // The summary table on stdout says where the pictures are.
    EXPECT_NE(result.out.find(dir.file("out") + "/frame000002-step1-Gray8.png"), std::string::npos)
        << result.out;
}

TEST(IpmRun, SaveEveryWritesEveryNthProcessedFrame)
{
    if (!qrvtest::pngReaderAvailable())
        GTEST_SKIP() << "this build has no libpng, so ipm-run writes no pictures";
    TempDir dir;
    writeClip(dir.file("clip.yuv"), 10, 16, 8, 7);
    const auto result = ipmRun({"--input", dir.file("clip.yuv"), "--size", "16x8", "--fps", "100", "--out",
                                dir.file("out"), "--save-every", "3"});
    ASSERT_EQ(result.exitCode, 0) << describe(result);
    const JsonValue summary = readSummary(dir.file("out"));
    std::set<int> saved;
    for (const auto& [name, picture] : picturesIn(dir.file("out"))) {
        EXPECT_TRUE(picture.frame % 3 == 0 || picture.frame == 9) << name;
        saved.insert(picture.frame);
    }
    EXPECT_EQ(saved.count(9), 1u);
    // Frames 0, 3, 6 and 9, less any that a newer frame replaced.
    EXPECT_GE(saved.size() + static_cast<size_t>(summary["frames"]["dropped"].number()), 4u);
}

// A step that fails is counted with its result code, the run goes on, and the
// exit status stays 0: a failing step is an outcome, not a usage error.
TEST(IpmRun, FailingStepsAreCountedWithTheirResultCode)
{
    TempDir dir;
    writeClip(dir.file("clip.yuv"), 3, 8, 4, 9);
    // The serial gray conversion refuses a YUV source with code 9; the next
    // step reads the frame and succeeds.
    const auto result =
        ipmRun({"--input", dir.file("clip.yuv"), "--size", "8x4", "--fps", "0", "--out", dir.file("out"),
                "--step", "CPU Serial/Converter/2", "--step", "frame:CPU Serial/Converter/0"});
    ASSERT_EQ(result.exitCode, 0) << describe(result);
    const JsonValue summary = readSummary(dir.file("out"));
    const double passes = summary["passes"].number();
    EXPECT_GE(passes, 1);
    EXPECT_EQ(summary["frames"]["dropped"].number() + passes, 3);
    const JsonValue& failing = summary["steps"][0];
    EXPECT_EQ(failing["successes"].number(), 0);
    EXPECT_EQ(failing["failures"].number(), passes);
    EXPECT_EQ(failing["failure_codes"]["9"].number(), passes);
    EXPECT_EQ(failing["failure_codes"].size(), 1u);
    EXPECT_EQ(summary["steps"][1]["successes"].number(), passes);
    EXPECT_EQ(summary["steps"][1]["failures"].number(), 0);
    EXPECT_NE(result.out.find("step 0 failed: code 9 x" + std::to_string(static_cast<int>(passes))),
              std::string::npos)
        << result.out;
    if (qrvtest::pngReaderAvailable()) {
        EXPECT_EQ(picturesIn(dir.file("out")).size(), 1u) << "only the step that succeeded has a picture";
    }
}

TEST(IpmRun, ATrailingPartialFrameIsSkippedWithAWarning)
{
    TempDir dir;
    writeClip(dir.file("clip.yuv"), 2, 8, 4, 11);
    {
        std::ofstream append(dir.file("clip.yuv"), std::ios::binary | std::ios::app);
        append.write("0123456789", 10);
    }
    const auto result =
        ipmRun({"--input", dir.file("clip.yuv"), "--size", "8x4", "--fps", "0", "--out", dir.file("out")});
    ASSERT_EQ(result.exitCode, 0) << describe(result);
    EXPECT_NE(result.err.find("warning: input file '" + dir.file("clip.yuv") +
                              "' holds 2 whole 8x4 frames and 10 trailing bytes, which are skipped"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(readSummary(dir.file("out"))["frames"]["delivered"].number(), 2);
}

TEST(IpmRun, FramesLimitsTheCount)
{
    TempDir dir;
    writeClip(dir.file("clip.yuv"), 5, 8, 2, 12);
    const auto fromFile = ipmRun({"--input", dir.file("clip.yuv"), "--size", "8x2", "--fps", "0", "--frames",
                                  "2", "--out", dir.file("file")});
    ASSERT_EQ(fromFile.exitCode, 0) << describe(fromFile);
    EXPECT_EQ(readSummary(dir.file("file"))["frames"]["delivered"].number(), 2);
    const auto synthetic =
        ipmRun({"--size", "16x8", "--fps", "0", "--frames", "4", "--out", dir.file("camera")});
    ASSERT_EQ(synthetic.exitCode, 0) << describe(synthetic);
    EXPECT_EQ(readSummary(dir.file("camera"))["frames"]["delivered"].number(), 4);
}

// --fps paces delivery like a camera: 60 frames at 30 fps take two seconds.
TEST(IpmRun, FpsPacesDeliveryLikeACamera)
{
    TempDir dir;
    const auto start = std::chrono::steady_clock::now();
    const auto result =
        ipmRun({"--size", "32x16", "--fps", "30", "--frames", "60", "--out", dir.file("out")});
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_EQ(result.exitCode, 0) << describe(result);
    const JsonValue summary = readSummary(dir.file("out"));
    const double fps = summary["fps"]["delivered"].number();
    std::printf("60 frames at --fps 30: delivered at %.2f fps, run %.2f s, process %.2f s\n", fps,
                summary["seconds"].number(), wall);
    EXPECT_NEAR(fps, 30.0, 1.5);
    EXPECT_GE(wall, 59.0 / 30.0);
    // Not a terminal: the progress line comes as plain lines, one a second.
    EXPECT_NE(result.err.find("frames delivered"), std::string::npos) << result.err;
    EXPECT_EQ(result.err.find('\r'), std::string::npos) << result.err;
}

// A plug-in step names its destination format; the example plug-in's mirror
// and threshold run between the built-in converters.
TEST(IpmRun, UserCustomStepsRunWithTheFormatTheyName)
{
#ifndef IPM_RUN_EXAMPLE_PLUGIN
    GTEST_SKIP() << "the example plug-in is not part of this build";
#else
    TempDir dir;
    // The library looks for the plug-in beside the executable.
    fs::create_directory(dir.file("bin"));
    fs::copy_file(kIpmRun, dir.file("bin/ipm-run"));
    fs::copy_file(IPM_RUN_EXAMPLE_PLUGIN, dir.file("bin/libCIpmUserCustom.so"));
    const std::string ipmRunWithPlugin = dir.file("bin/ipm-run");
    const auto list = qrvtest::runProcess({ipmRunWithPlugin, "--list"});
    ASSERT_EQ(list.exitCode, 0) << describe(list);
    EXPECT_NE(list.out.find("CPU Serial/User_Custom/0  Mirror horizontal"), std::string::npos) << list.out;

    const uint32_t width = 16;
    const uint32_t height = 6;
    const auto clip = writeClip(dir.file("clip.yuv"), 1, width, height, 21);
    const auto result = qrvtest::runProcess(
        {ipmRunWithPlugin, "--input", dir.file("clip.yuv"), "--size", "16x6", "--out", dir.file("out"),
         "--step", "CPU Serial/Converter/0", "--step", "CPU Serial/User_Custom/0:RGB888", "--step",
         "CPU Parallel/Converter/2", "--step", "CPU Serial/User_Custom/1:Gray8"});
    ASSERT_EQ(result.exitCode, 0) << describe(result);
    const JsonValue summary = readSummary(dir.file("out"));
    ASSERT_EQ(summary["steps"].size(), 4u);
    EXPECT_EQ(summary["steps"][1]["name"].string(), "Mirror horizontal (RGB888/BGR888)");
    EXPECT_EQ(summary["steps"][1]["destination_format"].string(), "RGB888");
    EXPECT_EQ(summary["steps"][3]["destination_format"].string(), "Gray8");
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(summary["steps"][i]["successes"].number(), 1) << i;
    if (!picturesCheckable(summary, dir.file("out"))) return;

    QRV_Image frame(width, height, En_ImageFormat::YUV422_8, true, 1);
    frame.yuvLayout = static_cast<int32_t>(En_YuvLayout::YUYV);
    std::copy(clip[0].begin(), clip[0].end(), frame.pixels());
    const auto converted = expectedDestinations(frame, {{"", EnProcessBackend::CPU_Serial, 0, false}});
    QRV_Image mirrored(width, height, En_ImageFormat::RGB888, true, 1);
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            std::copy_n(converted[0].pixels() + (y * width + x) * 3, 3,
                        mirrored.pixels() + (y * width + (width - 1 - x)) * 3);
        }
    }
    QRV_Image gray(width, height, En_ImageFormat::Gray8, true, 1);
    ASSERT_EQ(CIpmFuncTable::Instance()->process(EnProcessBackend::CPU_Parallel, EnIpmModule::Converter, 2,
                                                 &mirrored, &gray, nullptr, nullptr),
              1);
    QRV_Image thresholded(width, height, En_ImageFormat::Gray8, true, 1);
    for (size_t i = 0; i < gray.pixelBytes(); ++i)
        thresholded.pixels()[i] = gray.pixels()[i] >= 128 ? 255 : 0;
    expectPictureEquals(dir.file("out/frame000000-step1-RGB888.png"), mirrored);
    expectPictureEquals(dir.file("out/frame000000-step3-Gray8.png"), thresholded);
#endif
}

// Ctrl-C ends an endless run cleanly: delivery stops, the summary is
// written whole and says the run was interrupted.
TEST(IpmRun, AnInterruptedRunStillReports)
{
    TempDir dir;
    qrvtest::ProcessOptions options;
    options.wrapper = {"timeout", "--preserve-status", "-s", "INT", "1.5"};
    const auto result = qrvtest::runProcess(
        {kIpmRun, "--size", "32x16", "--fps", "30", "--frames", "0", "--out", dir.file("out")}, options);
    ASSERT_EQ(result.exitCode, 0) << describe(result);
    const JsonValue summary = readSummary(dir.file("out"));
    EXPECT_TRUE(summary["interrupted"].boolean());
    EXPECT_GE(summary["frames"]["delivered"].number(), 10);
    EXPECT_NE(result.out.find("(interrupted)"), std::string::npos) << result.out;
    for (const auto& name : dir.entries()) {
        EXPECT_NE(fs::path(name).filename().string().front(), '.') << "temporary file left: " << name;
    }
}

TEST(IpmRun, LogLevelShowsTheLibrarysLogAtThatVerbosity)
{
    const std::vector<std::string> run = {"--size",   "8x2",
                                          "--fps",    "0",
                                          "--frames", "2",
                                          "--step",   "CPU Parallel/Converter/0",
                                          "--step",   "CPU Parallel/Converter/0"};
    auto withLevel = [&](const std::string& level) {
        std::vector<std::string> args = run;
        if (!level.empty()) args.insert(args.end(), {"--log-level", level});
        return ipmRun(args);
    };
    // The second step gets an RGB888 source, which its conversion refuses:
    // the manager logs "process error" at the trace level.
    const auto silent = withLevel("");
    const auto errors = withLevel("1");
    const auto traces = withLevel("3");
    for (const auto* result : {&silent, &errors, &traces})
        ASSERT_EQ(result->exitCode, 0) << describe(*result);
    EXPECT_EQ(silent.err.find("[TRACE]"), std::string::npos) << silent.err;
    EXPECT_EQ(silent.err.find("[ERROR]"), std::string::npos) << silent.err;
    EXPECT_EQ(errors.err.find("[TRACE]"), std::string::npos) << errors.err;
    EXPECT_NE(traces.err.find("[TRACE] CImageProcessMng:"), std::string::npos) << traces.err;
    EXPECT_NE(traces.err.find("process error: "), std::string::npos) << traces.err;
}

TEST(IpmRun, ListPrintsEveryBuiltInConverter)
{
    const auto result = ipmRun({"--list"});
    ASSERT_EQ(result.exitCode, 0) << describe(result);
    for (const char* line : {"CPU Serial/Converter/0  YUV422 -> RGB888 (CPU Serial)",
                             "CPU Serial/Converter/2  RGB888 -> Gray8 (CPU Serial)",
                             "CPU Parallel/Converter/1  YUV422 -> BGR888 (CPU Parallel)"}) {
        EXPECT_NE(result.out.find(line), std::string::npos) << result.out;
    }
}

TEST(IpmRun, ReportPrintsTheEnvironmentReport)
{
    const auto result = ipmRun({"--report"});
    ASSERT_EQ(result.exitCode, 0) << describe(result);
    EXPECT_EQ(result.out.rfind("============ IPM Environment ============\nCPU    : ", 0), 0u) << result.out;
    EXPECT_NE(result.out.find("\nGPU(s) : "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("\nSelected: "), std::string::npos) << result.out;
    const std::string end = "========== IPM Environment End ==========\n";
    ASSERT_GE(result.out.size(), end.size());
    EXPECT_EQ(result.out.substr(result.out.size() - end.size()), end) << result.out;
    EXPECT_EQ(result.out.find('\r'), std::string::npos) << result.out;
}

TEST(IpmRun, HelpDocumentsEveryOption)
{
    const auto result = ipmRun({"--help"});
    ASSERT_EQ(result.exitCode, 0) << describe(result);
    for (const char* option : {"--input", "--size", "--layout", "--fps", "--frames", "--step", "frame:",
                               "--out", "--save-every", "--list", "--report", "--log-level", "--help"}) {
        EXPECT_NE(result.out.find(option), std::string::npos) << option;
    }
}

// Bad input: one line naming the problem, exit status 2, nothing written.
TEST(IpmRun, BadInputIsRefusedWithStatusTwoAndWritesNothing)
{
    TempDir dir;
    writeClip(dir.file("clip.yuv"), 1, 8, 4, 13);
    std::ofstream(dir.file("plain")) << "not a directory";
    const std::string clip = dir.file("clip.yuv");
    const std::string out = dir.file("out");
    const struct {
        std::vector<std::string> args;
        std::string message;
    } cases[] = {
        {{"--step", "CPU Paralel/Converter/0", "--out", out}, "unknown backend 'CPU Paralel'"},
        {{"--step", "CPU Parallel/Scale/0", "--out", out}, "unknown module 'Scale'"},
        {{"--step", "CPU Parallel/Converter/9", "--out", out}, "no function at CPU Parallel/Converter/9"},
        {{"--step", "CPU Serial/User_Custom/0:RGBA", "--out", out}, "unknown format 'RGBA'"},
        {{"--layout", "YUY2", "--out", out}, "unknown layout 'YUY2'"},
        {{"--input", clip, "--size", "64x64", "--out", out},
         "holds 64 bytes, less than one 64x64 YUV 4:2:2 frame"},
        {{"--input", clip, "--size", "7x4", "--out", out}, "odd width 7"},
        {{"--input", dir.file("missing.yuv"), "--size", "8x4", "--out", out}, "cannot open input file"},
        {{"--input", clip, "--out", out}, "--input needs --size"},
        {{"--size", "8x4", "--out", dir.file("plain")}, "exists and is not a directory"},
        {{"--size", "8x4", "--out", dir.file("plain/out")}, "cannot create output directory"},
        {{"--frobnicate", "--out", out}, "unknown option '--frobnicate'"},
    };
    const auto before = dir.entries();
    for (const auto& c : cases) {
        const auto result = ipmRun(c.args);
        EXPECT_EQ(result.exitCode, 2) << c.message << "\n" << describe(result);
        EXPECT_EQ(result.err.rfind("ipm-run: ", 0), 0u) << describe(result);
        EXPECT_NE(result.err.find(c.message), std::string::npos) << describe(result);
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << describe(result);
        EXPECT_EQ(result.out, "") << c.message;
        EXPECT_EQ(dir.entries(), before) << c.message;
    }
}

// ffmpeg's own YUV to RGB conversion of the same frames agrees closely with
// the serial converter. Both use the limited-range BT.601 matrix; they differ
// in fixed-point precision and rounding, so a level or two apart is expected.
TEST(IpmRun, AgreesWithFfmpegOnAnFfmpegClip)
{
    if (!qrvtest::pngReaderAvailable()) GTEST_SKIP() << "this build has no libpng to decode the pictures";
    qrvtest::ProcessOptions native;
    native.useEmulator = false;
    if (qrvtest::runProcess({"ffmpeg", "-version"}, native).exitCode != 0) {
        GTEST_SKIP() << "ffmpeg is not installed";
    }
    TempDir dir;
    const std::string clip = dir.file("clip.yuv");
    const auto make =
        qrvtest::runProcess({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=160x90:rate=30",
                             "-frames:v", "2", "-pix_fmt", "yuyv422", "-f", "rawvideo", clip},
                            native);
    ASSERT_EQ(make.exitCode, 0) << describe(make);
    const auto toRgb =
        qrvtest::runProcess({"ffmpeg", "-v", "error", "-f", "rawvideo", "-pix_fmt", "yuyv422", "-s", "160x90",
                             "-i", clip, "-pix_fmt", "rgb24", "-f", "rawvideo", dir.file("clip.rgb")},
                            native);
    ASSERT_EQ(toRgb.exitCode, 0) << describe(toRgb);
    const std::string rgb = readFile(dir.file("clip.rgb"));
    const size_t frameBytes = 160 * 90 * 3;
    ASSERT_EQ(rgb.size(), 2 * frameBytes);

    const auto result = ipmRun({"--input", clip, "--size", "160x90", "--fps", "0", "--out", dir.file("out"),
                                "--save-every", "1", "--step", "CPU Serial/Converter/0"});
    ASSERT_EQ(result.exitCode, 0) << describe(result);
    const auto pictures = picturesIn(dir.file("out"));
    ASSERT_FALSE(pictures.empty());
    int largest = 0;
    double total = 0;
    size_t samples = 0;
    for (const auto& [name, picture] : pictures) {
        qrvtest::PngPicture decoded;
        std::string error;
        ASSERT_TRUE(qrvtest::readPng(dir.file("out/" + name), decoded, error)) << error;
        ASSERT_EQ(decoded.pixels.size(), frameBytes);
        for (size_t i = 0; i < frameBytes; ++i) {
            const int difference =
                std::abs(decoded.pixels[i] - static_cast<uint8_t>(rgb[picture.frame * frameBytes + i]));
            largest = std::max(largest, difference);
            total += difference;
            ++samples;
        }
    }
    const double mean = total / static_cast<double>(samples);
    std::printf("serial converter vs ffmpeg rgb24 over %zu samples: largest difference %d, mean %.3f\n",
                samples, largest, mean);
    // Measured here: largest 3, mean 0.93 (swscale's default fast path rounds
    // coarser than the converter). A wrong matrix or range would be off by
    // tens of levels on the clip's saturated colours.
    EXPECT_LE(largest, 4);
    EXPECT_LE(mean, 1.5);
}
