#include "Runner.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <thread>
#include <unistd.h>

#include "CIpmFuncTable.h"
#include "CImageProcessMng.h"
#include "ImageNames.h"
#include "ImageSaver.h"
#include "LogRouter.h"
#include "OutputDirectory.h"
#include "Pacer.h"
#include "ProcessingPlan.h"
#include "ProgressReporter.h"
#include "RawYuvReader.h"
#include "RunStatistics.h"
#include "RunSummary.h"
#include "SyntheticCamera.h"

using ipmcommon::CIpmFuncTable;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using Clock = std::chrono::steady_clock;

std::atomic<bool> Runner::interrupted{false};

namespace {

// The longest a finished source waits for its last frame's pass; only a
// processing list slower than this per frame loses its last frame.
constexpr std::chrono::seconds kLastPassTimeout{60};

// Copies of pictures waiting to be encoded, at most.
constexpr size_t kSaverQueueBytes = 256u << 20;

void onSignal(int)
{
    Runner::interrupted.store(true);
}

// Catches Ctrl-C while it lives, so that an interrupted run still reports.
class SignalScope {
public:
    SignalScope()
    {
        struct sigaction action {};
        action.sa_handler = onSignal;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, &previousInt_);
        sigaction(SIGTERM, &action, &previousTerm_);
    }
    ~SignalScope()
    {
        sigaction(SIGINT, &previousInt_, nullptr);
        sigaction(SIGTERM, &previousTerm_, nullptr);
    }

private:
    struct sigaction previousInt_ {};
    struct sigaction previousTerm_ {};
};

void usageError(const std::string& message)
{
    std::fprintf(stderr, "ipm-run: %s\n", message.c_str());
}

double rate(uint64_t events, Clock::time_point first, Clock::time_point last)
{
    const double seconds = std::chrono::duration<double>(last - first).count();
    return events > 1 && seconds > 0.0 ? static_cast<double>(events - 1) / seconds : 0.0;
}

std::unique_ptr<FrameSource> openSource(const Options& options, std::string& error)
{
    if (options.input.empty()) {
        return std::make_unique<SyntheticCamera>(options.width, options.height, options.layout);
    }
    std::string warning;
    auto reader =
        RawYuvReader::open(options.input, options.width, options.height, options.layout, error, warning);
    if (reader && !warning.empty()) std::fprintf(stderr, "ipm-run: warning: %s\n", warning.c_str());
    return reader;
}

int convertYuvForPicture(const QRV_Image& yuv, QRV_Image& rgb)
{
    return CIpmFuncTable::Instance()->process(ipmcommon::EnProcessBackend::CPU_Serial,
                                              ipmcommon::EnIpmModule::Converter, 0, &yuv, &rgb, nullptr,
                                              nullptr);
}

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using RawOutput = std::unique_ptr<std::FILE, FileCloser>;

// The stream --raw-out names: a file, or standard output for "-".
RawOutput openRawOutput(const std::string& path, std::string& error)
{
    RawOutput output(path == "-" ? ::fdopen(::dup(STDOUT_FILENO), "wb") : std::fopen(path.c_str(), "wb"));
    if (!output) error = "cannot write raw output '" + path + "': " + std::strerror(errno);
    return output;
}

// Delivers the source's frames to the manager from a thread of its own, as a
// capture thread would, until the source ends, the count is reached or the
// run is interrupted. A lossless run hands over a frame only once the
// previous frame's pass has ended, so that none is replaced. Returns the
// source's read error, if any.
std::string deliverFrames(const Options& options, FrameSource& source, RunStatistics& stats,
                          CImageProcessMng& manager)
{
    std::string readError;
    std::thread producer([&] {
        QRV_Image frame(options.width, options.height, En_ImageFormat::YUV422_8, true, 1);
        frame.yuvLayout = static_cast<int32_t>(options.layout);
        Pacer pacer(options.fps);
        for (int32_t tag = 0; !Runner::interrupted.load() && tag < INT32_MAX; ++tag) {
            if (options.frames != 0 && static_cast<uint64_t>(tag) >= options.frames) break;
            if (!source.nextFrame(frame)) {
                readError = source.error();
                break;
            }
            pacer.waitForNextFrame();
            if (options.lossless && tag > 0) stats.waitForPass(tag - 1, kLastPassTimeout);
            frame.frameTag = tag;
            stats.frameDelivered(tag, Clock::now());
            manager.onNewFrame(frame);
        }
    });
    producer.join();
    return readError;
}

