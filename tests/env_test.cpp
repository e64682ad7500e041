#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <map>
#include <sstream>

#include "FakeSysClass.h"
#include "LogCapture.h"
#include "Subprocess.h"

using qrvtest::FakeSysClass;

namespace {

#if defined(__aarch64__)
const std::string kCpuLine = "\r\nCPU    : ARMv8";
#else
const std::string kCpuLine = "\r\nCPU    : x86_64";
#endif
const std::string kHeader = "\r\n============ IPM Environment ============";
const std::string kNote =
    "\r\n(Note) OpenGL probing is disabled. Call setSelectedOpenGLVersion() after creating a GL context, or "
    "build "
    "with QRV_IPM_ENABLE_GL_PROBE to auto-detect.";
const std::string kEnd = "\r\n========== IPM Environment End ==========";

using Report = std::vector<std::string>;

Report report(const std::string& gpuCount, const std::vector<std::string>& records,
              const std::string& selected)
{
    Report lines = {kHeader, kCpuLine, "\r\nGPU(s) : " + gpuCount + " device(s) detected"};
    for (const std::string& record : records) lines.push_back("\r\n" + record);
    lines.push_back("\r\n" + selected);
    lines.push_back(kNote);
    lines.push_back(kEnd);
    return lines;
}

qrvtest::StubRuntimes stubs(const std::string& cuda, const std::string& openCL = "")
{
    return {cuda.empty() ? nullptr : CUDA_STUB_DIR, cuda, openCL.empty() ? nullptr : OPENCL_STUB_DIR, openCL};
}

// The environment's log lines of each stretch of a scenario's output, by the
// MARK that opens the stretch ("" before the first).
std::map<std::string, Report> reportsByMark(const std::string& output)
{
    std::map<std::string, Report> reports;
    std::string mark;
    reports[mark];
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        if (line.compare(0, 5, "MARK\t") == 0) {
            mark = line.substr(5);
            reports[mark];
            continue;
        }
        for (const qrvlog::LogRecord& record : qrvtest::parseRecords(line)) {
            EXPECT_EQ(record.level, qrvlog::LogLevel::Trace);
            EXPECT_EQ(record.file, "CIpmEnv");
            EXPECT_EQ(record.function, "void ipm::CIpmEnv::writeCpuGpuStatus()");
            reports[mark].push_back(qrvtest::utf8(record.text));
        }
    }
    return reports;
}

std::map<std::string, Report> runSteps(const FakeSysClass& tree, const qrvtest::StubRuntimes& runtimes,
                                       std::vector<std::string> steps)
{
    steps.insert(steps.begin(), {ENV_SCENARIO, "steps"});
    const qrvtest::ProcessResult result = tree.run(steps, qrvtest::runtimeOptions(runtimes));
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return reportsByMark(result.out);
}

class EnvironmentReport : public qrvtest::MountNamespaceTest {};
class EnvironmentDetection : public qrvtest::MountNamespaceTest {};

}  // namespace

TEST_F(EnvironmentReport, FirstInstanceWritesSixLinesOnAMachineWithoutGpusAndTheSecondWritesNothing)
{
    FakeSysClass tree;
    tree.removeDrm();
    auto reports = runSteps(tree, {}, {"instance", "mark:second", "instance", "mark:end"});
    EXPECT_EQ(reports[""], report("0", {}, "Selected: (none)"));
    EXPECT_EQ(reports[""].size(), 6u);
    EXPECT_EQ(reports["second"], Report{});
}

TEST_F(EnvironmentReport, RecordLinesPrintStateWordsVersionsAndUnconvertibleNamesAsEmpty)
{
    FakeSysClass tree;
    tree.addPciDevice("0000:00:02.0", nullptr, nullptr);
    tree.addCard("card0", "0000:00:02.0");
    tree.addPciDevice("0000:00:03.0", "0x8086\n", "DRIVER=\xC3\x28\n");
    tree.addCard("card1", "0000:00:03.0");
    tree.addPciDevice("0000:01:00.0", "0x10de\n", "DRIVER=nv-\xC3\xA9\xF0\x9F\x98\x80\n");
    tree.addCard("card2", "0000:01:00.0");
    const std::map<std::string, std::string> lineOf = {
        {"card0",
         "name=card0 | vendor=Unknown | type=None | CUDA=Unknown(-) | OpenCL=Unknown(-) | OpenGL=Unknown(-)"},
        {"card1",
         "name= | vendor=Intel | type=Internal | CUDA=Unknown(-) | OpenCL=Unknown(-) | OpenGL=Unknown(-)"},
        {"card2",
         "name=card2 (nv-\xC3\xA9\xF0\x9F\x98\x80) | vendor=NVIDIA | type=NVIDIA | "
         "CUDA=NotAvailable(Driver 12040) | OpenCL=Unknown(-) | OpenGL=Unknown(-)"},
    };
    std::vector<std::string> records;
    for (const std::string& entry : tree.drmOrder()) {
        records.push_back("#" + std::to_string(records.size()) + " " + lineOf.at(entry));
    }
    auto reports = runSteps(tree, stubs("count=0;driver=12040"), {"instance"});
    EXPECT_EQ(reports[""], report("3", records, "Selected: (none)"));
}

