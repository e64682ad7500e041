// The user plug-in loader, in fresh copies of this program in bin/ of a temporary tree (lib/ is
// bin/../lib, sys/ is on LD_LIBRARY_PATH), and the example plug-in in plugins/ beside this program.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "CIpmFuncTable.h"
#include "TestSupport.h"

using namespace ipmcommon;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
using List = std::map<int, std::wstring>;
const std::string kPlugin = "libCIpmUserCustom.so";
const std::string kBin = std::filesystem::path(qrvtest::selfPath()).parent_path().string();
QRV_Image pixel(1, 1, En_ImageFormat::Gray8, true, 1);

int call(int index, void* user1, const QRV_Image* source = &pixel, QRV_Image* destination = &pixel)
{
    return CIpmFuncTable::Instance()->process(EnProcessBackend::CPU_Serial, EnIpmModule::User_Custom, index,
                                              source, destination, user1, nullptr);
}

List userCustomList()
{
    const auto list =
        CIpmFuncTable::Instance()->getAlgorithmList(EnProcessBackend::CPU_Serial, EnIpmModule::User_Custom);
    return List(list.begin(), list.end());
}

// A case: files in lib, bin, bin/plugins, sys ('-' none, 'P' test plug-in, 'N' no shared object, 'S' its
// unregister only, 'A' built for another interface version), the lines a host reads as letters FMLRXTNI of
// kTexts (F, M, L, I + candidate), mode.
// clang-format off
const char* const kCases[] = {
    "PPPP L1 R T", "-PPP F1 L2 R T", "--PP F1 F2 L3 R T", "---P F1 F2 F3 L4 R T", "NSP- F1 M2 L3 R T",
    "-N-S F1 F2 F3 M4 N", "--P- F1 F2 L3 X N refuse-code", "--P- F1 F2 L3 X N null-array",
    "--P- F1 F2 L3 X N zero-count", "--P- F1 F2 L3 X N negative-count", "--P- F1 F2 L3 F1 F2 L3 R T throw-once",
    "AP-- I1 L2 R T"};
const char* const kTexts[] = {"2 dlopen fail: $ (...)", "2 symbol missing in $", "3 loaded: $", "3 registered entries: 5",
    "1 register failed", "3 [CIpmFuncTable] User_Custom registered: 4", "1 No User_Custom plugin found.",
    "2 interface mismatch in $: version 2, record size 0 (...)"};
// clang-format on

std::vector<std::string> hostLog;  // the loader's lines and the table's verdict, "level text"

// The child, a host. A handler registered at the fill's first line runs at exit between the loader's
// and the table's destruction: it traces what entry 7 returns once the plug-in is closed.
void runHost(const std::string& testCase)
{
    qrvlog::QRV_Log::Instance()->setSink([](const qrvlog::LogRecord& record) {
        [[maybe_unused]] static int armed = std::atexit(
            [] { std::ofstream(kBin + "/../trace", std::ios::app) << "after " << call(7, nullptr) << "\n"; });
        const std::string text =  // dlerror's words vary
            std::regex_replace(qrvlog::toUtf8(record.text), std::regex(" \\(.+\\)$"), " (...)");
        if (record.file == "CIpmUserCustomLoader" || (record.file == "CIpmFuncTable" && text != "called")) {
            hostLog.push_back(std::to_string(static_cast<int>(record.level)) + " " + text);
        }
    });
    if (testCase.find("throw-once") != std::string::npos) {
        EXPECT_THROW(userCustomList(), std::runtime_error);
    }
    const List list = userCustomList();  // after a throw, the next use loads again
    const std::string candidates[] = {kBin + "/../lib/", kBin + "/", kBin + "/plugins/", ""};
    std::vector<std::string> expected;
    std::istringstream words(testCase.substr(5));
    for (std::string word; words >> word && word.size() <= 2;) {
        expected.emplace_back(kTexts[std::string("FMLRXTNI").find(word[0])]);
        if (word.size() > 1)
            expected.back().replace(expected.back().find('$'), 1, candidates[word[1] - '1'] + kPlugin);
    }
    EXPECT_EQ(hostLog, expected);
    if (list.empty()) return;
    // The later record at 5 wins and the one without a function is left out; results pass through.
    EXPECT_EQ(list, (List{{5, L"5 second"}, {7, L"7 echo"}, {8, L"8 throw"}}));
    int value = INT_MIN;
    EXPECT_EQ(std::make_tuple(call(7, &value), call(7, nullptr), call(5, nullptr), call(8, nullptr)),
              std::make_tuple(INT_MIN, -7, 52, result::FunctionThrew));
}

