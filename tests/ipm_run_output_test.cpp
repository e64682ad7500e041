// What ipm-run writes and counts: the output directory, PNG pictures, the
// saver, the run statistics, the summary and the log routing.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ImageSaver.h"
#include "JsonReader.h"
#include "LogRouter.h"
#include "OutputDirectory.h"
#include "PngReader.h"
#include "PngWriter.h"
#include "ProgressReporter.h"
#include "RunStatistics.h"
#include "RunSummary.h"
#include "TempDir.h"

namespace fs = std::filesystem;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using qrvtest::JsonValue;

namespace {

// Each suite's scratch directories carry its name.
class TempDir : public qrvtest::TempDir {
public:
    TempDir() : qrvtest::TempDir("ipm-run-output") {}
};

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

QRV_Image randomImage(uint32_t width, uint32_t height, En_ImageFormat format, uint32_t seed)
{
    QRV_Image image(width, height, format, true, 1);
    std::mt19937 random(seed);
    for (size_t i = 0; i < image.pixelBytes(); ++i) image.pixels()[i] = static_cast<uint8_t>(random());
    return image;
}

std::vector<uint8_t> bytesOf(const QRV_Image& image)
{
    return std::vector<uint8_t>(image.pixels(), image.pixels() + image.pixelBytes());
}

// What a PNG of the image must decode to: grey as is, colour as RGB.
std::vector<uint8_t> expectedPixels(const QRV_Image& image)
{
    std::vector<uint8_t> pixels = bytesOf(image);
    if (image.format == En_ImageFormat::BGR888) {
        for (size_t i = 0; i + 2 < pixels.size(); i += 3) std::swap(pixels[i], pixels[i + 2]);
    }
    return pixels;
}

bool writeText(std::FILE* file, const std::string& text)
{
    return std::fwrite(text.data(), 1, text.size(), file) == text.size();
}

}  // namespace

TEST(IpmRunOutputDirectory, CreatesMissingDirectoriesAndRefusesUnusablePaths)
{
    TempDir dir;
    OutputDirectory out;
    std::string error;
    EXPECT_TRUE(OutputDirectory::prepare(dir.file("a/b/c"), out, error)) << error;
    EXPECT_TRUE(fs::is_directory(dir.file("a/b/c")));
    EXPECT_EQ(out.path(), dir.file("a/b/c"));

    std::ofstream(dir.file("plain")) << "x";
    const std::pair<std::string, std::string> refused[] = {
        {dir.file("plain"), "exists and is not a directory"},
        {dir.file("plain/sub"), "cannot create output directory"},
    };
    for (const auto& [path, expected] : refused) {
        EXPECT_FALSE(OutputDirectory::prepare(path, out, error)) << path;
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
    // The check leaves nothing behind.
    EXPECT_EQ(dir.entries(), (std::vector<std::string>{"a", "a/b", "a/b/c", "plain"}));
}

TEST(IpmRunOutputDirectory, AFileAppearsWholeOrNotAtAll)
{
    TempDir dir;
    OutputDirectory out;
    std::string error;
    ASSERT_TRUE(OutputDirectory::prepare(dir.path(), out, error)) << error;

    ASSERT_TRUE(out.writeFile(
        "summary.json", [](std::FILE* f, std::string&) { return writeText(f, "first"); }, error))
        << error;
    EXPECT_EQ(readFile(dir.file("summary.json")), "first");
    EXPECT_EQ(fs::status(dir.file("summary.json")).permissions() & fs::perms::others_read,
              fs::perms::others_read);

    // A writer that fails halfway leaves the old file and no temporary one.
    EXPECT_FALSE(out.writeFile(
        "summary.json",
        [](std::FILE* f, std::string& message) {
            writeText(f, "half");
            message = "stopped";
            return false;
        },
        error));
    EXPECT_EQ(error, "stopped");
    EXPECT_EQ(readFile(dir.file("summary.json")), "first");

    ASSERT_TRUE(out.writeFile(
        "summary.json", [](std::FILE* f, std::string&) { return writeText(f, "second"); }, error));
    EXPECT_EQ(readFile(dir.file("summary.json")), "second");
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"summary.json"});
}

