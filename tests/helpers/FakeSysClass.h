// A stand-in for /sys/class that child processes see in place of the real one.
//
// The tree is built in a temporary directory and shaped like sysfs: the
// entries of drm/ are symbolic links into a devices/ tree, a card's "device"
// link leads to the PCI device directory holding "vendor" and "uevent", and
// a connector's "device" link leads to its card. run() starts a child in a
// mount namespace of its own, where the tree is bind-mounted over /sys/class.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Subprocess.h"

namespace qrvtest {

class FakeSysClass {
public:
    FakeSysClass();  // with an empty drm directory
    ~FakeSysClass();
    FakeSysClass(const FakeSysClass&) = delete;
    FakeSysClass& operator=(const FakeSysClass&) = delete;

    // A PCI device directory; a null text leaves that file out.
    void addPciDevice(const std::string& slot, const char* vendor, const char* uevent);
    // drm/<entry>, whose "device" link leads to the PCI device at slot; an
    // empty slot gives a virtual device without a "device" link.
    void addCard(const std::string& entry, const std::string& slot);
    // drm/<entry> below card's directory, whose "device" link leads to the card.
    void addConnector(const std::string& entry, const std::string& card, const std::string& slot);
    // drm/<entry> whose "device" link points at itself.
    void addLoopingCard(const std::string& entry);
    void addDrmFile(const std::string& name, const std::string& content);
    // /sys/class without a drm directory.
    void removeDrm();

    // The drm entries in the order the directory yields them.
    std::vector<std::string> drmOrder() const;
    const std::string& root() const { return root_; }

    // Runs argv (through the emulator of a cross build) where this tree is /sys/class.
    ProcessResult run(const std::vector<std::string>& argv, ProcessOptions options = {}) const;

private:
    std::string drmDirectory_(const std::string& slot, const std::string& entry) const;

    std::string root_;
};

// The compute runtimes a child finds: the stub libraries in the given
// directories (null: none), with the scripts they read, and no vendor for the
// machine's own OpenCL loader.
struct StubRuntimes {
    const char* cudaDir = nullptr;
    std::string cuda;
    const char* openCLDir = nullptr;
    std::string openCL;
};
ProcessOptions runtimeOptions(const StubRuntimes& runtimes);

// Empty when a child can have a mount namespace with the tree bind-mounted;
// otherwise the reason why not.
std::string mountNamespaceUnavailable();

// Tests that run children under a FakeSysClass; skipped where that cannot be.
class MountNamespaceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const std::string reason = mountNamespaceUnavailable();
        if (!reason.empty()) GTEST_SKIP() << reason;
    }
};

}  // namespace qrvtest
