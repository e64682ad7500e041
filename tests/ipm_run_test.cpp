// ipm-run as a user runs it, from a copy beside this test and the example
// plug-in, so that both tables hold the plug-in's functions.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#include "stb_image.h"

#include "CIpmFuncTable.h"
#include "TestSupport.h"

using namespace ipmcommon;
using nlohmann::json;
using namespace qrv_img;

namespace {

qrvtest::ProcessResult ipmRun(std::vector<std::string> args)
{
    args.insert(args.begin(), IPM_RUN);
    return qrvtest::runProcess(args);
}

// A PNG's pixels as stored: one byte a pixel for grey, three (RGB) for colour.
std::vector<uint8_t> decodePng(const std::string& path)
{
    int width = 0, height = 0, channels = 0;
    uint8_t* decoded = stbi_load(path.c_str(), &width, &height, &channels, 0);
    std::vector<uint8_t> pixels(decoded, decoded + (decoded ? size_t(width) * height * channels : 0));
    stbi_image_free(decoded);
    EXPECT_FALSE(pixels.empty()) << path << " is not a readable PNG";
    return pixels;
}

struct Step {
    std::string text;  // as given to --step
    EnProcessBackend backend;
    EnIpmModule module;
    int index;
    En_ImageFormat destination;
};
constexpr auto Serial = EnProcessBackend::CPU_Serial, Parallel = EnProcessBackend::CPU_Parallel;
constexpr auto Converter = EnIpmModule::Converter, Custom = EnIpmModule::User_Custom;
constexpr auto Rgb = En_ImageFormat::RGB888, Bgr = En_ImageFormat::BGR888, Gray = En_ImageFormat::Gray8;

// Each layout with another list: ipm-run's defaults (no --step, the last frame
// saved), `frame:` steps, a step that fails (gray from a YUV frame: 9), the
// plug-in's steps between the built-in ones, both byte orders into gray.
const struct {
    const char* layout;  // its value is 10 + its position here
    std::vector<Step> steps;
} kClips[] = {
    {"YUYV", {{"", Parallel, Converter, 0, Rgb}, {"", Parallel, Converter, 2, Gray}}},
    {"UYVY",
     {{"CPU Serial/Converter/2", Serial, Converter, 2, Gray},
      {"frame:CPU Serial/Converter/1", Serial, Converter, 1, Bgr},
      {"CPU Serial/Converter/2", Serial, Converter, 2, Gray}}},
    {"YVYU",
     {{"CPU Serial/Converter/0", Serial, Converter, 0, Rgb},
      {"CPU Serial/User_Custom/0:RGB888", Serial, Custom, 0, Rgb},
      {"CPU Parallel/Converter/2", Parallel, Converter, 2, Gray},
      {"CPU Serial/User_Custom/1:Gray8", Serial, Custom, 1, Gray}}},
    {"VYUY",
     {{"CPU Parallel/Converter/1", Parallel, Converter, 1, Bgr},
      {"CPU Parallel/Converter/2", Parallel, Converter, 2, Gray},
      {"frame:CPU Serial/Converter/0", Serial, Converter, 0, Rgb},
      {"frame:CPU Parallel/Converter/1", Parallel, Converter, 1, Bgr}}},
};

class IpmRunClip : public ::testing::TestWithParam<int> {};

}  // namespace