TEST(IpmRunPngWriter, PicturesDecodeToTheImagesBytes)
{
    if (!PngWriter::available() || !qrvtest::pngReaderAvailable()) GTEST_SKIP() << "this build has no libpng";
    TempDir dir;
    OutputDirectory out;
    std::string error;
    ASSERT_TRUE(OutputDirectory::prepare(dir.path(), out, error));
    const En_ImageFormat formats[] = {En_ImageFormat::Gray8, En_ImageFormat::RGB888, En_ImageFormat::BGR888};
    uint32_t seed = 1;
    for (const En_ImageFormat format : formats) {
        for (const auto& [width, height] :
             std::vector<std::pair<uint32_t, uint32_t>>{{1, 1}, {7, 3}, {64, 33}}) {
            const QRV_Image image = randomImage(width, height, format, seed++);
            ASSERT_TRUE(out.writeFile(
                "p.png",
                [&](std::FILE* f, std::string& message) { return PngWriter::write(f, image, message); },
                error))
                << error;
            qrvtest::PngPicture picture;
            ASSERT_TRUE(qrvtest::readPng(dir.file("p.png"), picture, error)) << error;
            EXPECT_EQ(picture.width, width);
            EXPECT_EQ(picture.height, height);
            EXPECT_EQ(picture.channels, format == En_ImageFormat::Gray8 ? 1 : 3);
            EXPECT_EQ(picture.pixels, expectedPixels(image)) << static_cast<int>(format);
        }
    }
}

TEST(IpmRunPngWriter, RefusesWhatPngCannotHold)
{
    std::string error;
    std::FILE* sink = std::tmpfile();
    ASSERT_NE(sink, nullptr);
    EXPECT_FALSE(PngWriter::write(sink, randomImage(4, 4, En_ImageFormat::YUV422_8, 1), error));
    EXPECT_NE(error.find("not YUV422"), std::string::npos) << error;
    EXPECT_FALSE(PngWriter::write(sink, QRV_Image(), error));
    std::fclose(sink);
}

TEST(IpmRunImageSaver, QueuedCopiesAreWrittenAndYuvGoesThroughTheConverter)
{
    if (!PngWriter::available() || !qrvtest::pngReaderAvailable()) GTEST_SKIP() << "this build has no libpng";
    TempDir dir;
    OutputDirectory out;
    std::string error;
    ASSERT_TRUE(OutputDirectory::prepare(dir.path(), out, error));
    // The converter fills each RGB pixel with the Y0 byte of its group, a
    // result the test can predict.
    ImageSaver saver(
        out,
        [](const QRV_Image& yuv, QRV_Image& rgb) {
            for (size_t p = 0; p < static_cast<size_t>(yuv.width) * yuv.height; ++p) {
                std::memset(rgb.pixels() + 3 * p, yuv.pixels()[(p & ~size_t{1}) * 2], 3);
            }
            return 1;
        },
        1 << 20);
    QRV_Image gray = randomImage(16, 8, En_ImageFormat::Gray8, 3);
    const std::vector<uint8_t> original = bytesOf(gray);
    const QRV_Image yuv = randomImage(16, 8, En_ImageFormat::YUV422_8, 4);
    ASSERT_TRUE(saver.enqueue(ImageSaver::pictureName(12, 1, gray.format), gray));
    // The saver works on its copy: the image may change at once.
    std::memset(gray.pixels(), 0, gray.pixelBytes());
    ASSERT_TRUE(saver.save(ImageSaver::pictureName(3, 0, yuv.format), yuv));
    saver.finish();

    auto written = saver.written();
    std::sort(written.begin(), written.end());
    EXPECT_EQ(written,
              (std::vector<std::string>{"frame000003-step0-YUV422.png", "frame000012-step1-Gray8.png"}));
    EXPECT_TRUE(saver.errors().empty());
    qrvtest::PngPicture picture;
    ASSERT_TRUE(qrvtest::readPng(dir.file("frame000012-step1-Gray8.png"), picture, error)) << error;
    EXPECT_EQ(picture.pixels, original);
    ASSERT_TRUE(qrvtest::readPng(dir.file("frame000003-step0-YUV422.png"), picture, error)) << error;
    ASSERT_EQ(picture.channels, 3);
    for (size_t p = 0; p < 16 * 8; ++p) {
        ASSERT_EQ(picture.pixels[3 * p + 1], yuv.pixels()[(p & ~size_t{1}) * 2]) << "pixel " << p;
    }
}

