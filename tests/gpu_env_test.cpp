#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "CIpmGpuEnv.h"
#include "FakeSysClass.h"
#include "GpuRecords.h"
#include "LogCapture.h"
#include "Subprocess.h"

using ipm::CIpmGpuEnv;
using ipm::En_ApiState;
using ipm::En_GpuType;
using ipm::GpuInfo;
using qrvtest::FakeSysClass;
using qrvtest::gpuRecordLine;

namespace {

GpuInfo record(int index, const std::string& name, const std::string& vendor, En_GpuType type)
{
    GpuInfo gpu;
    gpu.index = index;
    gpu.name = name;
    gpu.vendor = vendor;
    gpu.type = type;
    return gpu;
}

GpuInfo withCuda(GpuInfo gpu, En_ApiState state, const std::string& version, int cudaIndex)
{
    gpu.cudaState = state;
    gpu.cudaVersion = version;
    gpu.cudaIndex = cudaIndex;
    return gpu;
}

GpuInfo withOpenCL(GpuInfo gpu, const std::string& version, int platform, int device)
{
    gpu.openCLState = En_ApiState::Available;
    gpu.openCLVersion = version;
    gpu.openCLPlatform = platform;
    gpu.openCLDevice = device;
    return gpu;
}

std::vector<std::string> lines(const std::vector<GpuInfo>& gpus)
{
    std::vector<std::string> out;
    for (const GpuInfo& gpu : gpus) out.push_back(gpuRecordLine(gpu));
    return out;
}

const GpuInfo kFresh;

}  // namespace

TEST(GpuList, EmptyListGivesFreshRecordsAndNoSelection)
{
    CIpmGpuEnv gpu;
    EXPECT_EQ(gpu.getGpuCount(), 0u);
    EXPECT_EQ(gpuRecordLine(kFresh), "GPU\t-1\t\t\t0\t0\t0\t0\t\t\t\t-1\t-1\t-1");
    EXPECT_EQ(gpuRecordLine(gpu.getGpu(0)), gpuRecordLine(kFresh));
    EXPECT_EQ(gpuRecordLine(gpu.getSelected()), gpuRecordLine(kFresh));
    EXPECT_EQ(gpu.getSelectedIndex(), -1);
    EXPECT_FALSE(gpu.selectByNameSubstring("", false));
    EXPECT_FALSE(gpu.selectByNameSubstring("", true));
    EXPECT_FALSE(gpu.selectByCudaIndex(-1));
    EXPECT_FALSE(gpu.selectByOpenCL(-1, -1));
    gpu.setSelectedOpenGLVersion("4.6");
    EXPECT_EQ(gpu.getSelectedOpenGLVersion(), "");
    EXPECT_EQ(gpu.selectedCudaState(), En_ApiState::Unknown);
    EXPECT_EQ(gpu.selectedOpenCLState(), En_ApiState::Unknown);
    EXPECT_EQ(gpu.selectedOpenGLState(), En_ApiState::Unknown);

    gpu.addOrMergeByKey("Arc A770", "Intel", En_GpuType::Internal);
    for (size_t outside : {size_t(1), size_t(2), SIZE_MAX}) {
        EXPECT_EQ(gpuRecordLine(gpu.getGpu(outside)), gpuRecordLine(kFresh)) << outside;
    }
}

