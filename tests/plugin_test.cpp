// The user plug-in loader and the example plug-in, as a host meets them.
//
// The loader's cases run in fresh processes: a copy of this program in bin/
// of a temporary tree, test plug-ins in the places the search looks (lib/ is
// bin/../lib, sys/ is on LD_LIBRARY_PATH), and a trace file that the test
// plug-in and the child append to. The example plug-in sits in plugins/
// beside this program, so its tests load it through the program's own table.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "CIpmFuncTable.h"
#include "TestSupport.h"

using ipmcommon::CIpmFuncTable;
using qrv_img::En_ImageFormat;
using qrv_img::QRV_Image;
namespace result = ipmcommon::result;
namespace fs = std::filesystem;

namespace {

const std::string kPlugin = "libCIpmUserCustom.so";

int call(int index, const QRV_Image* source, QRV_Image* destination, void* user1 = nullptr)
{
    return CIpmFuncTable::Instance()->process(ipmcommon::EnProcessBackend::CPU_Serial,
                                              ipmcommon::EnIpmModule::User_Custom, index, source, destination,
                                              user1, nullptr);
}

int call(int index, void* user1)
{
    QRV_Image image(1, 1, En_ImageFormat::Gray8, true, 1);
    return call(index, &image, &image, user1);
}

std::vector<std::pair<int, std::wstring>> userCustomList()
{
    auto list = CIpmFuncTable::Instance()->getAlgorithmList(ipmcommon::EnProcessBackend::CPU_Serial,
                                                            ipmcommon::EnIpmModule::User_Custom);
    std::sort(list.begin(), list.end());
    return list;
}

void trace(const std::string& event)
{
    std::ofstream(std::getenv("QRV_TEST_PLUGIN_TRACE"), std::ios::app) << event << "\n";
}

std::vector<qrvlog::LogRecord> hostLog;

// Starts a child as a host: keeps the log, and traces two events at exit.
// "after-unload <code>" is a call of entry 7 after the loader has closed the
// plug-in, while the table still exists: its handler is registered while the
// table fills, after the table and before the loader are created, so it runs
// between their destructors. "exit" comes once the library's objects are gone.
void startHost()
{
    std::atexit([] { trace("exit"); });
    qrvlog::QRV_Log::Instance()->setSink([](const qrvlog::LogRecord& record) {
        if (hostLog.empty()) std::atexit([] { trace("after-unload " + std::to_string(call(7, nullptr))); });
        hostLog.push_back(record);
    });
}

// The loader's lines and the table's verdict as "level text"; a dlerror text becomes "...".
std::vector<std::string> loaderLog()
{
    std::vector<std::string> lines;
    for (const auto& record : hostLog) {
        std::string text = qrvlog::toUtf8(record.text);
        if (record.file != "CIpmUserCustomLoader" && (record.file != "CIpmFuncTable" || text == "called"))
            continue;
        const size_t open = text.find(" (");
        if (text.rfind("dlopen fail: ", 0) == 0 && open != std::string::npos && text.back() == ')' &&
            text.size() > open + 3) {
            text.replace(open + 2, text.size() - open - 3, "...");
        }
        lines.push_back(std::to_string(static_cast<int>(record.level)) + " " + text);
    }
    return lines;
}

std::vector<std::string> readTrace(const std::string& path)
{
    std::vector<std::string> events;
    std::istringstream lines(qrvtest::readFile(path));
    for (std::string line; std::getline(lines, line);) events.push_back(line);
    return events;
}

// What is wrong with the plug-in's teardown in a trace, or "": unregister once
// and then the library's closing ("fini") before the process ends, every
// function object destroyed before that, and no plug-in code afterwards.
std::string teardownFault(const std::vector<std::string>& trace)
{
    std::set<std::string> alive;
    bool registered = false, closed = false;
    int unregistered = 0;
    for (const std::string& event : trace) {
        if (event.rfind("unregister-only ", 0) == 0) continue;
        if (closed && event != "exit" && event.rfind("after-unload", 0) != 0)
            return "ran after closing: " + event;
        registered |= event == "register";
        unregistered += event == "unregister";
        closed |= event == "fini";
        if (event[0] == '+') alive.insert(event.substr(1));
        if (event[0] == '-' && alive.erase(event.substr(1)) != 1) return "destroyed but not alive: " + event;
    }
    if (trace.empty() || trace.back() != "exit") return "the plug-in was still open at exit";
    if (registered && (!closed || unregistered != 1)) return "unregister once, then close";
    if (!alive.empty()) return "never destroyed: +" + *alive.begin();
    return "";
}

size_t position(const std::vector<std::string>& trace, const std::string& event)
{
    return static_cast<size_t>(std::find(trace.begin(), trace.end(), event) - trace.begin());
}

enum Content { None, Plugin, UnregisterOnly, NotElf };

// A temporary tree: bin/ (the program's copy and bin/plugins), lib/, sys/.
struct Tree {
    qrvtest::TempDir dir;

