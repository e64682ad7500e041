// The seed corpora of the fuzz targets: the dispatch seeds named "convert_*"
// must stay valid calls that reach every built-in conversion, so that the
// fuzzer starts from the converters' inner loops and not only from their
// refusals.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "Converter/CConverter.h"
#include "DispatchInput.h"

using ipmcommon::CIpmFuncTable;
using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;
namespace result = ipmcommon::result;

namespace {

// (backend, algorithm index, YUV layout or source format)
using Variant = std::tuple<int, int, int>;

std::vector<uint8_t> readFile(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

}  // namespace

TEST(DispatchCorpus, ConvertSeedsSucceedOnEveryBuiltInConversionLayoutAndSourceFormat)
{
    using F = CConverter::F;
    std::set<Variant> required;
    for (EnProcessBackend backend : {EnProcessBackend::CPU_Serial, EnProcessBackend::CPU_Parallel}) {
        for (const auto& [index, name] :
             CIpmFuncTable::Instance()->getAlgorithmList(backend, EnIpmModule::Converter)) {
            const int b = static_cast<int>(backend);
            if (index == static_cast<int>(F::YUV422_8_To_RGB888) ||
                index == static_cast<int>(F::YUV422_8_To_BGR888)) {
                for (int layout = 10; layout <= 13; ++layout) required.insert({b, index, layout});
            } else if (index == static_cast<int>(F::RGB888_To_Gray8)) {
                required.insert({b, index, 301});
                required.insert({b, index, 302});
            } else {
                ADD_FAILURE() << "no seed plan for the converter at index " << index;
            }
        }
    }

    std::set<Variant> seeded;
    for (const auto& entry :
         std::filesystem::directory_iterator(QRV_SOURCE_DIR "/tests/fuzz/corpus/dispatch")) {
        const std::string name = entry.path().filename().string();
        if (name.rfind("convert_", 0) != 0) continue;
        const std::vector<uint8_t> bytes = readFile(entry.path());
        qrvfuzz::DispatchCall call = qrvfuzz::decodeDispatchCall(bytes.data(), bytes.size());
        const int code = call.dispatch();
        if (code == result::NoSimd) {
            GTEST_SKIP() << "this processor lacks the SIMD level of the parallel kernels";
        }
        EXPECT_EQ(code, result::Success) << name;
        EXPECT_EQ(call.module, EnIpmModule::Converter) << name;
        const bool yuv = call.source.format == qrv_img::En_ImageFormat::YUV422_8;
        seeded.insert({static_cast<int>(call.backend), call.index,
                       yuv ? call.source.yuvLayout : static_cast<int>(call.source.format)});
    }
    EXPECT_EQ(seeded, required);
}
