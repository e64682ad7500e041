// Reading a fuzz input as a stream of values, and the quiet library set-up
// the fuzz targets share.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "QRV_Log.h"

namespace qrvfuzz {

// Hands out the input's bytes in order; past the end every value is zero, so
// every input, however short, decodes to something.
class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    template <typename T>
    T take()
    {
        T value{};
        const size_t n = std::min(sizeof(T), size_ - used_);
        if (n != 0) std::memcpy(&value, data_ + used_, n);
        used_ += n;
        return value;
    }
    uint8_t byte() { return take<uint8_t>(); }
    bool empty() const { return used_ >= size_; }

private:
    const uint8_t* data_;
    size_t size_;
    size_t used_ = 0;
};

// No log output (the library logs every frame), and none of the machine's
// OpenCL drivers in the environment's first use: they take long to start and
// leak when the probe unloads them, which would drown the findings.
inline void quietLibrary()
{
    setenv("OCL_ICD_VENDORS", "/nonexistent/opencl-vendors", 0);
    qrvlog::QRV_Log::Instance()->setSink([](const qrvlog::LogRecord&) {});
}

}  // namespace qrvfuzz
