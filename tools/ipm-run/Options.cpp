#include "Options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "ImageNames.h"

namespace {

bool parseUnsigned(const std::string& text, uint64_t& out)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0') return false;
    out = value;
    return true;
}

bool parseSize(const std::string& text, uint32_t& width, uint32_t& height)
{
    const size_t x = text.find_first_of("xX");
    if (x == std::string::npos) return false;
    uint64_t w = 0;
    uint64_t h = 0;
    if (!parseUnsigned(text.substr(0, x), w) || !parseUnsigned(text.substr(x + 1), h)) return false;
    // 16384 on a side keeps every frame buffer size within 32-bit arithmetic.
    if (w == 0 || h == 0 || w > 16384 || h > 16384) return false;
    width = static_cast<uint32_t>(w);
    height = static_cast<uint32_t>(h);
    return true;
}

bool parseFps(const std::string& text, double& out)
{
    if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos) return false;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (*end != '\0' || !std::isfinite(value) || value < 0.0 || value > 100000.0) return false;
    out = value;
    return true;
}

}  // namespace

std::vector<std::string> Options::defaultSteps()
{
    return {"CPU Parallel/Converter/0", "CPU Parallel/Converter/2"};
}

bool Options::parse(const std::vector<std::string>& args, Options& out, std::string& error)
{
    Options options;
    std::vector<std::string> stepTexts;
    std::string deliveryFlag;  // "--lossless", "--leaky" or empty
    bool fpsGiven = false;
    for (size_t i = 0; i < args.size(); ++i) {
        std::string name = args[i];
        std::string value;
        bool hasInlineValue = false;
        const size_t equals = name.find('=');
        if (name.compare(0, 2, "--") == 0 && equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.erase(equals);
            hasInlineValue = true;
        }
        auto takeValue = [&]() -> bool {
            if (hasInlineValue) return true;
            if (i + 1 >= args.size()) {
                error = "option " + name + " needs a value";
                return false;
            }
            value = args[++i];
            return true;
        };
        auto flagOnly = [&]() -> bool {
            if (!hasInlineValue) return true;
            error = "option " + name + " takes no value";
            return false;
        };

        if (name == "--help" || name == "-h") {
            if (!flagOnly()) return false;
            options.mode = Mode::Help;
        } else if (name == "--list") {
            if (!flagOnly()) return false;
            options.mode = Mode::List;
        } else if (name == "--report") {
            if (!flagOnly()) return false;
            options.mode = Mode::Report;
        } else if (name == "--input") {
            if (!takeValue()) return false;
            if (value.empty()) {
                error = "option --input needs a file name";
                return false;
            }
            options.input = value;
        } else if (name == "--size") {
            if (!takeValue()) return false;
            if (!parseSize(value, options.width, options.height)) {
                error = "bad size '" + value + "' (use WIDTHxHEIGHT, each 1 to 16384, for example 1280x720)";
                return false;
            }
            options.sizeGiven = true;
        } else if (name == "--layout") {
            if (!takeValue()) return false;
            if (!ImageNames::parseLayout(value, options.layout)) {
                error = "unknown layout '" + value + "' (use " + ImageNames::kLayoutChoices + ")";
                return false;
            }
        } else if (name == "--fps") {
            if (!takeValue()) return false;
            fpsGiven = true;
            if (!parseFps(value, options.fps)) {
                error = "bad frame rate '" + value +
                        "' (a number of frames per second, 0 for as fast as possible)";
                return false;
            }
        } else if (name == "--frames") {
            if (!takeValue()) return false;
            if (!parseUnsigned(value, options.frames)) {
                error = "bad frame count '" + value + "' (a whole number, 0 for no limit)";
                return false;
            }
            options.framesGiven = true;
        } else if (name == "--step") {
            if (!takeValue()) return false;
            stepTexts.push_back(value);
        } else if (name == "--lossless" || name == "--leaky") {
            if (!flagOnly()) return false;
            if (!deliveryFlag.empty() && deliveryFlag != name) {
                error = "--lossless and --leaky exclude each other";
                return false;
            }
            deliveryFlag = name;
        } else if (name == "--raw-out") {
            if (!takeValue()) return false;
            if (value.empty()) {
                error = "option --raw-out needs a file name, or - for standard output";
                return false;
            }
            options.rawOut = value;
        } else if (name == "--out") {
            if (!takeValue()) return false;
            if (value.empty()) {
                error = "option --out needs a directory name";
                return false;
            }
            options.outDir = value;
        } else if (name == "--save-every") {
            if (!takeValue()) return false;
            if (!parseUnsigned(value, options.saveEvery) || options.saveEvery == 0) {
                error = "bad --save-every '" + value + "' (a whole number of frames, at least 1)";
                return false;
            }
        } else if (name == "--log-level") {
            if (!takeValue()) return false;
            if (value != "1" && value != "2" && value != "3") {
                error = "bad log level '" + value + "' (use 1 errors, 2 warnings, 3 traces)";
                return false;
            }
            options.logLevel = value[0] - '0';
        } else {
            error = "unknown option '" + args[i] + "' (see ipm-run --help)";
            return false;
        }
    }

    if (!options.input.empty() && !options.sizeGiven) {
        error = "--input needs --size WIDTHxHEIGHT: a raw YUV file does not record its size";
        return false;
    }
    if (options.width % 2 != 0) {
        error = "odd width " + std::to_string(options.width) +
                ": packed YUV 4:2:2 holds pixels in pairs, so the width must be even";
        return false;
    }
    if (options.saveEvery != 0 && options.outDir.empty()) {
        error = "--save-every needs --out DIR";
        return false;
    }
    if (stepTexts.empty()) stepTexts = defaultSteps();
    for (const auto& text : stepTexts) {
        StepArgument argument;
        if (!StepArgument::parse(text, argument, error)) return false;
        options.steps.push_back(std::move(argument));
    }
    if (options.input.empty() && !options.framesGiven) options.frames = kSyntheticDefaultFrames;
    // A pipe delivers as fast as its writer: pacing it would only stall the writer.
    if (options.input == "-" && !fpsGiven) options.fps = 0.0;
    options.lossless =
        deliveryFlag.empty() ? !options.input.empty() && options.fps == 0.0 : deliveryFlag == "--lossless";
    out = std::move(options);
    return true;
}