TEST(IpmRunImageSaver, AFullQueueSkipsPicturesAndAFailedConversionIsReported)
{
    TempDir dir;
    OutputDirectory out;
    std::string error;
    ASSERT_TRUE(OutputDirectory::prepare(dir.path(), out, error));
    ImageSaver saver(
        out, [](const QRV_Image&, QRV_Image&) { return 9; }, 100);
    const QRV_Image big = randomImage(101, 1, En_ImageFormat::Gray8, 5);
    EXPECT_FALSE(saver.enqueue("big.png", big));
    EXPECT_FALSE(saver.save("yuv.png", randomImage(4, 2, En_ImageFormat::YUV422_8, 6)));
    saver.finish();
    EXPECT_EQ(saver.skipped(), 1u);
    ASSERT_EQ(saver.errors().size(), 1u);
    EXPECT_NE(saver.errors()[0].find(
                  "yuv.png: converting YUV422 to RGB888 for the picture failed with result code 9"),
              std::string::npos)
        << saver.errors()[0];
    EXPECT_TRUE(dir.entries().empty());
}

TEST(IpmRunStatistics, LatencyPercentilesAreNearestRank)
{
    std::vector<double> samples;
    for (int i = 100; i >= 1; --i) samples.push_back(i);
    const auto latency = RunStatistics::Latency::of(samples);
    EXPECT_EQ(latency.median, 50.0);
    EXPECT_EQ(latency.p99, 99.0);
    EXPECT_EQ(latency.max, 100.0);
    const auto one = RunStatistics::Latency::of({4.5});
    EXPECT_EQ(one.median, 4.5);
    EXPECT_EQ(one.p99, 4.5);
    const auto none = RunStatistics::Latency::of({});
    EXPECT_EQ(none.max, 0.0);
    const auto two = RunStatistics::Latency::of({1.0, 3.0});
    EXPECT_EQ(two.median, 1.0);
    EXPECT_EQ(two.p99, 3.0);
}

// Successes name their step; failures belong to the step after the last one
// reported; a pass ends with its last step, and the tags that no pass took
// were dropped.
TEST(IpmRunStatistics, StepOutcomesAreAttributedAndPassesCounted)
{
    using Clock = RunStatistics::Clock;
    using std::chrono::milliseconds;
    RunStatistics stats(3);
    const Clock::time_point t0 = Clock::now();
    for (int32_t tag = 0; tag < 5; ++tag) stats.frameDelivered(tag, t0 + milliseconds(10 * tag));
    EXPECT_EQ(stats.delivered(), 5u);

    // Pass on frame 0: ok, failure 9, ok.
    stats.stepSucceeded(0, 0, t0 + milliseconds(2));
    stats.stepFailed(0, 9);
    stats.stepSucceeded(0, 2, t0 + milliseconds(5));
    EXPECT_EQ(stats.passes(), 1u);
    EXPECT_EQ(stats.lastPassTag(), 0);
    // Pass on frame 3 (1 and 2 were replaced): everything fails.
    stats.stepFailed(3, 4);
    stats.stepFailed(3, 4);
    stats.stepFailed(3, 8);
    // Pass on frame 4: ok, ok, failure 8.
    stats.stepSucceeded(4, 0, t0 + milliseconds(41));
    stats.stepSucceeded(4, 1, t0 + milliseconds(43));
    stats.stepFailed(4, 8);

    EXPECT_EQ(stats.passes(), 3u);
    EXPECT_EQ(stats.droppedSoFar(), 2u);
    EXPECT_EQ(stats.lastPassTag(), 4);
    const auto& steps = stats.steps();
    EXPECT_EQ(steps[0].successes, 2u);
    EXPECT_EQ(steps[0].failures, (std::map<int, uint64_t>{{4, 1}}));
    EXPECT_TRUE(steps[0].lastSucceeded);
    EXPECT_EQ(steps[0].lastSuccessTag, 4);
    EXPECT_EQ(steps[1].successes, 1u);
    EXPECT_EQ(steps[1].failures, (std::map<int, uint64_t>{{4, 1}, {9, 1}}));
    EXPECT_EQ(steps[2].successes, 1u);
    EXPECT_EQ(steps[2].failures, (std::map<int, uint64_t>{{8, 2}}));
    EXPECT_EQ(steps[2].failureCount(), 2u);
    EXPECT_FALSE(steps[2].lastSucceeded);
    EXPECT_EQ(steps[2].lastSuccessTag, 0);

    ASSERT_EQ(steps[0].latenciesMs.size(), 2u);
    EXPECT_NEAR(steps[0].latenciesMs[0], 2.0, 1e-6);
    EXPECT_NEAR(steps[0].latenciesMs[1], 1.0, 1e-6);
    EXPECT_NEAR(steps[1].latenciesMs[0], 3.0, 1e-6);
}