TEST(GpuList, MergeJoinsOneVendorWhenOneScrubbedNameContainsTheOther)
{
    using T = En_GpuType;
    struct Add {
        std::string name, vendor;
        T type;
        int position;  // what addOrMergeByKey returns
    };
    struct Case {
        const char* rule;
        std::vector<Add> adds;
        std::vector<GpuInfo> list;
    };
    const Case cases[] = {
        {"case, spaces and brackets do not count",
         {{"NVIDIA GeForce RTX 3080", "NVIDIA", T::NVIDIA, 0},
          {"nvidia geforce (RTX) 3080", "nvidia corp", T::NVIDIA, 0},
          {"{NVIDIA}[GeForce]RTX3080", "NVIDIA", T::NVIDIA, 0}},
         {record(0, "NVIDIA GeForce RTX 3080", "NVIDIA", T::NVIDIA)}},
        {"one name containing the other, either way round",
         {{"NVIDIA GeForce RTX 3080", "NVIDIA", T::NVIDIA, 0},
          {"NVIDIA GeForce RTX 3080 Ti", "NVIDIA", T::NVIDIA, 0},
          {"GeForce RTX", "NVIDIA Corporation", T::NVIDIA, 0},
          {"Tesla T4", "NVIDIA", T::NVIDIA, 1},
          {"Tesla T4", "NVIDIA", T::NVIDIA, 1}},
         {record(0, "NVIDIA GeForce RTX 3080", "NVIDIA", T::NVIDIA),
          record(1, "Tesla T4", "NVIDIA", T::NVIDIA)}},
        {"other vendors never merge",
         {{"Radeon Graphics", "AMD", T::Internal, 0},
          {"Radeon Graphics", "Intel", T::Internal, 1},
          {"Radeon Graphics", "Acme", T::None, 2}},
         {record(0, "Radeon Graphics", "AMD", T::Internal),
          record(1, "Radeon Graphics", "Intel", T::Internal),
          record(2, "Radeon Graphics", "Unknown", T::None)}},
        {"vendor texts are stored in canonical form, the first rule winning",
         {{"a", "Advanced Micro Devices, Inc.", T::Internal, 0},
          {"b", "GenuineIntel", T::Internal, 1},
          {"c", "NVIDIA and Intel", T::NVIDIA, 2},
          {"d", "", T::None, 3},
          {"e", "AuthenticAMD", T::Internal, 4},
          {"f", "INTEL", T::Internal, 5}},
         {record(0, "a", "AMD", T::Internal), record(1, "b", "Intel", T::Internal),
          record(2, "c", "NVIDIA", T::NVIDIA), record(3, "d", "Unknown", T::None),
          record(4, "e", "AMD", T::Internal), record(5, "f", "Intel", T::Internal)}},
        {"hyphens, underscores and tabs count",
         {{"card0-HDMI", "Intel", T::Internal, 0},
          {"card0 HDMI", "Intel", T::Internal, 1},
          {"GPU\t1", "AMD", T::Internal, 2},
          {"GPU 1", "AMD", T::Internal, 3},
          {"GPU_1", "AMD", T::Internal, 4}},
         {record(0, "card0-HDMI", "Intel", T::Internal), record(1, "card0 HDMI", "Intel", T::Internal),
          record(2, "GPU\t1", "AMD", T::Internal), record(3, "GPU 1", "AMD", T::Internal),
          record(4, "GPU_1", "AMD", T::Internal)}},
        {"card1 and card10 meet",
         {{"card1", "Unknown", T::None, 0}, {"card10", "Unknown", T::None, 0}},
         {record(0, "card1", "Unknown", T::None)}},
        {"a merge gives a type only to a record without one",
         {{"card0", "Unknown", T::None, 0}, {"card0", "", T::NVIDIA, 0}, {"card0", "Acme", T::Internal, 0}},
         {record(0, "card0", "Unknown", T::NVIDIA)}},
        {"an empty scrubbed name joins the first record of its vendor",
         {{"Arc A770", "Intel", T::Internal, 0},
          {"RTX 3080", "NVIDIA", T::NVIDIA, 1},
          {"RTX 4090", "NVIDIA", T::NVIDIA, 2},
          {"", "NVIDIA", T::NVIDIA, 1},
          {" ( ) ", "Intel", T::Internal, 0},
          {"", "AMD", T::Internal, 3}},
         {record(0, "Arc A770", "Intel", T::Internal), record(1, "RTX 3080", "NVIDIA", T::NVIDIA),
          record(2, "RTX 4090", "NVIDIA", T::NVIDIA), record(3, "", "AMD", T::Internal)}},
        {"the first matching record wins",
         {{"RTX 3080 Ti", "NVIDIA", T::NVIDIA, 0},
          {"RTX 2080", "NVIDIA", T::NVIDIA, 1},
          {"RTX", "NVIDIA", T::NVIDIA, 0},
          {"RTX 2080 SUPER", "NVIDIA", T::NVIDIA, 1}},
         {record(0, "RTX 3080 Ti", "NVIDIA", T::NVIDIA), record(1, "RTX 2080", "NVIDIA", T::NVIDIA)}},
        {"only ASCII letters fold",
         {{"\xC3\x84GPU", "Intel", T::Internal, 0}, {"\xC3\xA4gpu", "Intel", T::Internal, 1}},
         {record(0, "\xC3\x84GPU", "Intel", T::Internal), record(1, "\xC3\xA4gpu", "Intel", T::Internal)}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rule);
        CIpmGpuEnv gpu;
        for (const Add& add : c.adds) {
            EXPECT_EQ(gpu.addOrMergeByKey(add.name, add.vendor, add.type), add.position)
                << "adding '" << add.name << "' of '" << add.vendor << "'";
        }
        EXPECT_EQ(qrvtest::gpuListLines(gpu), lines(c.list));
    }
}

