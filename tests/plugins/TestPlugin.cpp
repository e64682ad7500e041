// A user plug-in for the loader's tests. Its unregister entry point and its closing append to the file
// "trace" beside the host's directory, the closing with the number of its function objects still alive.
// The last word of QRV_TEST_PLUGIN_MODE chooses how register answers.
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "IpmUserCustom.h"

namespace {

int alive = 0;
AlgEntry* records = nullptr;

void trace(const std::string& event)
{
    std::ofstream(std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../trace", std::ios::app)
        << event << "\n";
}

// Counts its live copies; returns *user1, or value without user1, and throws for a value of 0.
struct Tracked {
    Tracked(int value) : value(value) { ++alive; }
    Tracked(const Tracked& other) : Tracked(other.value) {}
    ~Tracked() { --alive; }
    int operator()(const qrv_img::QRV_Image*, qrv_img::QRV_Image*, void* user1, void*) const
    {
        if (value == 0) throw std::runtime_error("plug-in function failed");
        return user1 != nullptr ? *static_cast<const int*>(user1) : value;
    }
    int value;
};

}  // namespace

#ifdef QRV_TEST_OTHER_ABI  // a plug-in built against another version of the interface
extern "C" IPM_USER_CUSTOM_EXPORT const IpmUserCustomInfo ipm_user_custom_info = {
    IPM_USER_CUSTOM_ABI_VERSION + 1, 0};
#endif

#ifndef QRV_TEST_UNREGISTER_ONLY  // else a library of the plug-in's name with unregister alone
__attribute__((destructor)) static void closing()
{
    trace("fini " + std::to_string(alive));
}

int ipm_user_custom_register(AlgEntry** out, int* count)
{
    static int registerCalls = 0;
    const std::string mode = std::strrchr(std::getenv("QRV_TEST_PLUGIN_MODE"), ' ') + 1;
    if (mode == "throw-once" && registerCalls++ == 0) throw std::runtime_error("register refused");
    records = new AlgEntry[5]{{7, Tracked(-7), L"7 echo"},
                              {8, Tracked(0), L"8 throw"},
                              {5, Tracked(51), L"5 first"},
                              {5, Tracked(52), L"5 second"},
                              {6, IpmFn(), L"6 empty"}};
    if (mode != "null-array") *out = records;  // leaves the null and the 0 the loader set
    if (mode != "zero-count") *count = mode == "negative-count" ? -1 : 5;
    return mode == "refuse-code" ? 3 : 0;
}
#endif

void ipm_user_custom_unregister()
{
    trace("unregister");
    delete[] records;
}