// Each frame of a clip of random bytes (they reach every clamp) runs through
// the list here too: each picture equals that step's destination byte for
// byte, and the summary counts the run. The width is a multiple of 4, as the
// parallel converters need, and not of their vectors.
TEST_P(IpmRunClip, PicturesEqualTheLibrarysOutputAndTheSummaryCountsTheRun)
{
    const auto& clip = kClips[GetParam()];
    const bool defaults = GetParam() == 0;
    const uint32_t width = 36, height = 5, frames = 4, frameBytes = 2 * width * height;
    const size_t steps = clip.steps.size();
    std::mt19937 random(GetParam());
    std::string bytes(frames * frameBytes, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    qrvtest::TempDir dir;
    qrvtest::writeFile(dir.file("clip.yuv"), bytes);
    std::vector<std::string> args = {"--input",  dir.file("clip.yuv"), "--size", "36x5",
                                     "--layout", clip.layout,          "--fps",  "0",
                                     "--out",    dir.file("out")};
    if (!defaults) args.insert(args.end(), {"--save-every", "1"});
    for (size_t s = 0; !defaults && s < steps; ++s) args.insert(args.end(), {"--step", clip.steps[s].text});
    const auto run = ipmRun(args);
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const json summary = json::parse(qrvtest::readFile(dir.file("out/summary.json")));
    const auto listed = summary["pictures"].get<std::set<std::string>>();
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.file("out")), {}), listed.size() + 1);
    ASSERT_EQ(summary["steps"].size(), steps);

    std::vector<int> codes(steps);  // the same for every frame of these lists
    std::set<size_t> saved;
    for (size_t f = 0; f < frames; ++f) {
        QRV_Image frame(width, height, En_ImageFormat::YUV422_8, true, 1);
        frame.yuvLayout = 10 + GetParam();
        std::copy_n(bytes.data() + f * frameBytes, frameBytes, frame.pixels());
        std::vector<QRV_Image> destinations;
        for (size_t s = 0; s < steps; ++s) {
            const Step& step = clip.steps[s];
            const QRV_Image& image = destinations.emplace_back(width, height, step.destination, true, 1);
            const bool readsFrame = s == 0 || step.text.rfind("frame:", 0) == 0;
            EXPECT_EQ(summary["steps"][s]["reads"], readsFrame ? "frame" : "previous") << s;
            codes[s] = CIpmFuncTable::Instance()->process(step.backend, step.module, step.index,
                                                          readsFrame ? &frame : &destinations[s - 1],
                                                          &destinations.back(), nullptr, nullptr);
            const std::string name = "frame00000" + std::to_string(f) + "-step" + std::to_string(s) + "-" +
                                     summary["steps"][s]["destination_format"].get<std::string>() + ".png";
            if (codes[s] != 1 || listed.count(name) == 0) continue;
            saved.insert(f);
            std::vector<uint8_t> pixels(image.pixels(), image.pixels() + image.pixelBytes());
            for (size_t i = 0; step.destination == Bgr && i < pixels.size(); i += 3) {
                std::swap(pixels[i], pixels[i + 2]);  // saved as RGB
            }
            EXPECT_TRUE(decodePng(dir.file("out/") + name) == pixels) << name;
        }
    }

    const uint64_t passes = summary["passes"];
    const json frameCounts = {{"delivered", frames}, {"processed", passes}, {"dropped", frames - passes}};
    EXPECT_EQ(summary["frames"], frameCounts) << "a frame is either processed or replaced";
    EXPECT_EQ(summary["manager_errors"], 0);
    size_t succeeding = 0;
    for (size_t s = 0; s < steps; ++s) {
        const bool ok = codes[s] == 1;
        succeeding += ok;
        const json failureCodes = ok ? json::object() : json{{std::to_string(codes[s]), passes}};
        EXPECT_EQ(summary["steps"][s]["successes"], ok ? passes : 0) << s;
        EXPECT_EQ(summary["steps"][s]["failures"], ok ? 0 : passes) << s;
        EXPECT_EQ(summary["steps"][s]["failure_codes"], failureCodes) << s;
    }
    EXPECT_EQ(passes, frames) << "converting a file is lossless";
    EXPECT_EQ(listed.size(), saved.size() * succeeding) << "pictures of no successful step of a frame";
    EXPECT_EQ(saved.size(), defaults ? 1 : passes);
    if (defaults) {
        EXPECT_EQ(summary["notes"], json::array()) << "a run without failures has nothing to note";
    }
    EXPECT_EQ(saved.count(frames - 1), 1u) << "the last frame is always processed and saved";
}

INSTANTIATE_TEST_SUITE_P(EveryLayout, IpmRunClip, ::testing::Range(0, 4),
                         [](const auto& info) { return std::string(kClips[info.param].layout); });

// ffmpeg -> ipm-run -> raw RGB, as in a shell pipe: every frame comes out, in
// order, and agrees with ffmpeg's own rgb24 of its test pattern. Both are
// limited-range BT.601, differing in precision and rounding only. Measured,
// ipm-run lies 0 to 3 levels above ffmpeg, which truncates where the
// converter rounds (mean +0.93). A wrong coefficient, chroma or range offset
// moves testsrc2's saturated colours by tens of levels, a lost rounding term
// the signed mean by half a level: the bounds allow neither.
TEST(IpmRun, ConvertsAPipeFromFfmpegAndAgreesWithIt)
{
    const auto ffmpeg = [](std::vector<std::string> args, const std::string& input = "") {
        qrvtest::ProcessOptions native;
        native.useEmulator = false;
        native.stdinText = input;
        args.insert(args.begin(), {"ffmpeg", "-v", "error"});
        return qrvtest::runProcess(args, native).out;
    };
    const std::string clip = ffmpeg({"-f", "lavfi", "-i", "testsrc2=size=160x90", "-frames:v", "7",
                                     "-pix_fmt", "yuyv422", "-f", "rawvideo", "-"});
    const std::string reference = ffmpeg({"-f", "rawvideo", "-pix_fmt", "yuyv422", "-s", "160x90", "-i", "-",
                                          "-pix_fmt", "rgb24", "-f", "rawvideo", "-"},
                                         clip);
    ASSERT_EQ(reference.size(), 7u * 160 * 90 * 3);
    qrvtest::ProcessOptions pipe;
    pipe.stdinText = clip;
    const auto run = qrvtest::runProcess(
        {IPM_RUN, "--input", "-", "--size", "160x90", "--step", "CPU Serial/Converter/0", "--raw-out", "-"},
        pipe);
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.err.find("7 frames delivered"), std::string::npos) << run.err;
    ASSERT_EQ(run.out.size(), reference.size());
    double largest = 0, total = 0, signedTotal = 0;
    for (size_t i = 0; i < run.out.size(); ++i) {
        const int difference = static_cast<uint8_t>(run.out[i]) - static_cast<uint8_t>(reference[i]);
        largest = std::max<double>(largest, std::abs(difference));
        total += std::abs(difference);
        signedTotal += difference;
    }
    const double mean = total / run.out.size(), bias = signedTotal / run.out.size();
    EXPECT_TRUE(largest <= 3 && mean <= 1.1 && bias >= 0.75 && bias <= 1.1)
        << "largest " << largest << ", mean " << mean << ", signed mean " << bias;
}