    void put(const std::string& where, Content content) const
    {
        if (content == None) return;
        fs::create_directories(dir.file(where));
        const std::string target = dir.file(where + "/" + kPlugin);
        if (content == NotElf) qrvtest::writeFile(target, "not a shared object\n");
        if (content != NotElf)
            fs::copy_file(content == Plugin ? TEST_PLUGIN : UNREGISTER_ONLY_PLUGIN, target);
    }

    qrvtest::ProcessResult run(const std::string& mode, const std::string& testCase = "") const
    {
        fs::create_directories(dir.file("bin"));
        qrvtest::ProcessOptions options;
        options.env = {{"QRV_TEST_PLUGIN_TRACE", dir.file("trace")},
                       {"QRV_TEST_PLUGIN_MODE", mode},
                       {"QRV_TEST_CASE", testCase},
                       {"LD_LIBRARY_PATH", dir.file("sys")}};
        return qrvtest::runSelf(options, dir.file("bin"));
    }
};

const std::vector<std::pair<int, std::wstring>> kTestPluginList = {
    {5, L"5 second"}, {7, L"7 echo"}, {8, L"8 throw"}, {9, L"9 exit"}, {10, L"10 handshake"}};

const std::string kFound = "3 [CIpmFuncTable] User_Custom registered: 6";
const std::string kNotFound = "1 No User_Custom plugin found.";

struct SearchCase {
    const char* what;
    Content lib, bin, plugins, sys;
    const char* mode;
    std::vector<std::string> log;  // $1 to $4 stand for the four candidates
};

const SearchCase kSearchCases[] = {
    {"../lib before everything",
     Plugin,
     Plugin,
     Plugin,
     Plugin,
     "",
     {"3 loaded: $1", "3 registered entries: 7", kFound}},
    {"the own directory before plugins/",
     None,
     Plugin,
     Plugin,
     Plugin,
     "",
     {"2 dlopen fail: $1 (...)", "3 loaded: $2", "3 registered entries: 7", kFound}},
    {"plugins/ before the system",
     None,
     None,
     Plugin,
     Plugin,
     "",
     {"2 dlopen fail: $1 (...)", "2 dlopen fail: $2 (...)", "3 loaded: $3", "3 registered entries: 7",
      kFound}},
    {"the bare name through the dynamic loader",
     None,
     None,
     None,
     Plugin,
     "",
     {"2 dlopen fail: $1 (...)", "2 dlopen fail: $2 (...)", "2 dlopen fail: $3 (...)", "3 loaded: $4",
      "3 registered entries: 7", kFound}},
    {"no shared object, then no register entry point",
     NotElf,
     UnregisterOnly,
     Plugin,
     None,
     "",
     {"2 dlopen fail: $1 (...)", "2 symbol missing in $2", "3 loaded: $3", "3 registered entries: 7",
      kFound}},
    {"nothing usable",
     None,
     NotElf,
     None,
     None,
     "",
     {"2 dlopen fail: $1 (...)", "2 dlopen fail: $2 (...)", "2 dlopen fail: $3 (...)",
      "2 dlopen fail: $4 (...)", kNotFound}},
    {"register throws, the next use loads again",
     None,
     None,
     Plugin,
     None,
     "throw-once",
     {"2 dlopen fail: $1 (...)", "2 dlopen fail: $2 (...)", "3 loaded: $3", "2 dlopen fail: $1 (...)",
      "2 dlopen fail: $2 (...)", "3 loaded: $3", "3 registered entries: 7", kFound}},
};

const char* const kRefusals[] = {"refuse-code", "null-array", "zero-count", "negative-count"};

}  // namespace