TEST(GpuList, SelectionByNameVendorAndOrdinalsKeepsTheLastSuccess)
{
    CIpmGpuEnv gpu;
    gpu.addOrMergeByKey("card0 (i915)", "Intel", En_GpuType::Internal);
    gpu.addOrMergeByKey("card1 (nvidia)", "NVIDIA", En_GpuType::NVIDIA);
    gpu.addOrMergeByKey("Radeon RX 6600", "AMD", En_GpuType::Internal);
    struct Step {
        const char* what;
        bool (*select)(CIpmGpuEnv&);
        bool result;
        int selected;
    };
    const Step steps[] = {
        {"a vendor that no name contains",
         [](CIpmGpuEnv& g) { return g.selectByNameSubstring("intel", false); }, true, 0},
        {"case of ASCII letters ignored",
         [](CIpmGpuEnv& g) { return g.selectByNameSubstring("RADEON", false); }, true, 2},
        {"no match keeps the selection",
         [](CIpmGpuEnv& g) { return g.selectByNameSubstring("geforce", false); }, false, 2},
        {"a name fragment", [](CIpmGpuEnv& g) { return g.selectByNameSubstring("(nvidia", false); }, true, 1},
        {"the first of several matches", [](CIpmGpuEnv& g) { return g.selectByNameSubstring("card", false); },
         true, 0},
        {"an empty text matches every record",
         [](CIpmGpuEnv& g) { return g.selectByNameSubstring("", false); }, true, 0},
        {"preferring CUDA without a CUDA record",
         [](CIpmGpuEnv& g) { return g.selectByNameSubstring("x", true); }, true, 2},
        {"CUDA ordinal -1 is every record CUDA did not report",
         [](CIpmGpuEnv& g) { return g.selectByCudaIndex(-1); }, true, 0},
        {"no CUDA ordinal 0", [](CIpmGpuEnv& g) { return g.selectByCudaIndex(0); }, false, 0},
        {"OpenCL -1/-1 is every record OpenCL did not report",
         [](CIpmGpuEnv& g) {
             g.clearSelection();
             return g.selectByOpenCL(-1, -1);
         },
         true, 0},
        {"no OpenCL 0/0", [](CIpmGpuEnv& g) { return g.selectByOpenCL(0, 0); }, false, 0},
        {"clear",
         [](CIpmGpuEnv& g) {
             g.clearSelection();
             return true;
         },
         true, -1},
    };
    for (const Step& step : steps) {
        EXPECT_EQ(step.select(gpu), step.result) << step.what;
        EXPECT_EQ(gpu.getSelectedIndex(), step.selected) << step.what;
        EXPECT_EQ(gpu.getSelected().index, step.selected) << step.what;
        if (step.selected >= 0) {
            EXPECT_EQ(gpuRecordLine(gpu.getSelected()), gpuRecordLine(gpu.getGpu(step.selected)))
                << step.what;
        }
    }
}

TEST(GpuList, OpenGLVersionBelongsToTheSelectedRecord)
{
    CIpmGpuEnv gpu;
    gpu.addOrMergeByKey("card0 (i915)", "Intel", En_GpuType::Internal);
    gpu.addOrMergeByKey("card1 (nvidia)", "NVIDIA", En_GpuType::NVIDIA);
    ASSERT_TRUE(gpu.selectByNameSubstring("nvidia", false));

    gpu.setSelectedOpenGLVersion("4.6");
    EXPECT_EQ(gpu.selectedOpenGLState(), En_ApiState::Available);
    EXPECT_EQ(gpu.getSelectedOpenGLVersion(), "4.6");
    EXPECT_EQ(gpu.getGpu(1).openGLVersion, "4.6");
    EXPECT_EQ(gpu.getGpu(1).openGLState, En_ApiState::Available);
    EXPECT_EQ(gpu.getGpu(0).openGLState, En_ApiState::Unknown);

    gpu.setSelectedOpenGLVersion("");
    EXPECT_EQ(gpu.selectedOpenGLState(), En_ApiState::Unknown);
    EXPECT_EQ(gpu.getSelectedOpenGLVersion(), "");

    gpu.setSelectedOpenGLVersion("3.3");
    gpu.clearSelection();
    const std::vector<std::string> before = qrvtest::gpuListLines(gpu);
    gpu.setSelectedOpenGLVersion("4.1");
    EXPECT_EQ(qrvtest::gpuListLines(gpu), before) << "without a selection nothing changes";
    EXPECT_EQ(gpu.getSelectedOpenGLVersion(), "");
    EXPECT_EQ(gpu.selectedOpenGLState(), En_ApiState::Unknown);
    ASSERT_TRUE(gpu.selectByCudaIndex(-1));
    ASSERT_TRUE(gpu.selectByNameSubstring("nvidia", false));
    EXPECT_EQ(gpu.getSelectedOpenGLVersion(), "3.3") << "the record keeps its version";
}

