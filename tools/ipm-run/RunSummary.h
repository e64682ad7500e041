// The account of a finished run: summary.json for programs, a table on
// stdout for people.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

class RunSummary {
public:
    struct Step {
        size_t position = 0;
        std::string step;  // as given on the command line
        std::string name;  // the function's display name
        bool readsFrame = false;
        std::string sourceFormat;
        std::string destinationFormat;
        uint64_t successes = 0;
        std::map<int, uint64_t> failures;  // result code -> count
        double latencyMedianMs = 0.0;
        double latencyP99Ms = 0.0;
        double latencyMaxMs = 0.0;
    };

    std::string source;  // "synthetic camera" or the input file
    uint32_t width = 0;
    uint32_t height = 0;
    std::string layout;
    double fpsRequested = 0.0;
    uint64_t delivered = 0;
    uint64_t passes = 0;
    uint64_t dropped = 0;
    double seconds = 0.0;
    double deliveredFps = 0.0;
    double processedFps = 0.0;
    bool interrupted = false;
    uint64_t managerErrors = 0;
    std::vector<Step> steps;
    std::string outDir;  // empty: nothing written
    std::vector<std::string> pictures;
    std::vector<std::string> notes;

    std::string json() const;
    std::string table() const;

    // A JSON string literal, quotes included.
    static std::string quote(const std::string& text);
};
