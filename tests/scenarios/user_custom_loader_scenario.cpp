// A host whose first table use loads the user plug-in, run by the loader's
// tests from a copy placed where the plug-in search looks. Every log record
// goes to stdout, with the lines below:
//   ALG <index> <name>             the table's User_Custom list after the fill, by index
//   CALL <index> <user1> <result>  a dispatch under CPU_Serial / User_Custom ("-" for no user1)
//   CAUGHT <what>                  an exception that reached the host
//   VALUE <what> <number>          anything else the test checks
// At exit, after the library's own objects have gone, the trace gets
// "closed" when no plug-in library is mapped any more, "mapped" otherwise.
#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <link.h>
#include <stdexcept>
#include <string>
#include <thread>

#include "CIpmFuncTable.h"
#include "CIpmUserCustomLoader.h"
#include "LogCapture.h"
#include "PluginTrace.h"

using ipm_internal::UserCustomLoader;
using ipmcommon::CIpmFuncTable;
using ipmcommon::EnIpmModule;
using ipmcommon::EnProcessBackend;

namespace {

void print(const std::string& line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

void value(const char* what, long long number)
{
    print(std::string("VALUE\t") + what + "\t" + std::to_string(number));
}

int call(int index, void* user1)
{
    qrv_img::QRV_Image image(1, 1, qrv_img::En_ImageFormat::Gray8, true, 1);
    return CIpmFuncTable::Instance()->process(EnProcessBackend::CPU_Serial, EnIpmModule::User_Custom, index,
                                              &image, &image, user1, nullptr);
}

// A dispatch of the entry at index, with user1 pointing to a copy of user1Value when there is one.
void printCall(int index, const int* user1Value)
{
    int user1 = user1Value != nullptr ? *user1Value : 0;
    const int code = call(index, user1Value != nullptr ? &user1 : nullptr);
    print("CALL\t" + std::to_string(index) + "\t" + (user1Value != nullptr ? std::to_string(user1) : "-") +
          "\t" + std::to_string(code));
}

void printList()
{
    auto list =
        CIpmFuncTable::Instance()->getAlgorithmList(EnProcessBackend::CPU_Serial, EnIpmModule::User_Custom);
    std::sort(list.begin(), list.end());
    for (const auto& [index, name] : list)
        print("ALG\t" + std::to_string(index) + "\t" + qrvtest::utf8(name));
}

void reportPluginMapping()
{
    bool mapped = false;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* found) {
            const char* name = std::strrchr(info->dlpi_name, '/');
            name = name != nullptr ? name + 1 : info->dlpi_name;
            if (std::strcmp(name, "libCIpmUserCustom.so") == 0) *static_cast<bool*>(found) = true;
            return 0;
        },
        &mapped);
    appendPluginTrace(mapped ? "mapped" : "closed");
}

int dispatch()
{
    printList();
    for (const int user1 : {INT_MIN, -1, 0, 1, 6, 9, 12345678, INT_MAX}) printCall(7, &user1);
    for (const int index : {7, 8, 5, 6}) printCall(index, nullptr);
    return 0;
}

int registerThrows()
{
    try {
        CIpmFuncTable::Instance();
    } catch (const std::exception& error) {
        print(std::string("CAUGHT\t") + error.what());
    }
    printList();
    printCall(5, nullptr);
    return 0;
}

int unload()
{
    CIpmFuncTable::Instance();
    UserCustomLoader& loader = UserCustomLoader::instance();
    value("loadOnce again", loader.loadOnce());
    loader.unload();
    value("entries after unload", static_cast<long long>(loader.entries().size()));
    value("loadOnce after unload", loader.loadOnce());
    printCall(5, nullptr);
    printCall(7, nullptr);
    printList();
    return 0;
}

int unloadWaits()
{
    CIpmFuncTable::Instance();
    std::atomic<int> handshake{0};
    int during = 0;
    std::thread caller([&] { during = call(10, &handshake); });
    while (handshake != 1) std::this_thread::yield();
    appendPluginTrace("unload-start");
    handshake = 2;
    UserCustomLoader::instance().unload();
    appendPluginTrace("unload-end");
    caller.join();
    value("call during unload", during);
    printCall(7, nullptr);
    return 0;
}

int exitInCall()
{
    CIpmFuncTable::Instance();
    printCall(9, nullptr);
    print("the plug-in function returned");
    return 3;
}

}  // namespace

int main(int argc, char** argv)
{
    // Registered before the library's objects exist, so it runs after they
    // have been destroyed.
    std::atexit(reportPluginMapping);
    qrvtest::printRecordsToStdout();
    const std::string name = argc > 1 ? argv[1] : "";
    if (name == "load") {
        printList();
        return 0;
    }
    if (name == "dispatch") return dispatch();
    if (name == "register-throws") return registerThrows();
    if (name == "unload") return unload();
    if (name == "unload-waits") return unloadWaits();
    if (name == "exit-in-call") return exitInCall();
    std::fprintf(stderr, "unknown scenario '%s'\n", name.c_str());
    return 2;
}
