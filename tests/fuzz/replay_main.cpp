// Runs a fuzz target's entry point over every file of the given corpus
// directories, without libFuzzer, so that the same inputs run under the
// sanitizers libFuzzer cannot be combined with (ThreadSanitizer) and in the
// cross build.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    size_t inputs = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            if (!entry.is_regular_file()) continue;
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)),
                                             std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            ++inputs;
        }
    }
    std::printf("replayed %zu inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
}