const char* Options::usage()
{
    return R"(usage: ipm-run [options]

Runs a stream of camera frames through the QRV IPM library, as a camera
application would: frames come from a producer thread through onNewFrame, a
processing list of steps runs on the manager's worker, and every step's result
is counted, timed and (with --out) saved as a picture.

Frame source (default: the built-in synthetic camera, a moving test pattern
with a frame counter):
  --input FILE        raw packed YUV 4:2:2 frames, back to back, as
                      `ffmpeg -pix_fmt yuyv422 -f rawvideo` writes them; read
                      one frame at a time. Needs --size. A file shorter than one
                      frame is an error; a trailing partial frame is skipped
                      with a warning. "-" reads standard input (a pipe).
  --size WxH          frame size (default 1280x720); the width must be even
  --layout L          byte order of the YUV 4:2:2 groups: YUYV (default), UYVY,
                      YVYU or VYUY (ffmpeg: yuyv422 is YUYV, uyvy422 is UYVY,
                      yvyu422 is YVYU)
  --fps N             deliver N frames per second, like a camera (default 30,
                      and 0 for standard input); 0 delivers as fast as the
                      source allows
  --frames N          deliver at most N frames (default: the whole file, or 150
                      from the synthetic camera); 0 means no limit (the
                      synthetic camera then runs until Ctrl-C)
  --lossless          process every frame: the producer waits for each pass
                      before it delivers the next frame. The default for
                      --input at --fps 0 (converting a file or a pipe)
  --leaky             newest wins, as with a camera: a frame that arrives while
                      a pass runs replaces the one waiting, and the producer
                      never waits. The default otherwise

Processing list (default: "CPU Parallel/Converter/0" then
"CPU Parallel/Converter/2", that is YUV422 -> RGB888 -> Gray8):
  --step "[frame:]BACKEND/MODULE/INDEX[:FORMAT]"
                      add a step; repeat for more. BACKEND and MODULE are the
                      names `ipm-run --list` prints ("CPU Serial",
                      "CPU Parallel", ...; "Converter", "User_Custom", ...).
                      A step reads the previous step's destination; with the
                      prefix "frame:" it reads the frame itself (the manager's
                      copy of the frame in the first step's source image).
                      FORMAT is the destination format: Gray8, RGB888, BGR888
                      or YUV422. The built-in converters know theirs (index 0
                      RGB888, 1 BGR888, 2 Gray8); every other step must name
                      it. Destinations have the frame's size.

Output:
  --raw-out FILE|-    write the last step's destination of every processed
                      frame, back to back with no header, to FILE or to
                      standard output ("-"; the summary table then goes to
                      stderr): raw video that `ffmpeg -f rawvideo -pix_fmt
                      rgb24|bgr24|gray -s WxH -i -` reads for RGB888, BGR888
                      and Gray8 destinations
  --out DIR           write each step's destination of the last processed
                      frame as PNG (YUV422 destinations through the serial
                      converter) and summary.json into DIR, created if missing;
                      files appear whole (written under a temporary name, then
                      renamed)
  --save-every N      also write the pictures of every Nth frame (frames 0, N,
                      2N... of those that were processed)

Information:
  --list              print the backends, the modules and every registered
                      algorithm, then exit
  --report            print the environment report (processor, SIMD level,
                      graphics adapters and the selected one), then exit
  --log-level 1|2|3   show the library's log on stderr: 1 errors, 2 errors and
                      warnings, 3 everything including traces (by default the
                      log stays silent)
  --help              print this text

While running, a progress line (frames, fps, drops) goes to stderr: refreshed
in place on a terminal, a plain line a second otherwise. At the end a summary
table goes to stdout: frames delivered, passes run, frames dropped because a
newer frame replaced them (newest wins), and for each step its successes,
failures with their result codes and its latency from onNewFrame to the
step's callback (median, 99th percentile, maximum). A step that fails at run
time is counted there; it does not stop the run.

Exit status: 0 after a run (even with failing steps), 2 for bad usage (unknown
option, backend, module, format or layout, an index with no function, an odd
width, a missing or too short input file, an output directory that cannot be
written), 1 for an I/O error during the run.

Examples:
  ipm-run --out ipm-out
      five seconds (150 frames at 30 fps) of the synthetic camera, pictures
      and summary.json in ipm-out/
  ipm-run --size 640x360 --layout UYVY --fps 0 --frames 500
      as fast as possible: how many frames per second does the list sustain?
  ffmpeg -f lavfi -i testsrc2=size=640x360:rate=30 -t 2 -pix_fmt yuyv422 -f rawvideo clip.yuv
  ipm-run --input clip.yuv --size 640x360 --out clip-out
  ipm-run --step "CPU Serial/Converter/1" --step "CPU Serial/Converter/2" \
          --step "frame:CPU Parallel/Converter/0" --out out --save-every 30
      BGR888, its Gray8, and the frame again as RGB888 from the parallel converter
  ipm-run --step "CPU Serial/Converter/0" --step "CPU Serial/User_Custom/0:RGB888" --log-level 3
      RGB888, then the example plug-in's mirror (libCIpmUserCustom.so beside
      ipm-run), with the library's trace on stderr
)";
}