void summarizeCounts(const Options& options, const FrameSource& source, const RunStatistics& stats,
                     RunSummary& summary)
{
    summary.source = source.description();
    summary.width = options.width;
    summary.height = options.height;
    summary.layout = ImageNames::layoutName(options.layout);
    summary.fpsRequested = options.fps;
    summary.delivered = stats.delivered();
    summary.passes = stats.passes();
    summary.dropped = summary.delivered - std::min(summary.delivered, summary.passes);
    summary.interrupted = Runner::interrupted.load();
    summary.managerErrors = stats.managerErrors();
    if (summary.delivered > 0) {
        const Clock::time_point end = std::max(stats.lastPassEnd(), stats.lastDelivery());
        summary.seconds = std::chrono::duration<double>(end - stats.firstDelivery()).count();
        summary.deliveredFps = rate(summary.delivered, stats.firstDelivery(), stats.lastDelivery());
        summary.processedFps = rate(summary.passes, stats.firstPassEnd(), stats.lastPassEnd());
    }
}

void summarizeSteps(const ProcessingPlan& plan, const RunStatistics& stats, RunSummary& summary)
{
    for (size_t i = 0; i < plan.steps().size(); ++i) {
        const ProcessingPlan::Step& planned = plan.steps()[i];
        const RunStatistics::Step& counted = stats.steps()[i];
        RunSummary::Step step;
        step.position = i;
        step.step = planned.argument.text;
        step.name = planned.name;
        step.readsFrame = i == 0 || planned.argument.fromFrame;
        step.sourceFormat = ImageNames::formatName(planned.sourceFormat);
        step.destinationFormat = ImageNames::formatName(planned.destinationFormat);
        step.successes = counted.successes;
        step.failures = counted.failures;
        const auto latency = RunStatistics::Latency::of(counted.latenciesMs);
        step.latencyMedianMs = latency.median;
        step.latencyP99Ms = latency.p99;
        step.latencyMaxMs = latency.max;
        summary.steps.push_back(std::move(step));
    }
}

// Writes the last frame's pictures once the worker has stopped: each
// destination still holds its step's latest result, which is the last
// frame's unless the step failed on it. False if a picture could not be written.
bool saveLastPictures(const ProcessingPlan& plan, const RunStatistics& stats, ImageSaver& saver,
                      RunSummary& summary)
{
    saver.finish();
    const std::vector<std::string> periodic = saver.written();
    const std::set<std::string> already(periodic.begin(), periodic.end());
    for (size_t i = 0; i < plan.steps().size(); ++i) {
        const RunStatistics::Step& counted = stats.steps()[i];
        const QRV_Image& destination = *plan.steps()[i].destination;
        if (!counted.lastSucceeded) {
            if (counted.successes + counted.failureCount() > 0) {
                summary.notes.push_back("step " + std::to_string(i) +
                                        ": no picture of the last frame, the step's last pass failed");
            }
            continue;
        }
        const std::string name = ImageSaver::pictureName(counted.lastSuccessTag, i, destination.format);
        if (already.count(name) == 0) saver.save(name, destination);
    }
    summary.pictures = saver.written();
    for (const std::string& failure : saver.errors()) summary.notes.push_back("not written: " + failure);
    if (saver.skipped() != 0) {
        summary.notes.push_back(std::to_string(saver.skipped()) +
                                " picture(s) skipped: the encoder could not keep up with --save-every");
    }
    return saver.errors().empty();
}

bool writeSummary(const OutputDirectory& outDir, const RunSummary& summary)
{
    const std::string json = summary.json();
    std::string error;
    const bool written = outDir.writeFile(
        "summary.json",
        [&](std::FILE* file, std::string&) {
            return std::fwrite(json.data(), 1, json.size(), file) == json.size();
        },
        error);
    if (!written) std::fprintf(stderr, "ipm-run: %s\n", error.c_str());
    return written;
}

}  // namespace