namespace {

using Runtimes = qrvtest::StubRuntimes;

struct Refreshed {
    std::string status;  // the REFRESH line's fields
    std::vector<GpuInfo> gpus;
    std::vector<std::vector<std::string>> commands;  // the CMD lines' fields
    qrvtest::ProcessResult process;
};

Refreshed refreshUnder(const FakeSysClass& tree, const Runtimes& runtimes,
                       std::vector<std::string> commands = {})
{
    commands.insert(commands.begin(), {GPU_ENV_SCENARIO, "refresh"});
    Refreshed refreshed;
    refreshed.process = tree.run(commands, qrvtest::runtimeOptions(runtimes));
    EXPECT_EQ(refreshed.process.exitCode, 0) << refreshed.process.err;
    std::istringstream stream(refreshed.process.out);
    for (std::string line; std::getline(stream, line);) {
        if (line.compare(0, 8, "REFRESH\t") == 0 && refreshed.status.empty())
            refreshed.status = line.substr(8);
        if (line.compare(0, 4, "CMD\t") == 0)
            refreshed.commands.push_back(qrvtest::splitFields(line.substr(4)));
    }
    refreshed.gpus = qrvtest::parseGpuRecords(refreshed.process.out);
    return refreshed;
}

// The list as sorted lines. The first displayCount records come from the
// directory walk, whose order is the directory's: they show index -1.
std::vector<std::string> canonical(std::vector<GpuInfo> gpus, size_t displayCount)
{
    std::vector<std::string> out;
    for (size_t i = 0; i < gpus.size(); ++i) {
        EXPECT_EQ(gpus[i].index, static_cast<int>(i)) << "the index is the position";
        if (i < displayCount) gpus[i].index = -1;
        out.push_back(gpuRecordLine(gpus[i]));
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<std::string> sorted(std::vector<GpuInfo> gpus)
{
    std::vector<std::string> out = lines(gpus);
    std::sort(out.begin(), out.end());
    return out;
}

class GpuDiscovery : public qrvtest::MountNamespaceTest {};

// Three display devices: an Intel card, an NVIDIA card and one whose device
// has neither vendor nor uevent file.
void addDisplayDevices(FakeSysClass& tree)
{
    tree.addPciDevice("0000:00:02.0", "0x8086\n", "DRIVER=i915\nPCI_CLASS=30000\n");
    tree.addCard("card0", "0000:00:02.0");
    tree.addPciDevice("0000:01:00.0", "0x10de\n", "DRIVER=nvidia\nPCI_ID=10DE:2206\n");
    tree.addCard("card1", "0000:01:00.0");
    tree.addPciDevice("0000:03:00.0", nullptr, nullptr);
    tree.addCard("card2", "0000:03:00.0");
}

const GpuInfo kIntelCard = record(-1, "card0 (i915)", "Intel", En_GpuType::Internal);
const GpuInfo kNvidiaCard = record(-1, "card1 (nvidia)", "NVIDIA", En_GpuType::NVIDIA);
const GpuInfo kUnknownCard = record(-1, "card2", "Unknown", En_GpuType::None);

}  // namespace

TEST_F(GpuDiscovery, DisplayDevicesFollowTheVendorTableAndTheFirstDriverLine)
{
    FakeSysClass tree;
    tree.addPciDevice("0000:00:02.0", "0x8086\n", "DRIVER=i915\nPCI_CLASS=30000\n");
    tree.addCard("card0", "0000:00:02.0");
    tree.addCard("renderD128", "0000:00:02.0");
    tree.addConnector("card0-HDMI-A-1", "card0", "0000:00:02.0");
    tree.addPciDevice("0000:01:00.0", "0x10de\n",
                      "PCI_ID=10DE:2206\nXDRIVER=wrong\n DRIVER=indented\nDRIVER=nvidia\nDRIVER=second\n");
    tree.addCard("card1", "0000:01:00.0");
    tree.addPciDevice("0000:02:00.0", "0x1002", "DRIVER=amdgpu");
    tree.addCard("card2", "0000:02:00.0");
    tree.addPciDevice("0000:03:00.0", "0x1022\n0x10de\n", "DRIVER=\n");
    tree.addCard("card3", "0000:03:00.0");
    tree.addPciDevice("0000:04:00.0", "0x10DE\n", "MODALIAS=pci:DRIVER=x\n");
    tree.addCard("card4", "0000:04:00.0");
    tree.addPciDevice("0000:05:00.0", nullptr, nullptr);
    tree.addCard("card5", "0000:05:00.0");
    tree.addPciDevice("0000:06:00.0", "", "DRIVER=virtio-pci\n");
    tree.addCard("card6", "0000:06:00.0");
    tree.addCard("card7", "");
    tree.addCard("Card8", "0000:02:00.0");
    tree.addDrmFile("version", "drm 1.1.0 20060810\n");

    const Refreshed refreshed = refreshUnder(tree, {});
    EXPECT_EQ(refreshed.status, "ok");
    using T = En_GpuType;
    EXPECT_EQ(
        canonical(refreshed.gpus, refreshed.gpus.size()),
        sorted({record(-1, "card0 (i915)", "Intel", T::Internal),
                record(-1, "card0-HDMI-A-1", "Unknown", T::None),
                record(-1, "card1 (nvidia)", "NVIDIA", T::NVIDIA),
                record(-1, "card2 (amdgpu)", "AMD", T::Internal), record(-1, "card3 ()", "AMD", T::Internal),
                record(-1, "card4", "Unknown", T::None), record(-1, "card5", "Unknown", T::None),
                record(-1, "card6 (virtio-pci)", "Unknown", T::None)}));
}

TEST_F(GpuDiscovery, DisplayDevicesOfOneVendorWithContainedLabelsMeet)
{
    FakeSysClass tree;
    tree.addPciDevice("0000:00:02.0", "0x8086\n", "DRIVER=i915\n");
    tree.addCard("card0", "0000:00:02.0");
    tree.addPciDevice("0000:00:03.0", "0x8086\n", nullptr);
    tree.addCard("card0 (i915)", "0000:00:03.0");
    tree.addPciDevice("0000:01:00.0", "0x8086\n", "");
    tree.addCard("card1", "0000:01:00.0");
    tree.addCard("card10", "0000:01:00.0");

    const std::vector<std::string> order = tree.drmOrder();
    const std::string firstOfCard1 = *std::find_if(
        order.begin(), order.end(), [](const std::string& n) { return n == "card1" || n == "card10"; });
    const Refreshed refreshed = refreshUnder(tree, {});
    EXPECT_EQ(canonical(refreshed.gpus, refreshed.gpus.size()),
              sorted({record(-1, "card0 (i915)", "Intel", En_GpuType::Internal),
                      record(-1, firstOfCard1, "Intel", En_GpuType::Internal)}));
}

TEST_F(GpuDiscovery, WithoutDrmDirectoryTheWalkAddsNothingAndTheProbesRun)
{
    FakeSysClass tree;
    tree.removeDrm();
    Runtimes runtimes;
    runtimes.cudaDir = CUDA_STUB_DIR;
    runtimes.cuda = "count=1;names=Tesla T4;driver=12040";
    const Refreshed refreshed = refreshUnder(tree, runtimes);
    EXPECT_EQ(refreshed.status, "ok");
    EXPECT_EQ(lines(refreshed.gpus), lines({withCuda(record(0, "Tesla T4", "NVIDIA", En_GpuType::NVIDIA),
                                                     En_ApiState::Available, "Driver 12040", 0)}));
}

TEST_F(GpuDiscovery, WalkErrorLeavesRefreshUnlockedWithTheRecordsSoFar)
{
    FakeSysClass tree;
    addDisplayDevices(tree);
    // A "device" link that points at itself makes its status fail with ELOOP.
    // The link is renamed until the directory yields it after a good card.
    tree.addLoopingCard("card3");
    std::string looping = "card3";
    for (int attempt = 4; attempt < 64 && tree.drmOrder().front() == looping; ++attempt) {
        const std::string next = "card" + std::to_string(attempt);
        std::filesystem::rename(tree.root() + "/drm/" + looping, tree.root() + "/drm/" + next);
        looping = next;
    }
    const std::vector<std::string> order = tree.drmOrder();
    ASSERT_NE(order.front(), looping) << "no name puts the looping entry after a good one";

    std::vector<GpuInfo> before;
    for (const std::string& entry : order) {
        if (entry == looping) break;
        const GpuInfo& card = entry == "card0" ? kIntelCard : entry == "card1" ? kNvidiaCard : kUnknownCard;
        before.push_back(card);
        before.back().index = static_cast<int>(before.size()) - 1;
    }
    Runtimes runtimes;
    runtimes.cudaDir = CUDA_STUB_DIR;
    runtimes.cuda = "count=1;names=Tesla T4";
    const Refreshed refreshed = refreshUnder(tree, runtimes, {"name::0"});
    EXPECT_EQ(refreshed.status,
              "filesystem_error\t" + std::to_string(ELOOP) + "\t/sys/class/drm/" + looping + "/device");
    EXPECT_EQ(lines(refreshed.gpus), lines(before)) << "kept what came before; the CUDA probe did not run";
    ASSERT_EQ(refreshed.commands.size(), 1u) << "the list's lock was released";
    EXPECT_EQ(refreshed.commands[0][1], "true");
    EXPECT_EQ(refreshed.commands[0][2], "0");
}

namespace {

struct ProbeCase {
    const char* what;
    Runtimes runtimes;
    std::vector<GpuInfo> list;  // display records with index -1
};

void expectProbes(const std::vector<ProbeCase>& cases)
{
    FakeSysClass tree;
    addDisplayDevices(tree);
    for (const ProbeCase& c : cases) {
        SCOPED_TRACE(c.what);
        const Refreshed refreshed = refreshUnder(tree, c.runtimes);
        EXPECT_EQ(refreshed.status, "ok");
        EXPECT_EQ(canonical(refreshed.gpus, 3), sorted(c.list));
    }
}

Runtimes cuda(const std::string& script, const char* directory = CUDA_STUB_DIR)
{
    Runtimes runtimes;
    runtimes.cudaDir = directory;
    runtimes.cuda = script;
    return runtimes;
}

Runtimes openCL(const std::string& script, const char* directory = OPENCL_STUB_DIR)
{
    Runtimes runtimes;
    runtimes.openCLDir = directory;
    runtimes.openCL = script;
    return runtimes;
}

}  // namespace

TEST_F(GpuDiscovery, CudaProbeMarksAndAppendsWhatTheDriverReports)
{
    using S = En_ApiState;
    const GpuInfo rtx = record(3, "NVIDIA GeForce RTX 3080", "NVIDIA", En_GpuType::NVIDIA);
    Runtimes both = cuda("count=1;names=NVIDIA GeForce RTX 3080;driver=12040");
    both.openCLDir = OPENCL_STUB_DIR;
    both.openCL = "OpenCL 3.0 CUDA 12.4.89|NVIDIA GeForce RTX 3080@NVIDIA Corporation";
    expectProbes({
        {"without the driver every state stays Unknown", {}, {kIntelCard, kNvidiaCard, kUnknownCard}},
        {"a driver without cuDeviceGetName is not used",
         cuda("count=1;names=Tesla T4", CUDA_STUB_WITHOUT_NAME_DIR),
         {kIntelCard, kNvidiaCard, kUnknownCard}},
        {"a failing cuInit changes nothing",
         cuda("init=100;count=1;names=Tesla T4"),
         {kIntelCard, kNvidiaCard, kUnknownCard}},
        {"no devices: NVIDIA records are NotAvailable",
         cuda("count=0;driver=12040"),
         {kIntelCard, withCuda(kNvidiaCard, S::NotAvailable, "Driver 12040", -1), kUnknownCard}},
        {"a failing version query gives Driver 0",
         cuda("count=0;driver=fail"),
         {kIntelCard, withCuda(kNvidiaCard, S::NotAvailable, "Driver 0", -1), kUnknownCard}},
        {"a device appends its own record beside the display card",
         cuda("count=1;names=NVIDIA GeForce RTX 3080;driver=12040"),
         {kIntelCard, kNvidiaCard, kUnknownCard, withCuda(rtx, S::Available, "Driver 12040", 0)}},
        {"two devices of one name make one record with the later ordinal",
         cuda("count=2;names=Tesla T4|Tesla T4"),
         {kIntelCard, kNvidiaCard, kUnknownCard,
          withCuda(record(3, "Tesla T4", "NVIDIA", En_GpuType::NVIDIA), S::Available, "Driver 12000", 1)}},
        {"a failing cuDeviceGet skips its ordinal",
         cuda("count=3;names=GPU A|GPU B|GPU C;get-fails=1"),
         {kIntelCard, kNvidiaCard, kUnknownCard,
          withCuda(record(3, "GPU A", "NVIDIA", En_GpuType::NVIDIA), S::Available, "Driver 12000", 0),
          withCuda(record(4, "GPU C", "NVIDIA", En_GpuType::NVIDIA), S::Available, "Driver 12000", 2)}},
        {"an empty name joins the first NVIDIA record",
         cuda("count=1;names="),
         {kIntelCard, withCuda(kNvidiaCard, S::Available, "Driver 12000", 0), kUnknownCard}},
        {"a name is cut to the 256-byte buffer",
         cuda("count=1;names=" + std::string(300, 'x')),
         {kIntelCard, kNvidiaCard, kUnknownCard,
          withCuda(record(3, std::string(255, 'x'), "NVIDIA", En_GpuType::NVIDIA), S::Available,
                   "Driver 12000", 0)}},
        {"OpenCL merges into the CUDA record of the same name",
         both,
         {kIntelCard, kNvidiaCard, kUnknownCard,
          withOpenCL(withCuda(rtx, S::Available, "Driver 12040", 0), "OpenCL 3.0 CUDA 12.4.89", 0, 0)}},
    });
}

TEST_F(GpuDiscovery, OpenCLProbeRecordsEveryDeviceOfEveryPlatform)
{
    const std::string arc = "Arc A770@Intel(R) Corporation";
    const std::string radeon = "Radeon RX 6600@Advanced Micro Devices, Inc.";
    const GpuInfo arcRecord = record(3, "Arc A770", "Intel", En_GpuType::Internal);
    expectProbes({
        {"a loader without clGetDeviceInfo is not used",
         openCL("OpenCL 3.0|" + arc, OPENCL_STUB_WITHOUT_INFO_DIR),
         {kIntelCard, kNvidiaCard, kUnknownCard}},
        {"a failing platform query changes nothing",
         openCL("!platforms;OpenCL 3.0|" + arc),
         {kIntelCard, kNvidiaCard, kUnknownCard}},
        {"platforms whose device query fails or that have no device are skipped",
         openCL("!OpenCL 1.2 Bad|" + arc + ";OpenCL 1.0 Empty;OpenCL 3.0 Good|" + radeon),
         {kIntelCard, kNvidiaCard, kUnknownCard,
          withOpenCL(record(3, "Radeon RX 6600", "AMD", En_GpuType::Internal), "OpenCL 3.0 Good", 2, 0)}},
        {"a device on two platforms keeps the later platform",
         openCL("OpenCL 1.2 A|" + arc + ";OpenCL 3.0 B|" + radeon + "|" + arc),
         {kIntelCard, kNvidiaCard, kUnknownCard, withOpenCL(arcRecord, "OpenCL 3.0 B", 1, 1),
          withOpenCL(record(4, "Radeon RX 6600", "AMD", En_GpuType::Internal), "OpenCL 3.0 B", 1, 0)}},
        {"a CPU device of GenuineIntel is an Intel record",
         openCL("OpenCL 3.0 PoCL|cpu:pthread-cpu@GenuineIntel"),
         {kIntelCard, kNvidiaCard, kUnknownCard,
          withOpenCL(record(3, "pthread-cpu", "Intel", En_GpuType::Internal), "OpenCL 3.0 PoCL", 0, 0)}},
        {"an empty name and vendor join the first Unknown record",
         openCL("OpenCL 2.0 E|@"),
         {kIntelCard, kNvidiaCard, withOpenCL(kUnknownCard, "OpenCL 2.0 E", 0, 0)}},
    });
}

TEST_F(GpuDiscovery, SelectionFollowsTheProbedStatesAndEndsWithRefresh)
{
    FakeSysClass tree;
    addDisplayDevices(tree);
    Runtimes runtimes = cuda("count=1;names=NVIDIA GeForce RTX 3080;driver=12040");
    runtimes.openCLDir = OPENCL_STUB_DIR;
    runtimes.openCL = "OpenCL 3.0 X|NVIDIA GeForce RTX 3080@NVIDIA Corporation|cpu:pthread-cpu@GenuineIntel";
    const Refreshed refreshed = refreshUnder(
        tree, runtimes,
        {"name:NVIDIA:0", "name:nvidia:1", "gl:4.6.0 NVIDIA 550.54", "name:radeon:1", "cuda:1", "opencl:0:1",
         "opencl:1:0", "cuda:-1", "name::1", "name:geforce:0", "refresh", "gl:3.3"});
    ASSERT_EQ(refreshed.gpus.size(), 10u) << "the list twice, before and after the last refresh";
    int nvidiaCard = -1;
    for (const GpuInfo& gpu : refreshed.gpus) {
        if (gpu.name == "card1 (nvidia)") nvidiaCard = gpu.index;
    }
    const std::string card = std::to_string(nvidiaCard);
    // result, selected index, CUDA, OpenCL and OpenGL states, OpenGL version
    const std::vector<std::vector<std::string>> expected = {
        {"name:NVIDIA:0", "true", card, "0", "0", "0", ""},
        {"name:nvidia:1", "true", "3", "1", "1", "0", ""},
        {"gl:4.6.0 NVIDIA 550.54", "-", "3", "1", "1", "1", "4.6.0 NVIDIA 550.54"},
        {"name:radeon:1", "false", "3", "1", "1", "1", "4.6.0 NVIDIA 550.54"},
        {"cuda:1", "false", "3", "1", "1", "1", "4.6.0 NVIDIA 550.54"},
        {"opencl:0:1", "true", "4", "0", "1", "0", ""},
        {"opencl:1:0", "false", "4", "0", "1", "0", ""},
        {"cuda:-1", "true", "0", "0", "0", "0", ""},
        {"name::1", "true", "3", "1", "1", "1", "4.6.0 NVIDIA 550.54"},
        {"name:geforce:0", "true", "3", "1", "1", "1", "4.6.0 NVIDIA 550.54"},
        {"refresh", "-", "-1", "0", "0", "0", ""},
        {"gl:3.3", "-", "-1", "0", "0", "0", ""},
    };
    EXPECT_EQ(refreshed.commands, expected);
    EXPECT_EQ(refreshed.gpus[8].openGLState, En_ApiState::Unknown) << "the version went with the old list";
    EXPECT_EQ(refreshed.gpus[8].openGLVersion, "");
}

TEST_F(GpuDiscovery, GettersNeverSeeAListBeingRebuilt)
{
    FakeSysClass tree;
    addDisplayDevices(tree);
    Runtimes runtimes = cuda("count=2;names=Tesla T4|RTX 3080");
    runtimes.openCLDir = OPENCL_STUB_DIR;
    runtimes.openCL = "OpenCL 3.0|cpu:pthread-cpu@GenuineIntel";
    const qrvtest::ProcessResult result =
        tree.run({GPU_ENV_SCENARIO, "concurrent"}, qrvtest::runtimeOptions(runtimes));
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

#if defined(__x86_64__)

namespace {

std::string cpuVendorWord()
{
    std::ifstream cpuinfo("/proc/cpuinfo");
    for (std::string line; std::getline(cpuinfo, line);) {
        if (line.compare(0, 9, "vendor_id") != 0) continue;
        if (line.find("GenuineIntel") != std::string::npos) return "Intel";
        if (line.find("AuthenticAMD") != std::string::npos) return "AMD";
        return "Unknown";
    }
    return "Unknown";
}

}  // namespace

TEST_F(GpuDiscovery, PoclProcessorDeviceThroughTheRealLoader)
{
    const char* icd = "/etc/OpenCL/vendors/pocl.icd";
    if (!std::filesystem::exists(icd)) GTEST_SKIP() << "PoCL is not installed (pocl-opencl-icd)";
    FakeSysClass tree;
    qrvtest::ProcessOptions options;
    options.timeout = std::chrono::seconds(30);
    // The ICD loader keeps what it allocated for its vendors after the probe
    // has closed it, which LeakSanitizer would report as the loader's leak.
    const char* asanOptions = std::getenv("ASAN_OPTIONS");
    options.env = {{"OCL_ICD_VENDORS", icd},
                   {"ASAN_OPTIONS", std::string(asanOptions ? asanOptions : "") + ":detect_leaks=0"}};
    const qrvtest::ProcessResult result = tree.run({GPU_ENV_SCENARIO, "refresh"}, options);
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::vector<GpuInfo> gpus = qrvtest::parseGpuRecords(result.out);
    ASSERT_EQ(gpus.size(), 1u) << result.out;
    // PoCL names its processor device after the processor and takes its vendor text from /proc/cpuinfo.
    const GpuInfo& pocl = gpus[0];
    const std::string vendor = cpuVendorWord();
    EXPECT_FALSE(pocl.name.empty());
    EXPECT_EQ(pocl.vendor, vendor);
    EXPECT_EQ(pocl.type, vendor == "Unknown" ? En_GpuType::None : En_GpuType::Internal);
    EXPECT_EQ(pocl.openCLState, En_ApiState::Available);
    EXPECT_EQ(pocl.openCLVersion.compare(0, 7, "OpenCL "), 0) << pocl.openCLVersion;
    EXPECT_NE(pocl.openCLVersion.find("PoCL"), std::string::npos) << pocl.openCLVersion;
    EXPECT_EQ(pocl.openCLPlatform, 0);
    EXPECT_EQ(pocl.openCLDevice, 0);
    EXPECT_EQ(pocl.cudaState, En_ApiState::Unknown);
}

#endif