TEST_F(EnvironmentReport, SelectedLineCarriesTheSelectedStatesAndOpenGLVersion)
{
    FakeSysClass tree;
    tree.addPciDevice("0000:01:00.0", "0x10de\n", "DRIVER=nvidia\n");
    tree.addCard("card0", "0000:01:00.0");
    const qrvtest::StubRuntimes runtimes =
        stubs("count=1;names=NVIDIA GeForce RTX 3080;driver=12040",
              "OpenCL 3.0 CUDA 12.4.89|NVIDIA GeForce RTX 3080@NVIDIA Corporation");
    auto reports = runSteps(
        tree, runtimes, {"instance", "mark:selected", "select-cuda:0", "gl:4.6.0 NVIDIA 550.54", "report"});
    const std::string card =
        "#0 name=card0 (nvidia) | vendor=NVIDIA | type=NVIDIA | CUDA=Unknown(-) | OpenCL=Unknown(-) | "
        "OpenGL=Unknown(-)";
    const std::string rtx =
        "#1 name=NVIDIA GeForce RTX 3080 | vendor=NVIDIA | type=NVIDIA | "
        "CUDA=Available(Driver 12040) | OpenCL=Available(OpenCL 3.0 CUDA 12.4.89) | ";
    EXPECT_EQ(reports[""], report("2", {card, rtx + "OpenGL=Unknown(-)"}, "Selected: (none)"));
    EXPECT_EQ(reports["selected"],
              report("2", {card, rtx + "OpenGL=Available(4.6.0 NVIDIA 550.54)"},
                     "Selected: #1 NVIDIA GeForce RTX 3080 | CUDA=Available(Driver 12040) "
                     "OpenCL=Available(OpenCL 3.0 CUDA 12.4.89) OpenGL=Available(4.6.0 NVIDIA 550.54)"));
}

TEST_F(EnvironmentReport, RefreshWritesNothingAndTheNextReportShowsTheNewList)
{
    FakeSysClass tree;
    tree.removeDrm();
    auto reports = runSteps(tree, stubs("count=0"),
                            {"instance", "setenv:QRV_STUB_CUDA=count=1;names=Tesla T4;driver=12040",
                             "mark:refresh", "refresh", "mark:report", "report"});
    EXPECT_EQ(reports[""], report("0", {}, "Selected: (none)"));
    EXPECT_EQ(reports["refresh"], Report{});
    EXPECT_EQ(reports["report"],
              report("1",
                     {"#0 name=Tesla T4 | vendor=NVIDIA | type=NVIDIA | CUDA=Available(Driver 12040) | "
                      "OpenCL=Unknown(-) | OpenGL=Unknown(-)"},
                     "Selected: (none)"));
}

TEST_F(EnvironmentReport, ProcessorFamilyWords)
{
    FakeSysClass tree;
    tree.removeDrm();
    const std::vector<std::pair<int, std::string>> words = {{0, "x86"},     {1, "x86_64"},  {2, "ARMv8"},
                                                            {3, "ARMv7/9"}, {4, "Unknown"}, {-1, "Unknown"}};
    std::vector<std::string> steps = {"instance"};
    for (const auto& [value, word] : words) {
        steps.push_back("cpu-type:" + std::to_string(value));
        steps.push_back("mark:" + std::to_string(value));
        steps.push_back("report");
    }
    auto reports = runSteps(tree, {}, steps);
    for (const auto& [value, word] : words) {
        const Report& lines = reports[std::to_string(value)];
        ASSERT_EQ(lines.size(), 6u) << value;
        EXPECT_EQ(lines[1], "\r\nCPU    : " + word) << value;
    }
}

TEST(EnvironmentFirstUse, ConcurrentFirstCallsWaitForTheOneDetection)
{
    // cuInit takes long enough for every other caller to arrive during detection.
    const qrvtest::ProcessResult result = qrvtest::runProcess(
        {ENV_SCENARIO, "threads"}, qrvtest::runtimeOptions(stubs("delay-ms=300;count=0")));
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST_F(EnvironmentDetection, WalkErrorReachesOneFirstCallerAndReleasesTheOthers)
{
    FakeSysClass tree;
    tree.addLoopingCard("card0");
    const qrvtest::ProcessResult result =
        tree.run({ENV_SCENARIO, "threads", "throws"}, qrvtest::runtimeOptions(stubs("delay-ms=300;count=0")));
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

// A CUDA driver whose cuInit never returns holds the first Instance() for
// good: Refresh keeps the GPU list's lock while it waits in the driver.
TEST(EnvironmentFirstUse, HangingCuInitHoldsTheFirstInstance)
{
    qrvtest::ProcessOptions options = qrvtest::runtimeOptions(stubs("init=hang"));
    options.timeout = std::chrono::seconds(2);
    const qrvtest::ProcessResult result = qrvtest::runProcess({ENV_SCENARIO, "hang"}, options);
    EXPECT_TRUE(result.timedOut) << "exit " << result.exitCode << ": " << result.err;
    EXPECT_EQ(result.signal, SIGKILL);
    EXPECT_EQ(result.out, "calling Instance\n");
    EXPECT_NE(result.err.find("cuInit: hanging"), std::string::npos) << result.err;
}
