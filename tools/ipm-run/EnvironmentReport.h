// `ipm-run --report`: the library's environment report (processor, SIMD
// level, graphics adapters, the selected one) printed as plain lines.
#pragma once

#include <cstdio>

class EnvironmentReport {
public:
    // Writes the report that the environment's first use logs, one line per
    // record, to out; then hands the log back to the routing of --log-level
    // printLevel. Returns the exit status.
    static int print(std::FILE* out, int printLevel);
};
