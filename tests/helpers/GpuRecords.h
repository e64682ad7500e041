// GPU records as lines of text, the way scenario programs print the list
// they see and the tests read it back and compare it.
#pragma once

#include <string>
#include <vector>

#include "CIpmGpuEnv.h"

namespace qrvtest {

// "GPU", then every field in declaration order, tab-separated; texts are
// escaped as in printed log records, enumerations are their numbers.
std::string gpuRecordLine(const ipm::GpuInfo& gpu);

// The records of the "GPU" lines in output, in order; other lines are skipped.
std::vector<ipm::GpuInfo> parseGpuRecords(const std::string& output);

// The line of every record of a CIpmGpuEnv, through its public getters.
std::vector<std::string> gpuListLines(const ipm::CIpmGpuEnv& env);

}  // namespace qrvtest
