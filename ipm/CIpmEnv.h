// For hosts: part of the host interface of libQRV_IPM.
//
// The process-wide description of the machine: the processor and its SIMD
// levels, the graphics adapters and the selected one. The first Instance()
// detects both and writes the environment report to the log.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "CIpmCpuEnv.h"
#include "CIpmGpuEnv.h"

namespace ipm {

class CIpmEnv {
public:
    // The one environment, detected before any caller gets it back.
    static CIpmEnv* Instance();

    // The first call detects the CPU, refreshes the GPU list and writes the
    // report; other callers wait until that has finished, except the detecting
    // thread itself, which re-enters while it writes the report.
    void Initialize();
    // Refreshes the GPU list only; writes nothing.
    void Refresh();
    // Writes the environment report to the log at level 3.
    void writeCpuGpuStatus();

    CIpmCpuEnv cpu;
    CIpmGpuEnv gpu;

    CIpmEnv(const CIpmEnv&) = delete;
    CIpmEnv& operator=(const CIpmEnv&) = delete;

private:
    CIpmEnv() = default;
    ~CIpmEnv() = default;
    void finishDetection_();

    std::atomic<bool> initialized_{false};
    std::atomic<bool> detected_{false};
    std::atomic<std::thread::id> detectingThread_{};
    std::mutex detectedMutex_;
    std::condition_variable detectedCv_;
};

}  // namespace ipm