TEST(IpmRunStatistics, WaitingForAPassEndsWhenItCompletesOrTimesOut)
{
    RunStatistics stats(1);
    stats.frameDelivered(0, RunStatistics::Clock::now());
    EXPECT_FALSE(stats.waitForPass(0, std::chrono::milliseconds(20)));
    std::thread worker([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        stats.stepFailed(0, 7);
    });
    EXPECT_TRUE(stats.waitForPass(0, std::chrono::seconds(30)));
    worker.join();
}

TEST(IpmRunSummary, TheJsonHoldsEveryCountAndStep)
{
    RunSummary summary;
    summary.source = "clip \"a\".yuv";
    summary.width = 640;
    summary.height = 360;
    summary.layout = "UYVY";
    summary.fpsRequested = 30;
    summary.delivered = 60;
    summary.passes = 58;
    summary.dropped = 2;
    summary.seconds = 2.0;
    summary.deliveredFps = 30.0;
    summary.processedFps = 29.5;
    RunSummary::Step step;
    step.position = 1;
    step.step = "frame:CPU Serial/Converter/1";
    step.name = "YUV422 -> BGR888 (CPU Serial)";
    step.readsFrame = true;
    step.sourceFormat = "YUV422";
    step.destinationFormat = "BGR888";
    step.successes = 55;
    step.failures = {{9, 2}, {4, 1}};
    step.latencyMedianMs = 1.25;
    step.latencyP99Ms = 2.5;
    step.latencyMaxMs = 3.75;
    summary.steps.push_back(step);
    summary.outDir = "out";
    summary.pictures = {"frame000059-step1-BGR888.png"};
    summary.notes = {"line\nbreak\t\x01"};

    const JsonValue json = JsonValue::parse(summary.json());
    EXPECT_EQ(json["source"]["input"].string(), "clip \"a\".yuv");
    EXPECT_EQ(json["source"]["layout"].string(), "UYVY");
    EXPECT_EQ(json["source"]["width"].number(), 640);
    EXPECT_EQ(json["frames"]["delivered"].number(), 60);
    EXPECT_EQ(json["frames"]["processed"].number(), 58);
    EXPECT_EQ(json["frames"]["dropped"].number(), 2);
    EXPECT_EQ(json["passes"].number(), 58);
    EXPECT_EQ(json["fps"]["processed"].number(), 29.5);
    EXPECT_FALSE(json["interrupted"].boolean());
    ASSERT_EQ(json["steps"].size(), 1u);
    const JsonValue& s = json["steps"][0];
    EXPECT_EQ(s["position"].number(), 1);
    EXPECT_EQ(s["step"].string(), "frame:CPU Serial/Converter/1");
    EXPECT_EQ(s["reads"].string(), "frame");
    EXPECT_EQ(s["destination_format"].string(), "BGR888");
    EXPECT_EQ(s["successes"].number(), 55);
    EXPECT_EQ(s["failures"].number(), 3);
    EXPECT_EQ(s["failure_codes"]["9"].number(), 2);
    EXPECT_EQ(s["failure_codes"]["4"].number(), 1);
    EXPECT_EQ(s["latency_ms"]["median"].number(), 1.25);
    EXPECT_EQ(s["latency_ms"]["p99"].number(), 2.5);
    EXPECT_EQ(s["latency_ms"]["max"].number(), 3.75);
    EXPECT_EQ(json["pictures"][0].string(), "frame000059-step1-BGR888.png");
    EXPECT_EQ(json["notes"][0].string(), "line\nbreak\t\x01");

    const std::string table = summary.table();
    EXPECT_NE(table.find("60 frames delivered"), std::string::npos) << table;
    EXPECT_NE(table.find("58 passes run"), std::string::npos) << table;
    EXPECT_NE(table.find("2 dropped"), std::string::npos) << table;
    EXPECT_NE(table.find("step 1 failed: code 4 x1, code 9 x2"), std::string::npos) << table;
    EXPECT_NE(table.find("out/frame000059-step1-BGR888.png"), std::string::npos) << table;
}

TEST(IpmRunSummary, AnEmptyRunIsStillValidJson)
{
    const JsonValue json = JsonValue::parse(RunSummary().json());
    EXPECT_EQ(json["steps"].size(), 0u);
    EXPECT_EQ(json["pictures"].size(), 0u);
}

