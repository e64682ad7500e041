// For hosts: part of the host interface of libQRV_IPM.
//
// The process-wide registry of processing functions, keyed by backend, module
// and algorithm index, and the dispatch through which every step runs.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "IpmTypes.h"

namespace ipmcommon {

class CIpmFuncTable {
public:
    // The one table, filled on first use.
    static CIpmFuncTable* Instance();

    // 1 on success; 7 for an empty function, 2 for a bad backend, 3 for a bad
    // module, in that order. A later registration under the same coordinates
    // replaces the earlier one. Safe against concurrent registrations, but not
    // against a concurrent process() or getAlgorithmList().
    int registerFunc(EnProcessBackend backend, EnIpmModule module, int index, IpmFn func, std::wstring name);

    // Runs the function registered under (backend, module, index) and returns
    // its result unchanged; 2, 3, 8, 4 or 7 when the call cannot be made, 9
    // when the function throws. Takes no lock.
    int process(EnProcessBackend backend, EnIpmModule module, int index, const qrv_img::QRV_Image* source,
                qrv_img::QRV_Image* destination, void* user1, void* user2) const;

    // (index, display name) of every function under backend and module, in the
    // table's own order; empty for bad coordinates.
    std::vector<std::pair<int, std::wstring>> getAlgorithmList(EnProcessBackend backend,
                                                               EnIpmModule module) const;

    // Runs the one-time fill unless it has completed; a fill that throws
    // passes the exception on and runs again on the next call.
    void ensureInitialized_() const;

    static bool isValidBackendIndex_(int value);
    static bool isValidModuleIndex_(int value);
    static const std::vector<std::wstring>& getModuleNames();
    static const std::vector<std::wstring>& getBackendNames();
    static bool TryParseModule(const std::wstring& text, EnIpmModule& out);
    static bool TryParseBackend(const std::wstring& text, EnProcessBackend& out);

    // The one-time fill and its three steps.
    void InitFuncTable();
    void InitConverterFuncTable();
    void InitScalerFuncTable();
    void InitUserCustomFuncTable();

    CIpmFuncTable(const CIpmFuncTable&) = delete;
    CIpmFuncTable& operator=(const CIpmFuncTable&) = delete;

private:
    CIpmFuncTable();
    ~CIpmFuncTable() = default;

    std::vector<std::vector<std::unordered_map<int, FuncInfo>>> table_;
    std::mutex mutex_;
    mutable std::once_flag initOnce_;
    mutable std::atomic<bool> initialized_{false};
};

}  // namespace ipmcommon

// Kept for hosts built against earlier packages; does nothing.
void CIpmFuncTable_RegisterDummyForDev();