// The trace shows the teardown at exit: the plug-in unregisters, its function objects are destroyed
// before its library is closed ("fini 0"), and a table entry called afterwards returns 7.
TEST(PluginLoader, SearchRefusalsAndTeardown)
{
    if (qrvtest::inChild()) return runHost(std::getenv("QRV_TEST_PLUGIN_MODE"));
    for (const std::string testCase : kCases) {
        SCOPED_TRACE(testCase);
#ifdef QRV_TSAN_BUILD  // TSan cannot unwind out of std::call_once
        if (testCase.find("throw-once") != std::string::npos) continue;
#endif
        qrvtest::TempDir dir;
        const char* const places[] = {"/lib/", "/bin/", "/bin/plugins/", "/sys/"};
        for (int i = 0; i < 4; ++i) {
            std::filesystem::create_directories(dir.path() + places[i]);
            const std::string target = dir.path() + places[i] + kPlugin;
            if (testCase[i] == 'N') qrvtest::writeFile(target, "not a shared object");
            const std::map<char, const char*> builds = {
                {'P', TEST_PLUGIN}, {'S', UNREGISTER_ONLY}, {'A', OTHER_ABI}};
            if (builds.count(testCase[i]) != 0) std::filesystem::copy_file(builds.at(testCase[i]), target);
        }
        qrvtest::ProcessOptions options;
        options.env = {{"QRV_TEST_PLUGIN_MODE", testCase}, {"LD_LIBRARY_PATH", dir.file("sys")}};
        const auto child = qrvtest::runSelf(options, dir.file("bin"));
        EXPECT_EQ(child.exitCode, 0) << child.out << child.err;
        // A plug-in of another interface version is closed during the search, before register was called.
        const std::string refused = testCase[0] == 'A' ? "fini 0\n" : "";
        const std::string teardown =
            refused + (testCase.find(" L") == std::string::npos ? "" : "unregister\nfini 0\n");
        EXPECT_EQ(qrvtest::readFile(dir.file("trace")),
                  teardown + (testCase.find(" T") != std::string::npos ? "after 7\n" : "after 4\n"));
    }
}

// An image whose byte i holds seed + 7 * i (mod 256).
QRV_Image pattern(uint32_t width, uint32_t height, En_ImageFormat format, uint32_t seed = 1)
{
    QRV_Image image(width, height, format, true, 1);
    for (size_t i = 0; i < image.dataSize; ++i) image.data[i] = static_cast<uint8_t>(seed + 7 * i);
    return image;
}

std::vector<uint8_t> bytes(const QRV_Image& image)
{
    return std::vector<uint8_t>(image.data.get(), image.data.get() + image.dataSize);
}

TEST(ExamplePlugin, MirrorAndThreshold)
{
    EXPECT_EQ(userCustomList(), (List{{0, L"Mirror horizontal (RGB888/BGR888)"}, {1, L"Threshold (Gray8)"}}));
    for (const auto format : {En_ImageFormat::RGB888, En_ImageFormat::BGR888}) {
        for (const uint32_t width : {0u, 1u, 2u, 3u, 33u}) {
            const QRV_Image source = pattern(width, 3, format, width);
            QRV_Image destination(width, 3, format, true, 1), inPlace = pattern(width, 3, format, width);
            std::vector<uint8_t> expected = bytes(source);
            for (size_t pixel = 0; pixel < 3 * width; ++pixel) {
                const size_t mirrored = pixel - pixel % width + width - 1 - pixel % width;
                std::copy_n(&source.data[3 * mirrored], 3, &expected[3 * pixel]);
            }
            EXPECT_EQ(call(0, nullptr, &source, &destination) + call(0, nullptr, &inPlace, &inPlace), 2);
            EXPECT_EQ(bytes(destination), expected) << width;
            EXPECT_EQ(bytes(inPlace), expected) << width << " in place";
        }
    }
    const QRV_Image gray = pattern(16, 16, En_ImageFormat::Gray8);
    for (int level : {INT_MIN, 0, 100, 128, 255, 256}) {
        QRV_Image out = pattern(16, 16, En_ImageFormat::Gray8, 3);
        EXPECT_EQ(call(1, level == 128 ? nullptr : &level, &gray, &out), 1);  // 128 without user1
        for (size_t i = 0; i < gray.dataSize; ++i)
            ASSERT_EQ(out.data[i], gray.data[i] >= level ? 255 : 0) << level;
    }
}