TEST(PluginLoader, SearchOrderRefusalsAndTeardown)
{
    const size_t caseCount = std::size(kSearchCases) + std::size(kRefusals);
    if (qrvtest::inChild()) {
        const size_t number = std::stoul(std::getenv("QRV_TEST_CASE"));
        SearchCase refusal = {"",
                              None,
                              None,
                              Plugin,
                              None,
                              "",
                              {"2 dlopen fail: $1 (...)", "2 dlopen fail: $2 (...)", "3 loaded: $3",
                               "1 register failed", kNotFound}};
        const SearchCase& c = number < std::size(kSearchCases) ? kSearchCases[number] : refusal;
        startHost();
        try {
            CIpmFuncTable::Instance();
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "register refused once");
            CIpmFuncTable::Instance();
        }
        const std::string bin = fs::path(qrvtest::selfPath()).parent_path().string();
        const std::string candidates[] = {bin + "/../lib/" + kPlugin, bin + "/" + kPlugin,
                                          bin + "/plugins/" + kPlugin, kPlugin};
        std::vector<std::string> expected = c.log;
        for (std::string& line : expected) {
            const size_t mark = line.find('$');
            if (mark != std::string::npos) line.replace(mark, 2, candidates[line[mark + 1] - '1']);
        }
        EXPECT_EQ(loaderLog(), expected);
        EXPECT_EQ(userCustomList(),
                  expected.back() == kFound ? kTestPluginList : decltype(kTestPluginList){});
        return;
    }
    for (size_t number = 0; number < caseCount; ++number) {
        const bool refusal = number >= std::size(kSearchCases);
        const SearchCase& c = kSearchCases[refusal ? 0 : number];
        const std::string mode = refusal ? kRefusals[number - std::size(kSearchCases)] : c.mode;
        SCOPED_TRACE(refusal ? mode : c.what);
#ifdef QRV_TSAN_BUILD
        // TSan's pthread_once cannot pass an exception out of std::call_once.
        if (mode == "throw-once") continue;
#endif
        Tree tree;
        tree.put("lib", refusal ? None : c.lib);
        tree.put("bin", refusal ? None : c.bin);
        tree.put("bin/plugins", refusal ? Plugin : c.plugins);
        tree.put("sys", refusal ? None : c.sys);
        const auto child = tree.run(mode, std::to_string(number));
        EXPECT_EQ(child.exitCode, 0) << child.out << child.err;
        const auto events = readTrace(tree.dir.file("trace"));
        EXPECT_EQ(teardownFault(events), "");
        EXPECT_EQ(position(events, "unregister-only unregister"), events.size()) << "never called";
        if (position(events, "unregister-only fini") < events.size()) {
            EXPECT_LT(position(events, "unregister-only fini"), position(events, "register"))
                << "closed first";
        }
    }
}

// Every result of a plug-in function passes through; at exit, the unloading
// waits for a call in flight, the plug-in's function objects go before its
// library, and a table entry called afterwards returns 7. A plug-in function
// that ends the process does not hang the unloading that its exit starts.
TEST(PluginLoader, DispatchAndUnloadingAtExit)
{
    if (qrvtest::inChild()) {
        startHost();
        for (int value : {INT_MIN, -1, 0, 1, 6, INT_MAX}) EXPECT_EQ(call(7, &value), value);
        EXPECT_EQ(call(7, nullptr), -7);
        EXPECT_EQ(call(8, nullptr), result::FunctionThrew);
        EXPECT_EQ(call(5, nullptr), 52) << "the later record at an index wins";
        EXPECT_EQ(call(6, nullptr), result::NoFunction) << "a record without a function is not registered";
        if (testing::Test::HasFailure()) return;
        static std::atomic<int> handshake{0};
        std::thread([] { call(10, &handshake); }).detach();
        while (handshake != 1) std::this_thread::yield();
        handshake = 2;
        call(9, nullptr);
        ADD_FAILURE() << "the plug-in function that ends the process returned";
        return;
    }
    Tree tree;
    tree.put("bin", Plugin);
    const auto child = tree.run("");
    ASSERT_EQ(child.exitCode, 0) << child.out << child.err;
    const auto events = readTrace(tree.dir.file("trace"));
    EXPECT_EQ(teardownFault(events), "");
    const std::vector<std::string> order = {"call-end", "unregister", "fini", "after-unload 7", "exit"};
    for (size_t i = 1; i < order.size(); ++i) {
        EXPECT_LT(position(events, order[i - 1]), position(events, order[i])) << order[i];
    }
}

TEST(ExamplePlugin, OffersMirrorAndThreshold)
{
    const std::vector<std::pair<int, std::wstring>> expected = {{0, L"Mirror horizontal (RGB888/BGR888)"},
                                                                {1, L"Threshold (Gray8)"}};
    EXPECT_EQ(userCustomList(), expected);
}

