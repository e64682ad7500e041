// Dispatch through the function table with arbitrary coordinates and image
// headers, over buffers that hold exactly what the headers claim: whatever
// arrives, the call returns one of the library's result codes and touches
// nothing outside the buffers.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "DispatchInput.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    qrvfuzz::quietLibrary();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    qrvfuzz::DispatchCall call = qrvfuzz::decodeDispatchCall(data, size);
    const int code = call.dispatch();
    if (code < 0 || code > 9) {
        std::fprintf(stderr, "process returned %d, which is no result code\n", code);
        std::abort();
    }
    return 0;
}
