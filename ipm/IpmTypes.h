// For plug-ins (and hosts): part of the plug-in interface of libQRV_IPM.
//
// Types shared by every part of the IPM library and by its hosts and plug-ins.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "QRV_Image.h"

// A processing function: reads source, writes destination, returns a result
// code (1 on success). user1 and user2 travel unchanged from the processing
// list to the function.
using IpmFn = std::function<int(const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination,
                                void* user1, void* user2)>;

// One entry of the function table.
struct FuncInfo {
    IpmFn func;
    std::wstring name;
};

// One offered function: the converter catalogue builds these, and a user
// plug-in hands an array of them to the library.
struct AlgEntry {
    int32_t index = 0;
    IpmFn func;
    std::wstring name;
};

namespace ipmcommon {

// On what and how a function runs. The values index the function table.
enum class EnProcessBackend : int32_t {
    CPU_Serial = 0,
    CPU_Parallel = 1,
    GPU_GL_Compute = 2,
    GPU_OpenCL = 3,
    GPU_CUDA = 4,
};

// What kind of operation a function is. The values index the function table.
enum class EnIpmModule : int32_t {
    Converter = 0,
    Scaler = 1,
    Splitter = 2,
    User_Custom = 3,
};

// Result codes shared by the whole library.
namespace result {
inline constexpr int NoSimd = 0;  // the processor lacks the SIMD level the kernels need
inline constexpr int Success = 1;
inline constexpr int BadBackend = 2;      // backend outside 0 to 4
inline constexpr int BadModule = 3;       // module outside 0 to 3
inline constexpr int NoFunction = 4;      // nothing registered under the index; unknown conversion
inline constexpr int BadSize = 5;         // bad image size (parallel converters)
inline constexpr int FormatMismatch = 6;  // format mismatch or missing destination (parallel converters)
inline constexpr int EmptyFunction = 7;
inline constexpr int MissingImage = 8;   // null image or missing pixel data
inline constexpr int Mismatch = 9;       // format or size mismatch (serial converters)
inline constexpr int FunctionThrew = 9;  // the processing function raised an exception
}  // namespace result

}  // namespace ipmcommon
