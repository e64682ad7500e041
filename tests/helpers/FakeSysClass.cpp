#include "FakeSysClass.h"

#include <cstdlib>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace qrvtest {
namespace fs = std::filesystem;

namespace {

void writeFile(const fs::path& path, const std::string& content)
{
    std::ofstream file(path, std::ios::binary);
    file << content;
    if (!file) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace

FakeSysClass::FakeSysClass()
{
    std::string pattern = (fs::temp_directory_path() / "qrv-sysclass-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    root_ = pattern;
    fs::create_directories(fs::path(root_) / "drm");
}

FakeSysClass::~FakeSysClass()
{
    std::error_code ignored;
    fs::remove_all(root_, ignored);
}

void FakeSysClass::addPciDevice(const std::string& slot, const char* vendor, const char* uevent)
{
    const fs::path device = fs::path(root_) / "devices/pci0000:00" / slot;
    fs::create_directories(device);
    if (vendor != nullptr) writeFile(device / "vendor", vendor);
    if (uevent != nullptr) writeFile(device / "uevent", uevent);
}

std::string FakeSysClass::drmDirectory_(const std::string& slot, const std::string& entry) const
{
    return slot.empty() ? "devices/virtual/drm/" + entry : "devices/pci0000:00/" + slot + "/drm/" + entry;
}

void FakeSysClass::addCard(const std::string& entry, const std::string& slot)
{
    const std::string directory = drmDirectory_(slot, entry);
    fs::create_directories(fs::path(root_) / directory);
    writeFile(fs::path(root_) / directory / "uevent",
              "MAJOR=226\nDEVNAME=dri/" + entry + "\nDEVTYPE=drm_minor\n");
    if (!slot.empty()) fs::create_symlink("../../../" + slot, fs::path(root_) / directory / "device");
    fs::create_symlink("../" + directory, fs::path(root_) / "drm" / entry);
}

void FakeSysClass::addConnector(const std::string& entry, const std::string& card, const std::string& slot)
{
    const std::string directory = drmDirectory_(slot, card) + "/" + entry;
    fs::create_directories(fs::path(root_) / directory);
    writeFile(fs::path(root_) / directory / "uevent", "DEVTYPE=drm_connector\n");
    fs::create_symlink("../../" + card, fs::path(root_) / directory / "device");
    fs::create_symlink("../" + directory, fs::path(root_) / "drm" / entry);
}

void FakeSysClass::addLoopingCard(const std::string& entry)
{
    const std::string directory = drmDirectory_("", entry);
    fs::create_directories(fs::path(root_) / directory);
    fs::create_symlink("device", fs::path(root_) / directory / "device");
    fs::create_symlink("../" + directory, fs::path(root_) / "drm" / entry);
}

void FakeSysClass::addDrmFile(const std::string& name, const std::string& content)
{
    writeFile(fs::path(root_) / "drm" / name, content);
}

void FakeSysClass::removeDrm() { fs::remove_all(fs::path(root_) / "drm"); }

std::vector<std::string> FakeSysClass::drmOrder() const
{
    std::vector<std::string> names;
    DIR* directory = opendir((root_ + "/drm").c_str());
    if (directory == nullptr) return names;
    while (const dirent* entry = readdir(directory)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    closedir(directory);
    return names;
}

namespace {

std::vector<std::string> mountWrapper(const std::string& root)
{
    return {"unshare", "-m", "--", "sh", "-c", "mount --bind \"$0\" /sys/class && exec \"$@\"", root};
}

}  // namespace

ProcessResult FakeSysClass::run(const std::vector<std::string>& argv, ProcessOptions options) const
{
    options.wrapper = mountWrapper(root_);
    return runProcess(argv, options);
}

ProcessOptions runtimeOptions(const StubRuntimes& runtimes)
{
    std::string libraryPath;
    for (const char* directory : {runtimes.cudaDir, runtimes.openCLDir}) {
        if (directory != nullptr) libraryPath += std::string(directory) + ":";
    }
    if (const char* inherited = std::getenv("LD_LIBRARY_PATH")) libraryPath += inherited;
    ProcessOptions options;
    options.timeout = std::chrono::seconds(30);
    options.env = {{"LD_LIBRARY_PATH", libraryPath},
                   {"QRV_STUB_CUDA", runtimes.cuda},
                   {"QRV_STUB_OPENCL", runtimes.openCL},
                   {"OCL_ICD_VENDORS", "/nonexistent/qrv-no-opencl-vendors"}};
    return options;
}

std::string mountNamespaceUnavailable()
{
    static const std::string reason = [] {
        FakeSysClass tree;
        ProcessOptions options;
        options.useEmulator = false;
        options.wrapper = mountWrapper(tree.root());
        const ProcessResult result = runProcess({"test", "-d", "/sys/class/drm"}, options);
        if (result.exitCode == 0) return std::string();
        return "a child cannot bind-mount a tree over /sys/class in its own mount namespace "
               "(unshare -m and mount --bind need CAP_SYS_ADMIN): " +
               (result.err.empty() ? "exit code " + std::to_string(result.exitCode) : result.err);
    }();
    return reason;
}

}  // namespace qrvtest