int Runner::run(const Options& options)
{
    std::string error;
    std::unique_ptr<FrameSource> source = openSource(options, error);
    ProcessingPlan plan;
    std::unique_ptr<OutputDirectory> outDir;
    if (source && !options.outDir.empty()) outDir = std::make_unique<OutputDirectory>();
    RawOutput rawOutput;
    if (!source ||
        !ProcessingPlan::build(options.steps, options.width, options.height, options.layout,
                               ProcessingPlan::lookUpRegistered, plan, error) ||
        (outDir && !OutputDirectory::prepare(options.outDir, *outDir, error)) ||
        (!options.rawOut.empty() && !(rawOutput = openRawOutput(options.rawOut, error)))) {
        usageError(error);
        return kUsageError;
    }
    // A reader at the other end of a pipe that goes away is a write error,
    // not the end of ipm-run.
    if (rawOutput) std::signal(SIGPIPE, SIG_IGN);

    RunStatistics stats(plan.steps().size());
    RunSummary summary;
    std::unique_ptr<ImageSaver> saver;
    if (outDir) {
        saver = std::make_unique<ImageSaver>(*outDir, convertYuvForPicture, kSaverQueueBytes);
    }

    CImageProcessMng manager;
    for (size_t i = 0; i < plan.steps().size(); ++i) {
        const StepArgument& argument = plan.steps()[i].argument;
        manager.addProcList(argument.backend, argument.module, argument.index, plan.sourceFor(i),
                            plan.steps()[i].destination.get(), nullptr, nullptr);
    }
    const uint64_t saveEvery = options.saveEvery;
    const int outputStep = static_cast<int>(plan.steps().size()) - 1;
    int rawWriteError = 0;  // the worker's errno of a failed write; read once the manager has stopped
    manager.registerDisplayerCallback([&](int tag, int position, const QRV_Image& destination) {
        if (rawOutput && position == outputStep && rawWriteError == 0 &&
            std::fwrite(destination.pixels(), 1, destination.pixelBytes(), rawOutput.get()) !=
                destination.pixelBytes()) {
            rawWriteError = errno != 0 ? errno : EIO;
        }
        stats.stepSucceeded(tag, position, Clock::now());
        // Only a copy is made here, on the worker; the saver's thread encodes.
        if (saver && saveEvery != 0 && static_cast<uint64_t>(tag) % saveEvery == 0) {
            try {
                saver->enqueue(
                    ImageSaver::pictureName(tag, static_cast<size_t>(position), destination.format),
                    destination);
            } catch (const std::exception&) {
                // Without memory for the name the picture is left out; the run goes on.
            }
        }
    });
    // The manager's log line for a failed step runs on the worker, between
    // the steps of a pass: the first step's source then holds the frame.
    const QRV_Image& frameCopy = plan.firstSource();
    LogRouter::setListener([&](int code) { stats.stepFailed(frameCopy.frameTag, code); },
                           [&] { stats.managerError(); });

    ProgressReporter progress(stderr, ::isatty(STDERR_FILENO) == 1, [&] {
        return ProgressReporter::Counts{stats.delivered(), stats.passes(), stats.droppedSoFar()};
    });
    interrupted.store(false);
    SignalScope signals;
    manager.initialize();
    progress.start();
    const std::string readError = deliverFrames(options, *source, stats, manager);
    const uint64_t delivered = stats.delivered();
    if (delivered > 0 && !stats.waitForPass(static_cast<int32_t>(delivered - 1), kLastPassTimeout)) {
        summary.notes.push_back("the last frame's pass had not ended " +
                                std::to_string(kLastPassTimeout.count()) +
                                " s after delivery ended; stopped waiting");
    }
    manager.deinitialize();
    LogRouter::clearListener();
    progress.stop();

    summarizeCounts(options, *source, stats, summary);
    summarizeSteps(plan, stats, summary);
    int status = 0;
    if (!readError.empty()) {
        summary.notes.push_back(readError);
        status = kRunError;
    }
    if (saver && !saveLastPictures(plan, stats, *saver, summary)) status = kRunError;
    if (rawOutput && rawWriteError == 0 && std::fflush(rawOutput.get()) != 0) rawWriteError = errno;
    if (rawWriteError != 0) {
        summary.notes.push_back("writing the raw output '" + options.rawOut +
                                "' failed: " + std::strerror(rawWriteError));
        status = kRunError;
    }
    if (outDir) {
        summary.outDir = outDir->path();
        if (!writeSummary(*outDir, summary)) status = kRunError;
    }
    // Standard output may carry the raw video; the table then goes to stderr.
    std::FILE* tableStream = options.rawOut == "-" ? stderr : stdout;
    std::fputs(summary.table().c_str(), tableStream);
    std::fflush(tableStream);
    return status;
}
