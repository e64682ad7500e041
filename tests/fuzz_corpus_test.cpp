// The seed corpora of the fuzz targets: the dispatch seeds named "convert_*"
// and "plugin_*" must stay valid calls that reach every built-in conversion
// and every function of the example plug-in (which sits beside this test as
// it sits beside the fuzz targets), so that the fuzzer starts from their
// inner loops and not only from their refusals.
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

// (backend, module, algorithm index, YUV layout or source format)
using Variant = std::tuple<int, int, int, int>;

std::vector<uint8_t> readFile(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

Variant variantOf(const qrvfuzz::DispatchCall& call)
{
    const bool yuv = call.source.format == qrv_img::En_ImageFormat::YUV422_8;
    return {static_cast<int>(call.backend), static_cast<int>(call.module), call.index,
            yuv ? call.source.yuvLayout : static_cast<int>(call.source.format)};
}

// Dispatches every seed whose name starts with `prefix`, expecting success,
// and returns what they reached; sets `noSimd` when the processor cannot run
// the parallel kernels.
std::set<Variant> dispatchSeeds(const std::string& prefix, bool& noSimd)
{
    std::set<Variant> reached;
    for (const auto& entry :
         std::filesystem::directory_iterator(QRV_SOURCE_DIR "/tests/fuzz/corpus/dispatch")) {
        const std::string name = entry.path().filename().string();
        if (name.rfind(prefix, 0) != 0) continue;
        const std::vector<uint8_t> bytes = readFile(entry.path());
        qrvfuzz::DispatchCall call = qrvfuzz::decodeDispatchCall(bytes.data(), bytes.size());
        const int code = call.dispatch();
        if (code == result::NoSimd) {
            noSimd = true;
        } else {
            EXPECT_EQ(code, result::Success) << name;
        }
        reached.insert(variantOf(call));
    }
    return reached;
}

}  // namespace

TEST(DispatchCorpus, ConvertSeedsSucceedOnEveryBuiltInConversionLayoutAndSourceFormat)
{
    using F = CConverter::F;
    const int converter = static_cast<int>(EnIpmModule::Converter);
    std::set<Variant> required;
    for (EnProcessBackend backend : {EnProcessBackend::CPU_Serial, EnProcessBackend::CPU_Parallel}) {
        const int b = static_cast<int>(backend);
        for (const auto& [index, name] :
             CIpmFuncTable::Instance()->getAlgorithmList(backend, EnIpmModule::Converter)) {
            if (index == static_cast<int>(F::YUV422_8_To_RGB888) ||
                index == static_cast<int>(F::YUV422_8_To_BGR888)) {
                for (int layout = 10; layout <= 13; ++layout) required.insert({b, converter, index, layout});
            } else if (index == static_cast<int>(F::RGB888_To_Gray8)) {
                required.insert({b, converter, index, 301});
                required.insert({b, converter, index, 302});
            } else {
                ADD_FAILURE() << "no seed plan for the converter at index " << index;
            }
        }
    }
    bool noSimd = false;
    const std::set<Variant> reached = dispatchSeeds("convert_", noSimd);
    if (noSimd) GTEST_SKIP() << "this processor lacks the SIMD level of the parallel kernels";
    EXPECT_EQ(reached, required);
}

TEST(DispatchCorpus, PluginSeedsSucceedOnEveryFunctionOfTheExamplePlugin)
{
    const auto functions =
        CIpmFuncTable::Instance()->getAlgorithmList(EnProcessBackend::CPU_Serial, EnIpmModule::User_Custom);
    ASSERT_FALSE(functions.empty()) << "the example plug-in was not loaded from plugins/ beside the test";
    std::set<int> required;
    for (const auto& [index, name] : functions) required.insert(index);
    bool noSimd = false;
    std::set<int> reached;
    for (const Variant& variant : dispatchSeeds("plugin_", noSimd)) {
        EXPECT_EQ(std::get<0>(variant), static_cast<int>(EnProcessBackend::CPU_Serial));
        EXPECT_EQ(std::get<1>(variant), static_cast<int>(EnIpmModule::User_Custom));
        reached.insert(std::get<2>(variant));
    }
    EXPECT_EQ(reached, required);
}
