// The user plug-in loader and the table's fill from it, each case in a fresh
// process: a copy of the scenario program sits in a temporary tree with the
// test plug-ins where the search looks for libCIpmUserCustom.so.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "IpmTypes.h"
#include "LogCapture.h"
#include "Subprocess.h"

namespace fs = std::filesystem;
namespace result = ipmcommon::result;

namespace {

const std::string kPluginName = "libCIpmUserCustom.so";

std::string readFile(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> splitLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

// What one scenario run showed: its exit, its log records, its other output
// lines and the plug-in trace.
struct ScenarioRun {
    qrvtest::ProcessResult process;
    std::vector<qrvlog::LogRecord> records;
    std::vector<std::string> trace;

    // "level text" of the records of one log file, in order.
    std::vector<std::string> log(const std::string& file) const
    {
        std::vector<std::string> lines;
        for (const auto& record : records) {
            if (record.file == file) {
                lines.push_back(std::to_string(static_cast<int>(record.level)) + " " +
                                qrvtest::utf8(record.text));
            }
        }
        return lines;
    }

    std::vector<std::string> loaderLog() const { return log("CIpmUserCustomLoader"); }

    // The table's lines after the last "called" line, the plug-in step's.
    std::vector<std::string> tableLogAfterLoading() const
    {
        const auto lines = log("CIpmFuncTable");
        const auto last = std::find(lines.rbegin(), lines.rend(), "3 called");
        return std::vector<std::string>(last.base(), lines.end());
    }

    // Output lines that start with tag and a tab, without them.
    std::vector<std::string> output(const std::string& tag) const
    {
        std::vector<std::string> lines;
        for (const auto& line : splitLines(process.out)) {
            if (line.compare(0, tag.size() + 1, tag + "\t") == 0) {
                lines.push_back(line.substr(tag.size() + 1));
            }
        }
        return lines;
    }

    // result of each CALL line, keyed by "index user1".
    std::map<std::string, int> calls() const
    {
        std::map<std::string, int> results;
        for (const auto& line : output("CALL")) {
            const size_t last = line.rfind('\t');
            std::string key = line.substr(0, last);
            std::replace(key.begin(), key.end(), '\t', ' ');
            results[key] = std::stoi(line.substr(last + 1));
        }
        return results;
    }

    long long value(const std::string& what) const
    {
        for (const auto& line : output("VALUE")) {
            if (line.compare(0, what.size() + 1, what + "\t") == 0) {
                return std::stoll(line.substr(what.size() + 1));
            }
        }
        ADD_FAILURE() << "no VALUE line for " << what;
        return -1;
    }

    size_t traceCount(const std::string& event) const
    {
        return static_cast<size_t>(std::count(trace.begin(), trace.end(), event));
    }

    size_t tracePosition(const std::string& event) const
    {
        return static_cast<size_t>(std::find(trace.begin(), trace.end(), event) - trace.begin());
    }
};

std::ostream& operator<<(std::ostream& out, const ScenarioRun& run)
{
    out << "exit " << run.process.exitCode << ", signal " << run.process.signal << "\nstdout:\n"
        << run.process.out << "\nstderr:\n"
        << run.process.err << "\ntrace:\n";
    for (const auto& event : run.trace) out << "  " << event << "\n";
    return out;
}

// A log line as expected; "(*)" at the end stands for any dlerror text in
// parentheses.
bool lineMatches(const std::string& expected, const std::string& actual)
{
    const std::string any = " (*)";
    if (expected.size() < any.size() ||
        expected.compare(expected.size() - any.size(), any.size(), any) != 0) {
        return expected == actual;
    }
    const std::string head = expected.substr(0, expected.size() - 3);
    return actual.size() > head.size() + 1 && actual.compare(0, head.size(), head) == 0 &&
           actual.back() == ')';
}

testing::AssertionResult linesMatch(const std::vector<std::string>& expected,
                                    const std::vector<std::string>& actual)
{
    bool same = expected.size() == actual.size();
    for (size_t i = 0; same && i < expected.size(); ++i) same = lineMatches(expected[i], actual[i]);
    if (same) return testing::AssertionSuccess();
    auto failure = testing::AssertionFailure() << "expected:\n";
    for (const auto& line : expected) failure << "  " << line << "\n";
    failure << "actual:\n";
    for (const auto& line : actual) failure << "  " << line << "\n";
    return failure;
}

// The plug-in's teardown as its trace shows it: every function object it
// created was destroyed, the unregister entry point ran once, and both
// happened before the library's closing ("fini"); no plug-in event follows
// that, and by the end of the process no plug-in library is mapped.
testing::AssertionResult tornDownInOrder(const ScenarioRun& run)
{
    const auto& trace = run.trace;
    if (trace.empty() || trace.back() != "closed") {
        return testing::AssertionFailure() << "the process ends with the plug-in closed\n" << run;
    }
    if (run.traceCount("register") == 0) return testing::AssertionSuccess();
    const size_t fini = run.tracePosition("fini");
    if (run.traceCount("fini") != 1 || run.traceCount("unregister") != 1 ||
        run.tracePosition("unregister") > fini) {
        return testing::AssertionFailure() << "unregister once, then the closing, once\n" << run;
    }
    std::map<std::string, size_t> born;
    for (size_t i = 0; i < trace.size(); ++i) {
        const std::string& event = trace[i];
        if (i > fini &&
            (event[0] == '+' || event[0] == '-' || event == "unregister" || event == "call-end")) {
            return testing::AssertionFailure()
                   << "plug-in code ran after its library closed: " << event << "\n"
                   << run;
        }
        if (event[0] == '+') born[event.substr(1)] = i;
        if (event[0] == '-' && born.erase(event.substr(1)) != 1) {
            return testing::AssertionFailure() << "destroyed without being created: " << event << "\n" << run;
        }
    }
    if (!born.empty()) {
        return testing::AssertionFailure()
               << born.size() << " function objects never destroyed, e.g. +" << born.begin()->first << "\n"
               << run;
    }
    return testing::AssertionSuccess();
}

enum class Content { Plugin, NotElf, UnregisterOnly };

// A temporary tree: bin/ holds the copy of the scenario program, lib/ is
// bin/../lib, sys/ is on LD_LIBRARY_PATH of the runs.
class PluginTree {
public:
    PluginTree()
    {
        std::string pattern = (fs::temp_directory_path() / "ipm-loader-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        root = fs::canonical(pattern);
        bin = root / "bin";
        fs::create_directories(bin);
        fs::create_directories(root / "sys");
        exe = bin / "scenario";
        fs::copy_file(USER_CUSTOM_LOADER_SCENARIO, exe);
    }
    ~PluginTree()
    {
        // rm walks trees whose paths exceed PATH_MAX; std::filesystem does not.
        qrvtest::ProcessOptions native;
        native.useEmulator = false;
        qrvtest::runProcess({"rm", "-rf", root.string()}, native);
    }
    PluginTree(const PluginTree&) = delete;
    PluginTree& operator=(const PluginTree&) = delete;

    // Puts a file named libCIpmUserCustom.so into dir (relative to the root).
    void put(const std::string& dir, Content content) const
    {
        const fs::path target = root / dir / kPluginName;
        fs::create_directories(target.parent_path());
        if (content == Content::NotElf) {
            std::ofstream(target) << "not a shared object\n";
        } else {
            fs::copy_file(content == Content::Plugin ? TEST_PLUGIN : UNREGISTER_ONLY_PLUGIN, target);
        }
    }

    std::string candidate(const std::string& suffix) const { return bin.string() + suffix + kPluginName; }

    qrvtest::ProcessOptions options(const std::string& mode) const
    {
        qrvtest::ProcessOptions options;
        options.env = {{"QRV_TEST_PLUGIN_TRACE", (root / "trace").string()},
                       {"QRV_TEST_PLUGIN_MODE", mode},
                       {"LD_LIBRARY_PATH", (root / "sys").string()}};
        options.timeout = std::chrono::seconds(60);
        return options;
    }

    ScenarioRun run(const std::string& scenario, const std::string& mode = "records") const
    {
        return collect(qrvtest::runProcess({exe.string(), scenario}, options(mode)));
    }

    ScenarioRun collect(qrvtest::ProcessResult process) const
    {
        ScenarioRun run;
        run.records = qrvtest::parseRecords(process.out);
        run.trace = splitLines(readFile(root / "trace"));
        run.process = std::move(process);
        return run;
    }

    fs::path root, bin, exe;
};

// The User_Custom list of the test plug-in's records after the fill: index 6
// (empty function) is refused, and of the two records at 5 the second wins.
const std::vector<std::string> kPluginList = {"5\tfive second", "7\tseven echoes user1", "8\teight throws",
                                              "9\tnine exits", "10\tten waits"};

}  // namespace

TEST(UserCustomLoader, SearchesLibThenOwnDirThenPluginsThenTheSystemAndSkipsUnusableFiles)
{
    enum Where { Lib, Bin, Plugins, Sys };
    struct Case {
        const char* what;
        std::vector<std::pair<Where, Content>> files;
        std::vector<std::string> expected;  // the loader's lines; $1..$4 are the candidates
        bool found;
    } cases[] = {
        {"../lib wins over the executable's own directory",
         {{Lib, Content::Plugin}, {Bin, Content::Plugin}, {Plugins, Content::Plugin}, {Sys, Content::Plugin}},
         {"3 loaded: $1", "3 registered entries: 7"},
         true},
        {"the executable's directory before plugins/",
         {{Bin, Content::Plugin}, {Plugins, Content::Plugin}, {Sys, Content::Plugin}},
         {"2 dlopen fail: $1 (*)", "3 loaded: $2", "3 registered entries: 7"},
         true},
        {"plugins/ before the system search",
         {{Plugins, Content::Plugin}, {Sys, Content::Plugin}},
         {"2 dlopen fail: $1 (*)", "2 dlopen fail: $2 (*)", "3 loaded: $3", "3 registered entries: 7"},
         true},
        {"the bare name through LD_LIBRARY_PATH",
         {{Sys, Content::Plugin}},
         {"2 dlopen fail: $1 (*)", "2 dlopen fail: $2 (*)", "2 dlopen fail: $3 (*)", "3 loaded: $4",
          "3 registered entries: 7"},
         true},
        {"a file that is no shared object, then one without the register entry point",
         {{Lib, Content::NotElf}, {Bin, Content::UnregisterOnly}, {Plugins, Content::Plugin}},
         {"2 dlopen fail: $1 (*)", "2 symbol missing in $2", "3 loaded: $3", "3 registered entries: 7"},
         true},
        {"no plug-in anywhere",
         {{Bin, Content::NotElf}},
         {"2 dlopen fail: $1 (*)", "2 dlopen fail: $2 (*)", "2 dlopen fail: $3 (*)", "2 dlopen fail: $4 (*)"},
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        PluginTree tree;
        const char* dirs[] = {"lib", "bin", "bin/plugins", "sys"};
        for (const auto& [where, content] : c.files) tree.put(dirs[where], content);
        const std::string candidates[] = {tree.candidate("/../lib/"), tree.candidate("/"),
                                          tree.candidate("/plugins/"), kPluginName};
        std::vector<std::string> expected;
        for (std::string line : c.expected) {
            for (int i = 0; i < 4; ++i) {
                const std::string mark = "$" + std::to_string(i + 1);
                if (const size_t at = line.find(mark); at != std::string::npos) {
                    line.replace(at, 2, candidates[i]);
                }
            }
            expected.push_back(line);
        }

        const ScenarioRun run = tree.run("load");
        ASSERT_EQ(run.process.exitCode, 0) << run;
        EXPECT_TRUE(linesMatch(expected, run.loaderLog()));
        EXPECT_EQ(run.tableLogAfterLoading(),
                  std::vector<std::string>{c.found ? "3 [CIpmFuncTable] User_Custom registered: 6"
                                                   : "1 No User_Custom plugin found."});
        EXPECT_EQ(run.output("ALG"), c.found ? kPluginList : std::vector<std::string>{});
        EXPECT_TRUE(tornDownInOrder(run));
        EXPECT_EQ(run.traceCount("unregister-only unregister"), 0u) << run;
        if (std::any_of(c.files.begin(), c.files.end(),
                        [](const auto& file) { return file.second == Content::UnregisterOnly; })) {
            EXPECT_LT(run.tracePosition("unregister-only fini"), run.tracePosition("register"))
                << "the library without the register entry point is closed before the next candidate\n"
                << run;
        }
    }
}

TEST(UserCustomLoader, LogLinesCarryTheLoaderFileTheirLineAndTheFunction)
{
    PluginTree tree;
    tree.put("lib", Content::NotElf);
    tree.put("bin", Content::UnregisterOnly);
    tree.put("bin/plugins", Content::Plugin);
    ScenarioRun run = tree.run("load");
    ASSERT_EQ(run.process.exitCode, 0) << run;
    ScenarioRun refused = tree.run("load", "zero-count");
    ASSERT_EQ(refused.process.exitCode, 0) << refused;
    run.records.insert(run.records.end(), refused.records.begin(), refused.records.end());

    const std::map<std::string, std::pair<std::string, std::string>> kinds = {
        // text start -> (log call in the source, function)
        {"dlopen fail: ", {"IPM_LOG(Warning, L\"dlopen fail: %hs (%hs)\"", "UserCustomLoader::tryOpen("}},
        {"symbol missing in ", {"IPM_LOG(Warning, L\"symbol missing in %hs\"", "UserCustomLoader::tryOpen("}},
        {"loaded: ", {"IPM_LOG(Trace, L\"loaded: %hs\"", "UserCustomLoader::tryOpen("}},
        {"register failed", {"IPM_LOG(Error, L\"register failed\")", "UserCustomLoader::loadOnce()"}},
        {"registered entries: ",
         {"IPM_LOG(Trace, L\"registered entries: %d\"", "UserCustomLoader::loadOnce()"}},
    };
    std::set<std::string> seen;
    for (const auto& record : run.records) {
        if (record.file != "CIpmUserCustomLoader") continue;
        const std::string text = qrvtest::utf8(record.text);
        const auto kind = std::find_if(kinds.begin(), kinds.end(), [&](const auto& k) {
            return text.compare(0, k.first.size(), k.first) == 0;
        });
        ASSERT_NE(kind, kinds.end()) << text;
        seen.insert(kind->first);
        EXPECT_NE(qrvtest::sourceLine(QRV_SOURCE_DIR "/ipm/CIpmUserCustomLoader.cpp", record.line)
                      .find(kind->second.first),
                  std::string::npos)
            << text << " at line " << record.line;
        EXPECT_NE(record.function.find(kind->second.second), std::string::npos) << record.function;
    }
    EXPECT_EQ(seen.size(), kinds.size());
}

TEST(UserCustomLoader, RefusedRegistrationOffersNothingButStillUnregistersAtExit)
{
    for (const char* mode : {"refuse-code", "null-array", "zero-count", "negative-count"}) {
        SCOPED_TRACE(mode);
        PluginTree tree;
        tree.put("bin/plugins", Content::Plugin);
        const ScenarioRun run = tree.run("load", mode);
        ASSERT_EQ(run.process.exitCode, 0) << run;
        EXPECT_TRUE(linesMatch({"2 dlopen fail: " + tree.candidate("/../lib/") + " (*)",
                                "2 dlopen fail: " + tree.candidate("/") + " (*)",
                                "3 loaded: " + tree.candidate("/plugins/"), "1 register failed"},
                               run.loaderLog()));
        EXPECT_EQ(run.tableLogAfterLoading(), std::vector<std::string>{"1 No User_Custom plugin found."});
        EXPECT_TRUE(run.output("ALG").empty());
        EXPECT_EQ(run.traceCount("register"), 1u);
        EXPECT_TRUE(tornDownInOrder(run));
    }
}

TEST(UserCustomLoader, RecordsAreFiledByIndexAndDispatchPassesEveryResultThrough)
{
    PluginTree tree;
    tree.put("bin", Content::Plugin);
    const ScenarioRun run = tree.run("dispatch");
    ASSERT_EQ(run.process.exitCode, 0) << run;
    // Seven records handed over; the empty one is refused and not counted.
    EXPECT_EQ(run.loaderLog().back(), "3 registered entries: 7");
    EXPECT_EQ(run.tableLogAfterLoading(),
              std::vector<std::string>{"3 [CIpmFuncTable] User_Custom registered: 6"});
    EXPECT_EQ(run.output("ALG"), kPluginList);
    const std::map<std::string, int> expected = {
        {"7 -2147483648", INT32_MIN},
        {"7 -1", -1},
        {"7 0", 0},
        {"7 1", 1},
        {"7 6", 6},
        {"7 9", 9},
        {"7 12345678", 12345678},
        {"7 2147483647", INT32_MAX},
        {"7 -", -7},  // user1 null reaches the function as null
        {"8 -", result::FunctionThrew},
        {"5 -", 52},  // the later record at 5
        {"6 -", result::NoFunction},
    };
    EXPECT_EQ(run.calls(), expected);
    EXPECT_TRUE(tornDownInOrder(run));
}

TEST(UserCustomLoader, EveryPluginFunctionObjectIsDestroyedBeforeTheLibraryCloses)
{
    PluginTree tree;
    tree.put("bin", Content::Plugin);
    const ScenarioRun run = tree.run("load");
    ASSERT_EQ(run.process.exitCode, 0) << run;
    EXPECT_EQ(run.process.err.find("Sanitizer"), std::string::npos) << run.process.err;
    EXPECT_TRUE(tornDownInOrder(run));
    // The loader's copies exist until the exit: the six function objects of
    // the records outlive the plug-in's own array, freed by unregister.
    const size_t unregister = run.tracePosition("unregister");
    const size_t destroyedAfterUnregister =
        static_cast<size_t>(std::count_if(run.trace.begin() + static_cast<long>(unregister), run.trace.end(),
                                          [](const std::string& event) { return event[0] == '-'; }));
    EXPECT_EQ(destroyedAfterUnregister, 12u) << "the array's six and the loader's six\n" << run;
}

TEST(UserCustomLoader, ExceptionFromRegisterReachesTheHostAndTheNextUseLoadsAgain)
{
#ifdef QRV_TSAN_BUILD
    GTEST_SKIP() << "ThreadSanitizer's pthread_once interceptor cannot unwind an exception out of "
                    "std::call_once, so a retried fill would hang under TSan only";
#endif
    PluginTree tree;
    tree.put("bin/plugins", Content::Plugin);
    const ScenarioRun run = tree.run("register-throws", "throw-once");
    ASSERT_EQ(run.process.exitCode, 0) << run;
    EXPECT_EQ(run.output("CAUGHT"), std::vector<std::string>{"register refused once"});
    const std::string loaded = "3 loaded: " + tree.candidate("/plugins/");
    const auto log = run.loaderLog();
    EXPECT_EQ(std::count(log.begin(), log.end(), loaded), 2) << "both attempts search and open";
    EXPECT_EQ(log.back(), "3 registered entries: 7");
    const auto tableLog = run.log("CIpmFuncTable");
    EXPECT_EQ(std::count(tableLog.begin(), tableLog.end(), "3 called"), 8) << "the whole fill runs twice";
    EXPECT_EQ(run.output("ALG"), kPluginList);
    EXPECT_EQ(run.calls(), (std::map<std::string, int>{{"5 -", 52}}));
    EXPECT_EQ(run.traceCount("register"), 2u);
    // The second opening must not keep the library open past unloading.
    EXPECT_TRUE(tornDownInOrder(run));
}

TEST(UserCustomLoader, UnloadWaitsForCallsInFlightAndLaterCallsReturnSeven)
{
    PluginTree tree;
    tree.put("bin", Content::Plugin);
    const ScenarioRun run = tree.run("unload-waits");
    ASSERT_EQ(run.process.exitCode, 0) << run;
    EXPECT_EQ(run.value("call during unload"), result::Success);
    EXPECT_EQ(run.calls(), (std::map<std::string, int>{{"7 -", result::EmptyFunction}}));
    const std::vector<std::string> order = {"unload-start", "call-end", "unregister", "fini", "unload-end"};
    for (size_t i = 1; i < order.size(); ++i) {
        EXPECT_LT(run.tracePosition(order[i - 1]), run.tracePosition(order[i])) << order[i] << "\n" << run;
    }
    EXPECT_TRUE(tornDownInOrder(run));
}

TEST(UserCustomLoader, AfterUnloadNothingLoadsAgainAndTheTableEntriesReturnSeven)
{
    PluginTree tree;
    tree.put("bin", Content::Plugin);
    const ScenarioRun run = tree.run("unload");
    ASSERT_EQ(run.process.exitCode, 0) << run;
    EXPECT_EQ(run.value("loadOnce again"), 7);
    EXPECT_EQ(run.value("entries after unload"), 0);
    EXPECT_EQ(run.value("loadOnce after unload"), 0);
    EXPECT_EQ(run.calls(), (std::map<std::string, int>{{"5 -", 7}, {"7 -", 7}}));
    EXPECT_EQ(run.output("ALG"), kPluginList) << "the table keeps its entries";
    EXPECT_TRUE(linesMatch({"2 dlopen fail: " + tree.candidate("/../lib/") + " (*)",
                            "3 loaded: " + tree.candidate("/"), "3 registered entries: 7"},
                           run.loaderLog()))
        << "the later loadOnce calls open and log nothing";
    EXPECT_TRUE(tornDownInOrder(run));
}

TEST(UserCustomLoader, PluginFunctionEndingTheProcessDoesNotHangTheUnloading)
{
    PluginTree tree;
    tree.put("bin", Content::Plugin);
    const ScenarioRun run = tree.run("exit-in-call");
    ASSERT_FALSE(run.process.timedOut) << run;
    ASSERT_EQ(run.process.exitCode, 0) << run;
    EXPECT_LT(run.tracePosition("exit-call"), run.tracePosition("unregister")) << run;
    EXPECT_TRUE(tornDownInOrder(run));
}

// The executable's directory comes from /proc/self/exe, read into 4096 bytes.
// A path that fills them exactly is read whole; a longer one cannot be read
// at all (the kernel refuses it), so the search starts from ".", the working
// directory.
TEST(UserCustomLoader, ExecutablePathsAtAndBeyondTheLinkBuffer)
{
    for (const size_t length : {size_t{4095}, size_t{4200}}) {
        SCOPED_TRACE(length);
        PluginTree tree;
        std::string dir = tree.root.string();
        int dirFd = open(dir.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
        ASSERT_GE(dirFd, 0);
        size_t nameLength = 64;
        size_t dirsLength = length - dir.size() - 1 - nameLength;
        while (dirsLength > 0) {
            const size_t componentLength = std::min<size_t>(200, dirsLength - 1);
            if (componentLength == 0) {  // a lone "/" is no directory: the name takes the byte
                ++nameLength;
                break;
            }
            const std::string component(componentLength, 'd');
            ASSERT_EQ(mkdirat(dirFd, component.c_str(), 0755), 0);
            const int inner = openat(dirFd, component.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
            close(dirFd);
            ASSERT_GE(inner, 0);
            dirFd = inner;
            dir += "/" + component;
            dirsLength -= componentLength + 1;
        }
        const std::string name(nameLength, 'x');
        ASSERT_EQ(dir.size() + 1 + name.size(), length);
        const auto writeFile = [&](int at, const std::string& file, const std::string& content) {
            const int fd = openat(at, file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755);
            ASSERT_GE(fd, 0) << file;
            ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
            close(fd);
        };
        writeFile(dirFd, name, readFile(USER_CUSTOM_LOADER_SCENARIO));
        ASSERT_EQ(mkdirat(dirFd, "plugins", 0755), 0);
        const int pluginsFd = openat(dirFd, "plugins", O_DIRECTORY | O_RDONLY | O_CLOEXEC);
        writeFile(pluginsFd, kPluginName, readFile(TEST_PLUGIN));
        close(pluginsFd);

        // The path is too long to start the program by; it starts from its
        // own directory.
        const int savedCwd = open(".", O_DIRECTORY | O_RDONLY | O_CLOEXEC);
        ASSERT_EQ(fchdir(dirFd), 0);
        qrvtest::ProcessResult process = qrvtest::runProcess({"./" + name, "load"}, tree.options("records"));
        EXPECT_EQ(fchdir(savedCwd), 0);
        close(savedCwd);
        close(dirFd);

        const ScenarioRun run = tree.collect(std::move(process));
        ASSERT_EQ(run.process.exitCode, 0) << run;
        const std::string searched = length <= 4095 ? dir : ".";
        EXPECT_TRUE(
            linesMatch({"2 dlopen fail: " + searched + "/../lib/" + kPluginName + " (*)",
                        "2 dlopen fail: " + searched + "/" + kPluginName + " (*)",
                        "3 loaded: " + searched + "/plugins/" + kPluginName, "3 registered entries: 7"},
                       run.loaderLog()));
        EXPECT_TRUE(tornDownInOrder(run));
    }
}

// An executable in the root directory searches "/../lib/", "/" and
// "/plugins/". The copy appears at the root through a bind mount over a file
// that is already there, in a private mount namespace.
TEST(UserCustomLoader, ExecutableInTheRootDirectorySearchesFromTheRoot)
{
    // Asked of a host program: under qemu -L, this process sees the
    // emulator's sysroot as "/".
    qrvtest::ProcessOptions host;
    host.useEmulator = false;
    const auto files =
        splitLines(qrvtest::runProcess({"find", "/", "-maxdepth", "1", "-type", "f"}, host).out);
    if (files.empty()) GTEST_SKIP() << "no regular file in / to bind the executable over";
    const std::string rootFile = files.front();
    PluginTree tree;
    tree.put("sys", Content::Plugin);
    auto options = tree.options("records");
    options.env.emplace_back("QRV_BIND_SOURCE", tree.exe.string());
    options.env.emplace_back("QRV_BIND_TARGET", rootFile);
    constexpr int kCannotMount = 77;
    const std::string bindThenRun = "mount --bind \"$QRV_BIND_SOURCE\" \"$QRV_BIND_TARGET\" || exit " +
                                    std::to_string(kCannotMount) + "; exec \"$@\"";
    options.wrapper = {"unshare", "-m", "--", "sh", "-c", bindThenRun, "sh"};
    const ScenarioRun run = tree.collect(qrvtest::runProcess({rootFile, "load"}, options));
    if (run.process.exitCode == kCannotMount || run.process.err.find("unshare:") != std::string::npos) {
        GTEST_SKIP() << "this environment allows no private mount namespace with a bind mount: "
                     << run.process.err;
    }
    ASSERT_EQ(run.process.exitCode, 0) << run;
    EXPECT_TRUE(linesMatch(
        {"2 dlopen fail: /../lib/" + kPluginName + " (*)", "2 dlopen fail: /" + kPluginName + " (*)",
         "2 dlopen fail: /plugins/" + kPluginName + " (*)", "3 loaded: " + kPluginName,
         "3 registered entries: 7"},
        run.loaderLog()));
    EXPECT_TRUE(tornDownInOrder(run));
}
