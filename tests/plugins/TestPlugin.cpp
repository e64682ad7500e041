// A user plug-in for the loader's tests. Every construction ("+id") and
// destruction ("-id") of its function objects, its entry points and the
// closing of the library ("fini") are appended to the file that
// QRV_TEST_PLUGIN_TRACE names; QRV_TEST_PLUGIN_MODE chooses how register
// answers. Built with QRV_TEST_UNREGISTER_ONLY it is a library of the
// plug-in's name without the register entry point.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

#include "IpmUserCustom.h"

namespace {

#ifdef QRV_TEST_UNREGISTER_ONLY
const char* const kPrefix = "unregister-only ";
#else
const char* const kPrefix = "";
#endif

void trace(const std::string& event)
{
    const char* path = std::getenv("QRV_TEST_PLUGIN_TRACE");
    FILE* file = path != nullptr ? std::fopen(path, "a") : nullptr;
    if (file == nullptr) return;
    std::fprintf(file, "%s%s\n", kPrefix, event.c_str());
    std::fclose(file);
}

__attribute__((destructor)) void closing()
{
    trace("fini");
}

#ifndef QRV_TEST_UNREGISTER_ONLY
// A processing function object that traces the life of each of its copies.
class Tracked {
public:
    enum Kind {
        Echo,       // returns *user1, or value when user1 is null
        Throw,      // throws
        Exit,       // ends the process from inside the call
        Handshake,  // user1 is a std::atomic<int>: sets 1, waits for 2, lingers, returns 1
    };
    Tracked(Kind kind, int value) : kind_(kind), value_(value) { trace("+" + std::to_string(id_)); }
    Tracked(const Tracked& other) : Tracked(other.kind_, other.value_) {}
    Tracked& operator=(const Tracked&) = delete;
    ~Tracked() { trace("-" + std::to_string(id_)); }

    int operator()(const qrv_img::QRV_Image*, qrv_img::QRV_Image*, void* user1, void*) const
    {
        if (kind_ == Throw) throw std::runtime_error("plug-in function failed");
        if (kind_ == Exit) std::exit(0);
        if (kind_ == Echo) return user1 != nullptr ? *static_cast<const int*>(user1) : value_;
        auto& handshake = *static_cast<std::atomic<int>*>(user1);
        handshake = 1;
        while (handshake != 2) std::this_thread::yield();
        // Long enough for a closing on another thread to be under way.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        trace("call-end");
        return 1;
    }

private:
    static inline std::atomic<int> next_{1};
    Kind kind_;
    int value_;
    int id_ = next_++;
};

AlgEntry* records = nullptr;
int registerCalls = 0;
#endif

}  // namespace

#ifndef QRV_TEST_UNREGISTER_ONLY
int ipm_user_custom_register(AlgEntry** out, int* count)
{
    trace("register");
    const char* modeText = std::getenv("QRV_TEST_PLUGIN_MODE");
    const std::string mode = modeText != nullptr ? modeText : "";
    if (mode == "throw-once" && registerCalls++ == 0) throw std::runtime_error("register refused once");
    delete[] records;
    records = new AlgEntry[7]{
        {7, Tracked(Tracked::Echo, -7), L"7 echo"},
        {8, Tracked(Tracked::Throw, 0), L"8 throw"},
        {5, Tracked(Tracked::Echo, 51), L"5 first"},
        {5, Tracked(Tracked::Echo, 52), L"5 second"},
        {6, IpmFn(), L"6 empty"},
        {9, Tracked(Tracked::Exit, 0), L"9 exit"},
        {10, Tracked(Tracked::Handshake, 0), L"10 handshake"},
    };
    *out = mode == "null-array" ? nullptr : records;
    *count = mode == "zero-count" ? 0 : mode == "negative-count" ? -1 : 7;
    return mode == "refuse-code" ? 3 : 0;
}
#endif

void ipm_user_custom_unregister()
{
    trace("unregister");
#ifndef QRV_TEST_UNREGISTER_ONLY
    delete[] records;
    records = nullptr;
#endif
}
