// The fuzz targets' input as a stream of bytes, a quiet library, and for the
// replay build (the cross build, ThreadSanitizer) a main() in place of libFuzzer's.
#pragma once

#include <cstdint>
#include <cstdlib>

#include "QRV_Log.h"

// Past the end every byte is zero: every input, however short, decodes.
struct FuzzInput {
    const uint8_t* data;
    size_t size, used = 0;

    uint8_t byte() { return used < size ? data[used++] : 0; }
    bool empty() const { return used >= size; }
};

// No log output (the manager logs every frame), and none of the machine's
// OpenCL drivers, which start slowly and leak when the probe unloads them.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    setenv("OCL_ICD_VENDORS", "/nonexistent/opencl-vendors", 0);
    qrvlog::QRV_Log::Instance()->setSink([](const qrvlog::LogRecord&) {});
    return 0;
}

#ifdef QRV_FUZZ_REPLAY
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    for (int i = 1; i < argc; ++i) {
        std::ifstream file(argv[i], std::ios::binary);
        const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), {});
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    }
    return argc > 1 ? 0 : 1;
}
#endif
