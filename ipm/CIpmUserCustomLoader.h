// For tools and tests that reach the library's internals: installed, but with no
// compatibility promise between releases.
//
// Finds, loads and unloads the one user plug-in, libCIpmUserCustom.so, and
// keeps the copies of its records that the function table registers.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "IpmTypes.h"
#include "IpmUserCustom.h"

namespace ipm_internal {

class UserCustomLoader {
public:
    // The process-wide loader, created on first use and destroyed at exit.
    static UserCustomLoader& instance();

    // Loads the plug-in on the first call in the process; returns, on every
    // call, the number of records held (0 when no plug-in contributed any).
    // An exception from the plug-in's register entry point passes to the
    // caller, and the next call tries the loading again.
    int loadOnce();

    // The records copied from the plug-in. Their functions call the plug-in
    // only while it is open and return 7 after unload.
    const std::vector<AlgEntry>& entries() const;

    // Opens the first candidate that loads and exports the register entry
    // point; logs every candidate skipped on the way.
    bool tryOpen(const std::vector<std::string>& candidates);

    // Lets the plug-in clean up and closes it; run at process exit. Loading
    // does not happen again afterwards.
    void unload();

    UserCustomLoader(const UserCustomLoader&) = delete;
    UserCustomLoader& operator=(const UserCustomLoader&) = delete;

private:
    class PluginCalls;

    UserCustomLoader() = default;
    ~UserCustomLoader();

    // The loading that loadOnce() runs once, under mutex_.
    void load_();

    void* handle_ = nullptr;
    IpmUserCustomRegisterFn registerFn_ = nullptr;
    IpmUserCustomUnregisterFn unregisterFn_ = nullptr;
    std::vector<AlgEntry> entries_;
    std::once_flag once_;
    std::mutex mutex_;
    // The plug-in's own function objects, behind the wrappers that entries_
    // and the function table hold.
    std::shared_ptr<PluginCalls> calls_;
};

}  // namespace ipm_internal