namespace {

// An image whose byte i holds seed + 7 * i (mod 256).
QRV_Image pattern(uint32_t width, uint32_t height, En_ImageFormat format, int seed)
{
    QRV_Image image(width, height, format, true, 1);
    for (size_t i = 0; i < image.pixelBytes(); ++i) image.pixels()[i] = static_cast<uint8_t>(seed + 7 * i);
    return image;
}

std::vector<uint8_t> bytes(const QRV_Image& image)
{
    return image.pixels() ? std::vector<uint8_t>(image.pixels(), image.pixels() + image.pixelBytes())
                          : std::vector<uint8_t>{};
}

}  // namespace

TEST(ExamplePlugin, MirrorAndThresholdPixels)
{
    for (const auto format : {En_ImageFormat::RGB888, En_ImageFormat::BGR888}) {
        for (const uint32_t width : {0u, 1u, 2u, 3u, 33u}) {
            SCOPED_TRACE(width);
            const QRV_Image source = pattern(width, 3, format, static_cast<int>(width));
            std::vector<uint8_t> expected = bytes(source);
            for (size_t row = 0; row < 3; ++row) {
                for (size_t x = 0; x < width; ++x) {
                    std::copy_n(&source.pixels()[(row * width + width - 1 - x) * 3], 3,
                                &expected[(row * width + x) * 3]);
                }
            }
            QRV_Image destination(width, 3, format, true, 1);
            EXPECT_EQ(call(0, &source, &destination), result::Success);
            EXPECT_EQ(bytes(destination), expected);
            QRV_Image inPlace = pattern(width, 3, format, static_cast<int>(width));
            EXPECT_EQ(call(0, &inPlace, &inPlace), result::Success);
            EXPECT_EQ(bytes(inPlace), expected) << "in place";
        }
    }
    const QRV_Image gray = pattern(16, 16, En_ImageFormat::Gray8, 0);
    for (const int level : {INT_MIN, 0, 100, 128, 255, 256}) {
        QRV_Image destination = pattern(16, 16, En_ImageFormat::Gray8, 3);
        int given = level;
        EXPECT_EQ(call(1, &gray, &destination, level == 128 ? nullptr : &given), result::Success);
        for (size_t i = 0; i < gray.pixelBytes(); ++i) {
            ASSERT_EQ(destination.pixels()[i], gray.pixels()[i] >= level ? 255 : 0) << level << " at " << i;
        }
    }
}

TEST(ExamplePlugin, RefusalsWriteNothing)
{
    const auto rgb = En_ImageFormat::RGB888, bgr = En_ImageFormat::BGR888, gray = En_ImageFormat::Gray8;
    struct Side {
        En_ImageFormat format;
        uint32_t width, height;
        int shortBy;  // bytes fewer than the pixels need; -1: no buffer
    };
    const struct {
        int index;
        Side source, destination;
        int expected;
    } cases[] = {
        {0, {rgb, 4, 4, -1}, {rgb, 4, 4, 0}, result::MissingImage},
        {0, {rgb, 4, 4, 0}, {rgb, 4, 4, -1}, result::MissingImage},
        {0, {rgb, 4, 4, 1}, {rgb, 4, 4, 0}, result::MissingImage},
        {0, {rgb, 4, 4, -1}, {gray, 4, 4, 0}, result::MissingImage},
        {0, {gray, 4, 4, 0}, {gray, 4, 4, 0}, result::Mismatch},
        {0, {rgb, 4, 4, 0}, {bgr, 4, 4, 0}, result::Mismatch},
        {0, {rgb, 4, 4, 0}, {rgb, 5, 4, 0}, result::Mismatch},
        {0, {rgb, 4, 4, 0}, {rgb, 4, 3, 0}, result::Mismatch},
        {1, {rgb, 4, 4, 0}, {rgb, 4, 4, 0}, result::Mismatch},
        {1, {gray, 4, 4, 0}, {rgb, 4, 4, 0}, result::Mismatch},
        {1, {gray, 4, 4, 0}, {gray, 4, 5, 0}, result::Mismatch},
        {1, {gray, 4, 4, 0}, {gray, 4, 4, 1}, result::MissingImage},
    };
    const auto make = [](const Side& side) {
        QRV_Image image = pattern(side.width, side.height, side.format, 1);
        if (side.shortBy < 0) image.data.reset();
        image.dataSize -= std::max(side.shortBy, 0);
        return image;
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const QRV_Image source = make(cases[i].source);
        QRV_Image destination = make(cases[i].destination);
        const auto before = bytes(destination);
        EXPECT_EQ(call(cases[i].index, &source, &destination), cases[i].expected) << "case " << i;
        EXPECT_EQ(bytes(destination), before) << "case " << i;
    }
}
