// For plug-ins (and hosts): part of the plug-in interface of libQRV_IPM.
//
// The user plug-in interface: how a shared object hands its own processing
// functions to the IPM library.
//
// A plug-in is a shared object named libCIpmUserCustom.so. The first host use
// of the function table looks for it, in this order, in
//   <executable's directory>/../lib/
//   <executable's directory>/
//   <executable's directory>/plugins/
// and then by bare name through the dynamic loader's own search
// (LD_LIBRARY_PATH, the cache, the default directories). The first file that
// opens and exports ipm_user_custom_register is the plug-in; files that do
// not open or lack that entry point are logged and skipped.
//
// Entry points, with C linkage (define them after including this header, or
// inside extern "C"):
//
//   int ipm_user_custom_register(AlgEntry** entries, int* count)       required
//     Called once per process, during the first fill of the function table,
//     with *entries preset to null and *count to 0. Return 0 after setting
//     *entries to the first of *count records; any other result, a null
//     array or a count of 0 or less refuses the registration, and the
//     library then offers no user functions. An exception thrown here reaches
//     the host call that started the fill; the next table use tries again.
//
//   void ipm_user_custom_unregister()                                  optional
//     Called once, at process exit, before the plug-in is closed, whether the
//     registration succeeded or not. It must not throw.
//
// Both run while the library holds the plug-in loader's lock: they must not
// use the function table (CIpmFuncTable::Instance, process,
// getAlgorithmList), which is waiting for the registration to end.
//
// Records: each AlgEntry (IpmTypes.h) carries the algorithm index, the
// processing function and its display name. The library copies the first
// *count records right after the register call returns; the array stays the
// plug-in's (a static array is the simplest owner) and only has to live until
// then. Every record is filed under backend CPU_Serial and module
// User_Custom at its index; a later record with the same index replaces an
// earlier one, and a record with an empty function is skipped. A function
// receives the processing list's source, destination, user1 and user2
// unchanged; the value it returns goes back to the caller as it is (the
// processing manager counts only 1 as success), and an exception it throws
// becomes 9. The library's own codes are in ipmcommon::result.
//
// Lifetime: the library calls, copies and destroys the plug-in's function
// objects only while the plug-in is open. At process exit it refuses new
// calls, waits for the calls in flight on other threads, calls
// ipm_user_custom_unregister, destroys its copies of the function objects and
// then closes the plug-in. A table entry of the plug-in called after that
// returns 7 without running plug-in code.
//
// Interface check (optional): a plug-in may export the record
// ipm_user_custom_info, most simply by writing IPM_USER_CUSTOM_DEFINE_INFO();
// once in one of its source files. It states the interface version and the
// size of AlgEntry the plug-in was built with. A plug-in whose record does not
// match this library's is not used: the library logs why at level 2, never
// calls its register entry point, closes it and goes on searching. A plug-in
// without the record is used as before, unchecked.
//
// Build requirements: the records cross the boundary as C++ objects, copied
// and destroyed by the library's code and called through std::function. Build
// the plug-in against this package's IpmTypes.h, with the same compiler
// family and standard library (libstdc++ with its C++11 string ABI) and a
// 32-bit wchar_t, as a position-independent shared object. With CMake:
// find_package(QRV_IPM CONFIG REQUIRED) and link QRV_IPM::QRV_IPM.
#pragma once

#include <cstdint>

#include "IpmTypes.h"

static_assert(sizeof(wchar_t) == 4, "IPM plug-ins need a 32-bit wchar_t, as the library has");
#if defined(__GLIBCXX__) && !_GLIBCXX_USE_CXX11_ABI
#error "IPM plug-ins need libstdc++'s C++11 string ABI (_GLIBCXX_USE_CXX11_ABI=1), as the library has"
#endif

// Keeps the entry points exported when the plug-in is built with hidden
// visibility.
#define IPM_USER_CUSTOM_EXPORT __attribute__((visibility("default")))

// The version of the plug-in interface: raised whenever a change of AlgEntry,
// IpmFn or the entry points makes plug-ins built before it unusable.
#define IPM_USER_CUSTOM_ABI_VERSION 1u

struct IpmUserCustomInfo {
    uint32_t abiVersion;    // IPM_USER_CUSTOM_ABI_VERSION when the plug-in was built
    uint32_t algEntrySize;  // sizeof(AlgEntry) when the plug-in was built
};

extern "C" {
IPM_USER_CUSTOM_EXPORT int ipm_user_custom_register(AlgEntry** entries, int* count);
IPM_USER_CUSTOM_EXPORT void ipm_user_custom_unregister();
IPM_USER_CUSTOM_EXPORT extern const IpmUserCustomInfo ipm_user_custom_info;
}

#define IPM_USER_CUSTOM_DEFINE_INFO()                                                  \
    extern "C" IPM_USER_CUSTOM_EXPORT const IpmUserCustomInfo ipm_user_custom_info = { \
        IPM_USER_CUSTOM_ABI_VERSION, static_cast<uint32_t>(sizeof(AlgEntry))}

using IpmUserCustomRegisterFn = int (*)(AlgEntry** entries, int* count);
using IpmUserCustomUnregisterFn = void (*)();
