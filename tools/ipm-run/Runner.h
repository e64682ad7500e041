// One run of ipm-run: frames from a source, through a CImageProcessMng with
// the processing list of the command line, into statistics, pictures and a
// summary.
#pragma once

#include <atomic>

#include "Options.h"

class Runner {
public:
    // Exit status: 0 after a run (failing steps included), 2 for bad usage
    // found while setting up (nothing is written then), 1 when reading the
    // input or writing the output failed during the run.
    static int run(const Options& options);

    // Set by SIGINT and SIGTERM while a run delivers frames: the run stops
    // delivering, finishes and reports.
    static std::atomic<bool> interrupted;

    static constexpr int kUsageError = 2;
    static constexpr int kRunError = 1;
};
