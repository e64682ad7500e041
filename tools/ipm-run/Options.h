// ipm-run's command line.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "QRV_Image.h"
#include "StepArgument.h"

class Options {
public:
    enum class Mode { Run, List, Report, Help };

    // False with a one-line message naming the problem (exit status 2).
    // Checks everything that can be checked without the library or the file
    // system: the input file, the algorithm indices and the output directory
    // are checked when the run is set up.
    static bool parse(const std::vector<std::string>& args, Options& out, std::string& error);

    static const char* usage();

    // The processing list used when no --step is given.
    static std::vector<std::string> defaultSteps();

    Mode mode = Mode::Run;
    std::string input;  // empty: the synthetic camera; "-": standard input
    uint32_t width = 1280;
    uint32_t height = 720;
    bool sizeGiven = false;
    qrv_img::En_YuvLayout layout = qrv_img::En_YuvLayout::YUYV;
    double fps = 30.0;    // 0: as fast as the source allows
    uint64_t frames = 0;  // 0: the source's own end
    bool framesGiven = false;
    std::vector<StepArgument> steps;
    // Every frame processed, the producer waiting for each pass (a file or a
    // pipe converted), or newest wins (a camera). Lossless by default for
    // file and stdin input at --fps 0.
    bool lossless = false;
    std::string rawOut;      // empty: none; "-": standard output
    std::string outDir;      // empty: no files
    uint64_t saveEvery = 0;  // 0: the last frame only
    int logLevel = 0;        // 0: the library's log stays silent

    // Frames the synthetic camera delivers when --frames is not given.
    static constexpr uint64_t kSyntheticDefaultFrames = 150;
};
