#include "CIpmUserCustomLoader.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <dlfcn.h>
#include <unistd.h>
#include <utility>

#define IPM_LOG_FILE "CIpmUserCustomLoader"
#include "IpmLog.h"

namespace ipm_internal {
namespace {

const char* const kPluginName = "libCIpmUserCustom.so";

// Plug-in calls running on this thread, so that closing does not wait for a
// call that will never return to it (a plug-in function that ends the
// process).
thread_local uint64_t pluginCallsOnThisThread = 0;

// The running executable's directory: the empty text for one in the root
// directory, "." when the link cannot be read.
std::string exe_dir_()
{
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) return ".";
    path[length] = '\0';
    const std::string text(path);
    const size_t slash = text.rfind('/');
    if (slash == std::string::npos) return ".";
    return text.substr(0, slash);
}

// A plug-in that states its interface version and record size must state
// this library's: its records would otherwise be copied with the wrong
// layout. One that states nothing is taken as it is.
bool interfaceMatches(void* handle, const std::string& candidate)
{
    const auto* info = static_cast<const IpmUserCustomInfo*>(dlsym(handle, "ipm_user_custom_info"));
    if (info == nullptr) return true;
    if (info->abiVersion == IPM_USER_CUSTOM_ABI_VERSION && info->algEntrySize == sizeof(AlgEntry))
        return true;
    IPM_LOG(
        Warning,
        L"interface mismatch in %hs: version %u, record size %u (this library: version %u, record size %u)",
        candidate.c_str(), info->abiVersion, info->algEntrySize, IPM_USER_CUSTOM_ABI_VERSION,
        static_cast<uint32_t>(sizeof(AlgEntry)));
    return false;
}

}  // namespace

// The plug-in's function objects, reached only through call() while the
// plug-in is open. close() refuses later calls, waits for the calls in flight
// and hands the objects back, so that the loader destroys them before the
// library that holds their code is closed.
class UserCustomLoader::PluginCalls {
public:
    // Takes a plug-in function; its position is what call() takes.
    size_t add(IpmFn pluginFunction)
    {
        functions_.push_back(std::move(pluginFunction));
        return functions_.size() - 1;
    }

    int call(size_t position, const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination, void* user1,
             void* user2)
    {
        if ((state_.fetch_add(1, std::memory_order_acquire) & kClosed) != 0) {
            leave_();
            return ipmcommon::result::EmptyFunction;
        }
        ++pluginCallsOnThisThread;
        struct Leave {
            PluginCalls* calls;
            ~Leave()
            {
                --pluginCallsOnThisThread;
                calls->leave_();
            }
        } leave{this};
        return functions_[position](source, destination, user1, user2);
    }

    std::vector<IpmFn> close()
    {
        state_.fetch_or(kClosed, std::memory_order_acq_rel);
        std::unique_lock<std::mutex> lock(mutex_);
        drained_.wait(lock, [this] {
            return (state_.load(std::memory_order_acquire) & ~kClosed) <= pluginCallsOnThisThread;
        });
        return std::exchange(functions_, {});
    }

private:
    void leave_()
    {
        if ((state_.fetch_sub(1, std::memory_order_acq_rel) & kClosed) != 0) {
            std::lock_guard<std::mutex> lock(mutex_);
            drained_.notify_all();
        }
    }

    static constexpr uint64_t kClosed = uint64_t{1} << 63;
    std::atomic<uint64_t> state_{0};  // kClosed and the number of calls in flight
    std::mutex mutex_;
    std::condition_variable drained_;
    std::vector<IpmFn> functions_;
};

UserCustomLoader& UserCustomLoader::instance()
{
    static UserCustomLoader loader;
    return loader;
}

UserCustomLoader::~UserCustomLoader()
{
    unload();
}

const std::vector<AlgEntry>& UserCustomLoader::entries() const
{
    return entries_;
}

int UserCustomLoader::loadOnce()
{
    std::call_once(once_, &UserCustomLoader::load_, this);
    return static_cast<int>(entries_.size());
}

void UserCustomLoader::load_()
{
    std::lock_guard<std::mutex> lock(mutex_);
    const std::string dir = exe_dir_();
    const std::string name = kPluginName;
    // Still open when an earlier attempt's register call threw: the new
    // attempt opens the plug-in again, and this reference is dropped so that
    // unload() closes it for good.
    void* const earlier = handle_;
    const bool opened = tryOpen({dir + "/../lib/" + name, dir + "/" + name, dir + "/plugins/" + name, name});
    if (earlier != nullptr) dlclose(earlier);
    if (!opened) return;

    AlgEntry* records = nullptr;
    int count = 0;
    if (registerFn_(&records, &count) != 0 || records == nullptr || count <= 0) {
        IPM_LOG(Error, L"register failed");
        return;
    }
    std::vector<AlgEntry> copies(records, records + count);
    auto calls = std::make_shared<PluginCalls>();
    for (AlgEntry& copy : copies) {
        // An empty function stays empty, so that the table refuses it.
        if (!copy.func) continue;
        const size_t position = calls->add(std::move(copy.func));
        copy.func = [calls, position](const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination,
                                      void* user1, void* user2) {
            return calls->call(position, source, destination, user1, user2);
        };
    }
    entries_ = std::move(copies);
    calls_ = std::move(calls);
    IPM_LOG(Trace, L"registered entries: %d", count);
}

bool UserCustomLoader::tryOpen(const std::vector<std::string>& candidates)
{
    for (const std::string& candidate : candidates) {
        handle_ = dlopen(candidate.c_str(), RTLD_NOW);
        if (handle_ == nullptr) {
            const char* error = dlerror();
            IPM_LOG(Warning, L"dlopen fail: %hs (%hs)", candidate.c_str(),
                    error != nullptr ? error : "no error");
            continue;
        }
        registerFn_ = reinterpret_cast<IpmUserCustomRegisterFn>(dlsym(handle_, "ipm_user_custom_register"));
        unregisterFn_ =
            reinterpret_cast<IpmUserCustomUnregisterFn>(dlsym(handle_, "ipm_user_custom_unregister"));
        if (registerFn_ != nullptr && interfaceMatches(handle_, candidate)) {
            IPM_LOG(Trace, L"loaded: %hs", candidate.c_str());
            return true;
        }
        if (registerFn_ == nullptr) IPM_LOG(Warning, L"symbol missing in %hs", candidate.c_str());
        dlclose(handle_);
        handle_ = nullptr;
        registerFn_ = nullptr;
        unregisterFn_ = nullptr;
    }
    return false;
}

void UserCustomLoader::unload()
{
    std::lock_guard<std::mutex> lock(mutex_);
    // No plug-in function runs from here on: the ones in flight finish first,
    // later calls get 7.
    std::vector<IpmFn> pluginFunctions = calls_ ? calls_->close() : std::vector<IpmFn>{};
    calls_.reset();
    if (unregisterFn_ != nullptr) unregisterFn_();
    // The function objects' copy, destroy and call code lies in the plug-in:
    // they go while it is still open.
    pluginFunctions.clear();
    entries_.clear();
    if (handle_ != nullptr) {
        dlclose(handle_);
        handle_ = nullptr;
    }
    registerFn_ = nullptr;
    unregisterFn_ = nullptr;
}

}  // namespace ipm_internal