// What command lines print, and how they end: bad usage with status 2, one
// line on stderr naming the problem, nothing on stdout, and not even the
// output directory that every such case names first created.
TEST(IpmRun, CommandLinesEndWithTheirStatusAndSayWhy)
{
    qrvtest::TempDir dir;
    const std::string clip = dir.file("clip.yuv"), out = dir.file("out");
    qrvtest::writeFile(clip, std::string(64, '\x80'));
    const struct {
        std::vector<std::string> args;
        int status;
        std::string says;
    } cases[] = {
        {{"--list"}, 0, "\n  CPU Serial/User_Custom/1  Threshold (Gray8)\n"},
        {{"--size", "8x2", "--frames", "3", "--fps", "0", "--lossless"},
         0,
         "synthetic camera, 8x2 YUYV\n  3 frames"},
        {{"--log-level", "2", "--list"}, 0, "dlopen fail: "},
        {{"--lossless", "--leaky"}, 2, "--lossless and --leaky exclude each other"},
        {{"--step"}, 2, "option --step needs a value"},
        {{"--frobnicate"}, 2, "unknown option '--frobnicate'"},
        {{"--size", "0x4"}, 2, "bad size '0x4'"},
        {{"--size", "4x0"}, 2, "bad size '4x0'"},
        {{"--size", "8xq"}, 2, "bad size '8xq'"},
        {{"--size", "16386x2"}, 2, "bad size '16386x2'"},
        {{"--size", "7x4"}, 2, "odd width 7"},
        {{"--layout", "YUY2"}, 2, "unknown layout 'YUY2'"},
        {{"--fps", "-1"}, 2, "bad frame rate '-1'"},
        {{"--frames", "x"}, 2, "bad frame count 'x'"},
        {{"--save-every", "0"}, 2, "bad --save-every '0'"},
        {{"--log-level", "4"}, 2, "bad log level '4'"},
        {{"--step", "CPU Parallel/Converter"}, 2, "is not BACKEND/MODULE/INDEX"},
        {{"--step", "CPU Paralel/Converter/0"}, 2, "unknown backend 'CPU Paralel'"},
        {{"--step", "CPU Parallel/Scale/0"}, 2, "unknown module 'Scale'"},
        {{"--step", "CPU Parallel/Converter/10"}, 2, "no function at CPU Parallel/Converter/10"},
        {{"--step", "CPU Serial/User_Custom/0"}, 2, "needs a destination format"},
        {{"--step", "CPU Serial/User_Custom/0:RGBA"}, 2, "unknown format 'RGBA'"},
        {{"--input", clip}, 2, "--input needs --size"},
        {{"--input", dir.file("missing.yuv"), "--size", "8x4"}, 2, "cannot open input file"},
        {{"--input", clip, "--size", "8x6"}, 2, "holds 64 bytes, less than one 8x6 YUV 4:2:2 frame"},
        {{"--out", clip}, 2, "exists and is not a directory"},
        {{"--out", clip + "/out"}, 2, "cannot create output directory"},
        {{"--out", "/proc"}, 2, "cannot write in output directory '/proc'"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = c.args;
        if (c.status == 2) args.insert(args.begin(), {"--out", out});
        const auto run = ipmRun(args);
        EXPECT_EQ(run.exitCode, c.status) << c.says;
        const bool said = c.status == 0 ? (run.out + run.err).find(c.says) != std::string::npos
                                        : run.out.empty() && run.err.rfind("ipm-run: ", 0) == 0 &&
                                              run.err.find(c.says) != std::string::npos &&
                                              std::count(run.err.begin(), run.err.end(), '\n') == 1;
        EXPECT_TRUE(said) << c.says + "\nstdout:\n" + run.out + "stderr:\n" + run.err;
        EXPECT_FALSE(std::filesystem::exists(out)) << c.says;
    }
}