TEST(IpmRunLogRouter, RecognisesTheManagersFailureLines)
{
    qrvlog::LogRecord record;
    record.file = "CImageProcessMng";
    record.level = qrvlog::LogLevel::Trace;
    const std::pair<std::wstring, int> cases[] = {
        {L"process error: 9", 9}, {L"process error: 4", 4},   {L"process error: -2", -2},
        {L"process error: ", -1}, {L"process error: 9x", -1}, {L"Called", -1},
    };
    for (const auto& [text, expected] : cases) {
        record.text = text;
        int code = -1;
        EXPECT_EQ(LogRouter::parseStepFailure(record, code), expected != -1) << qrvlog::toUtf8(text);
        if (expected != -1) {
            EXPECT_EQ(code, expected);
        }
    }
    record.text = L"process error: 9";
    record.file = "CIpmFuncTable";
    int code = 0;
    EXPECT_FALSE(LogRouter::parseStepFailure(record, code));

    record.file = "CImageProcessMng";
    record.level = qrvlog::LogLevel::Error;
    EXPECT_TRUE(LogRouter::isManagerError(record));
    record.level = qrvlog::LogLevel::Warning;
    EXPECT_FALSE(LogRouter::isManagerError(record));

    record.text = L"\r\nCPU    : x86_64";
    record.line = 12;
    record.function = "void f()";
    EXPECT_EQ(LogRouter::formatLine(record), "[WARN] CImageProcessMng:12 void f(): CPU    : x86_64\n");
}

TEST(IpmRunLogRouter, FailureLinesReachTheListenerWhileItIsSet)
{
    LogRouter::install(0);
    std::vector<int> codes;
    int errors = 0;
    LogRouter::setListener([&](int code) { codes.push_back(code); }, [&] { ++errors; });
    auto* log = qrvlog::QRV_Log::Instance();
    log->writeLog(qrvlog::LogLevel::Trace, "CImageProcessMng", 1, "f", L"process error: %d", 6);
    log->writeLog(qrvlog::LogLevel::Trace, "CIpmFuncTable", 1, "f", L"process error: %d", 5);
    log->writeLog(qrvlog::LogLevel::Error, "CImageProcessMng", 1, "f", L"step %d interrupted: %s", 1, "boom");
    LogRouter::clearListener();
    log->writeLog(qrvlog::LogLevel::Trace, "CImageProcessMng", 1, "f", L"process error: %d", 7);
    log->setSink({});
    EXPECT_EQ(codes, std::vector<int>{6});
    EXPECT_EQ(errors, 1);
}

TEST(IpmRunProgress, TheLineSaysFramesRateAndDrops)
{
    EXPECT_EQ(ProgressReporter::format({120, 118, 2}, 29.94),
              "ipm-run: 120 frames delivered, 118 processed, 29.9 fps, 2 dropped");
}

// On a terminal the line is rewritten in place and cleared at the end; the
// plain lines for files are checked end to end.
TEST(IpmRunProgress, ATerminalGetsOneRewrittenLine)
{
    std::FILE* out = std::tmpfile();
    ASSERT_NE(out, nullptr);
    {
        ProgressReporter progress(out, true, [] { return ProgressReporter::Counts{3, 2, 1}; });
        progress.start();
        std::this_thread::sleep_for(std::chrono::milliseconds(600));
        progress.stop();
    }
    std::rewind(out);
    std::string text(4096, '\0');
    text.resize(std::fread(&text[0], 1, text.size(), out));
    std::fclose(out);
    EXPECT_NE(text.find("\ripm-run: 3 frames delivered, 2 processed"), std::string::npos) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos) << text;
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\r') << "the line is cleared at the end";
}

TEST(IpmRunSummary, TheTableListsAFewPicturesAndNamesTheLast)
{
    RunSummary summary;
    summary.outDir = "out";
    for (int i = 0; i < 15; ++i) summary.pictures.push_back("p" + std::to_string(i) + ".png");
    const std::string table = summary.table();
    EXPECT_NE(table.find("15 picture(s) and summary.json in out/"), std::string::npos) << table;
    EXPECT_NE(table.find("out/p8.png\n"), std::string::npos) << table;
    EXPECT_EQ(table.find("out/p9.png"), std::string::npos) << table;
    EXPECT_NE(table.find("... and 5 more, up to out/p14.png"), std::string::npos) << table;
}
