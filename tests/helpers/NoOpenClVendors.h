// For suites whose conversions reach the environment's first use: its OpenCL
// probe opens and closes the ICD loader, which keeps its vendor list for good,
// so that LeakSanitizer reports it once the loader is gone. These suites need
// no OpenCL vendor; their child processes inherit the setting.
#pragma once

#include <cstdlib>

namespace qrvtest {

inline const int kNoOpenClVendors = setenv("OCL_ICD_VENDORS", "/nonexistent", 1);

}  // namespace qrvtest
