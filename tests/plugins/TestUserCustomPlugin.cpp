// A user plug-in for the loader's tests. QRV_TEST_PLUGIN_MODE selects how its
// register entry point answers; every construction and destruction of its
// function objects, its entry points and the closing of the library are
// appended to the file that QRV_TEST_PLUGIN_TRACE names, so that a test can
// see what ran in which order.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

#include "IpmUserCustom.h"
#include "PluginTrace.h"

namespace {

std::string mode()
{
    const char* text = std::getenv("QRV_TEST_PLUGIN_MODE");
    return text != nullptr ? text : "records";
}

enum class Behaviour {
    Echo,       // returns *user1, or the value when user1 is null
    Constant,   // returns the value
    Throw,      // throws std::runtime_error
    Exit,       // ends the process with exit(0) from inside the call
    Handshake,  // user1 is a std::atomic<int>: sets 1, waits for 2, lingers, returns 1
};

// A function object whose every copy leaves a trace of its birth ("+id") and
// death ("-id").
class Tracked {
public:
    Tracked(Behaviour behaviour, int value) : behaviour_(behaviour), value_(value), id_(nextId_++)
    {
        appendPluginTrace("+" + std::to_string(id_));
    }
    Tracked(const Tracked& other) : behaviour_(other.behaviour_), value_(other.value_), id_(nextId_++)
    {
        appendPluginTrace("+" + std::to_string(id_));
    }
    Tracked& operator=(const Tracked&) = delete;
    ~Tracked() { appendPluginTrace("-" + std::to_string(id_)); }

    int operator()(const qrv_img::QRV_Image*, qrv_img::QRV_Image*, void* user1, void*) const
    {
        switch (behaviour_) {
        case Behaviour::Echo: return user1 != nullptr ? *static_cast<const int*>(user1) : value_;
        case Behaviour::Constant: return value_;
        case Behaviour::Throw: throw std::runtime_error("plug-in function failed");
        case Behaviour::Exit: appendPluginTrace("exit-call"); std::exit(0);
        case Behaviour::Handshake: {
            auto& handshake = *static_cast<std::atomic<int>*>(user1);
            handshake = 1;
            while (handshake != 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            // Long enough for the unloading thread to be waiting for this call.
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            appendPluginTrace("call-end");
            return 1;
        }
        }
        return -1;
    }

private:
    static std::atomic<int> nextId_;
    Behaviour behaviour_;
    int value_;
    int id_;
};

std::atomic<int> Tracked::nextId_{1};

AlgEntry* records = nullptr;
int registerCalls = 0;

constexpr int kRecordCount = 7;

AlgEntry* makeRecords()
{
    return new AlgEntry[kRecordCount]{
        {7, Tracked(Behaviour::Echo, -7), L"seven echoes user1"},
        {8, Tracked(Behaviour::Throw, 0), L"eight throws"},
        {5, Tracked(Behaviour::Constant, 51), L"five first"},
        {5, Tracked(Behaviour::Constant, 52), L"five second"},
        {6, IpmFn(), L"six is empty"},
        {9, Tracked(Behaviour::Exit, 0), L"nine exits"},
        {10, Tracked(Behaviour::Handshake, 0), L"ten waits"},
    };
}

__attribute__((destructor)) void markClosing()
{
    appendPluginTrace("fini");
}

}  // namespace

int ipm_user_custom_register(AlgEntry** out, int* count)
{
    appendPluginTrace("register");
    const std::string how = mode();
    if (how == "throw-once" && registerCalls++ == 0) throw std::runtime_error("register refused once");
    delete[] records;
    records = makeRecords();
    if (how == "refuse-code") {
        *out = records;
        *count = kRecordCount;
        return 3;
    }
    if (how == "null-array") {
        *count = kRecordCount;
        return 0;
    }
    *out = records;
    *count = how == "zero-count" ? 0 : how == "negative-count" ? -1 : kRecordCount;
    return 0;
}

void ipm_user_custom_unregister()
{
    appendPluginTrace("unregister");
    delete[] records;
    records = nullptr;
}
