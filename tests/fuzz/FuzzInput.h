// What the fuzz targets share: the input as a stream of bytes, a quiet
// library, and for the replay build (the cross build, ThreadSanitizer) a main()
// that runs the target over every file of the given corpus directories.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "QRV_Log.h"

namespace qrvfuzz {

// Past the end every byte is zero: every input, however short, decodes.
struct Input {
    const uint8_t* data;
    size_t size;
    size_t used = 0;

    uint8_t byte() { return used < size ? data[used++] : 0; }
    bool empty() const { return used >= size; }
};

}  // namespace qrvfuzz

// No log output (the manager logs every frame), and none of the machine's
// OpenCL drivers, which start slowly and leak when the probe unloads them.
extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    setenv("OCL_ICD_VENDORS", "/nonexistent/opencl-vendors", 0);
    qrvlog::QRV_Log::Instance()->setSink([](const qrvlog::LogRecord&) {});
    return 0;
}

#ifdef QRV_FUZZ_REPLAY
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    size_t inputs = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), {});
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            ++inputs;
        }
    }
    std::printf("replayed %zu inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
}
#endif
