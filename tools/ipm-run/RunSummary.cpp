#include "RunSummary.h"

#include <cstdio>

namespace {

constexpr size_t kPicturesShown = 10;

std::string number(double value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.3f", value);
    return text;
}

std::string count(uint64_t value)
{
    return std::to_string(value);
}

std::string failureList(const std::map<int, uint64_t>& failures)
{
    std::string list;
    for (const auto& [code, times] : failures) {
        if (!list.empty()) list += ", ";
        list += "code " + std::to_string(code) + " x" + count(times);
    }
    return list;
}

}  // namespace

std::string RunSummary::quote(const std::string& text)
{
    std::string out = "\"";
    for (const char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (byte < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
                out += escaped;
            } else {
                out += c;
            }
        }
    }
    return out + "\"";
}

std::string RunSummary::json() const
{
    std::string j = "{\n";
    j += "  \"source\": {\"input\": " + quote(source) + ", \"width\": " + std::to_string(width) +
         ", \"height\": " + std::to_string(height) + ", \"layout\": " + quote(layout) +
         ", \"fps_requested\": " + number(fpsRequested) + "},\n";
    j += "  \"frames\": {\"delivered\": " + count(delivered) + ", \"processed\": " + count(passes) +
         ", \"dropped\": " + count(dropped) + "},\n";
    j += "  \"passes\": " + count(passes) + ",\n";
    j += "  \"seconds\": " + number(seconds) + ",\n";
    j += "  \"fps\": {\"delivered\": " + number(deliveredFps) + ", \"processed\": " + number(processedFps) +
         "},\n";
    j += "  \"interrupted\": " + std::string(interrupted ? "true" : "false") + ",\n";
    j += "  \"manager_errors\": " + count(managerErrors) + ",\n";
    j += "  \"steps\": [";
    for (size_t i = 0; i < steps.size(); ++i) {
        const Step& s = steps[i];
        uint64_t failed = 0;
        std::string codes;
        for (const auto& [code, times] : s.failures) {
            failed += times;
            if (!codes.empty()) codes += ", ";
            codes += quote(std::to_string(code)) + ": " + count(times);
        }
        j += i ? ",\n" : "\n";
        j += "    {\"position\": " + std::to_string(s.position) + ", \"step\": " + quote(s.step) +
             ", \"name\": " + quote(s.name) + ", \"reads\": " + quote(s.readsFrame ? "frame" : "previous") +
             ", \"source_format\": " + quote(s.sourceFormat) +
             ", \"destination_format\": " + quote(s.destinationFormat) + ",\n";
        j += "     \"successes\": " + count(s.successes) + ", \"failures\": " + count(failed) +
             ", \"failure_codes\": {" + codes + "},\n";
        j += "     \"latency_ms\": {\"median\": " + number(s.latencyMedianMs) +
             ", \"p99\": " + number(s.latencyP99Ms) + ", \"max\": " + number(s.latencyMaxMs) + "}}";
    }
    j += steps.empty() ? "],\n" : "\n  ],\n";
    j += "  \"pictures\": [";
    for (size_t i = 0; i < pictures.size(); ++i) j += (i ? ", " : "") + quote(pictures[i]);
    j += "],\n  \"notes\": [";
    for (size_t i = 0; i < notes.size(); ++i) j += (i ? ", " : "") + quote(notes[i]);
    j += "]\n}\n";
    return j;
}

std::string RunSummary::table() const
{
    char line[512];
    std::string t;
    t += "ipm-run: " + source + ", " + std::to_string(width) + "x" + std::to_string(height) + " " + layout +
         (interrupted ? " (interrupted)" : "") + "\n";
    std::snprintf(
        line, sizeof line,
        "  %llu frames delivered (%.1f fps), %llu passes run (%.1f fps), %llu dropped (newest wins), "
        "%.2f s\n\n",
        static_cast<unsigned long long>(delivered), deliveredFps, static_cast<unsigned long long>(passes),
        processedFps, static_cast<unsigned long long>(dropped), seconds);
    t += line;
    std::snprintf(line, sizeof line, "  %-3s %-36s %-8s %-8s %9s %7s %10s %9s %9s\n", "#", "step", "reads",
                  "writes", "ok", "failed", "median ms", "p99 ms", "max ms");
    t += line;
    for (const Step& s : steps) {
        uint64_t failed = 0;
        for (const auto& entry : s.failures) failed += entry.second;
        const std::string reads = s.readsFrame ? "frame" : s.sourceFormat;
        std::snprintf(line, sizeof line, "  %-3zu %-36s %-8s %-8s %9llu %7llu %10.3f %9.3f %9.3f\n",
                      s.position, s.step.c_str(), reads.c_str(), s.destinationFormat.c_str(),
                      static_cast<unsigned long long>(s.successes), static_cast<unsigned long long>(failed),
                      s.latencyMedianMs, s.latencyP99Ms, s.latencyMaxMs);
        t += line;
    }
    bool anyFailure = false;
    for (const Step& s : steps) {
        if (s.failures.empty()) continue;
        if (!anyFailure) t += "\n";
        anyFailure = true;
        t += "  step " + std::to_string(s.position) + " failed: " + failureList(s.failures) + "\n";
    }
    if (managerErrors != 0) {
        t += "  the manager reported " + count(managerErrors) + " error(s) (see --log-level 1)\n";
    }
    for (const std::string& note : notes) t += "  note: " + note + "\n";
    if (!outDir.empty()) {
        t += "\n  " + std::to_string(pictures.size()) + " picture(s) and summary.json in " + outDir + "/\n";
        // A long run's pictures are all in summary.json; the table shows a few.
        const size_t shown = pictures.size() <= kPicturesShown ? pictures.size() : kPicturesShown - 1;
        for (size_t i = 0; i < shown; ++i) t += "    " + outDir + "/" + pictures[i] + "\n";
        if (shown < pictures.size()) {
            t += "    ... and " + std::to_string(pictures.size() - shown - 1) + " more, up to " + outDir +
                 "/" + pictures.back() + "\n";
        }
    }
    return t;
}
