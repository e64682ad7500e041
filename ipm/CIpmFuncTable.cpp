#include "CIpmFuncTable.h"

#include "CIpmUserCustomLoader.h"
#include "Converter/CConverter.h"

#define IPM_LOG_FILE "CIpmFuncTable"
#include "IpmLog.h"

namespace ipmcommon {
namespace {

constexpr uint32_t kLastBackend = 4;
constexpr uint32_t kLastModule = 3;

bool findName(const std::vector<std::wstring>& names, const std::wstring& text, int32_t& position)
{
    for (size_t i = 0; i < names.size(); ++i) {
        if (names[i] == text) {
            position = static_cast<int32_t>(i);
            return true;
        }
    }
    return false;
}

}  // namespace

CIpmFuncTable::CIpmFuncTable()
    : table_(kLastBackend + 1, std::vector<std::unordered_map<int, FuncInfo>>(kLastModule + 1))
{
}

CIpmFuncTable* CIpmFuncTable::Instance()
{
    static CIpmFuncTable table;
    table.ensureInitialized_();
    return &table;
}

void CIpmFuncTable::ensureInitialized_() const
{
    std::call_once(initOnce_, [this] {
        // The fill writes the table; it runs once, before any reader gets past
        // this call, so the const entry points may start it.
        const_cast<CIpmFuncTable*>(this)->InitFuncTable();
        initialized_.store(true, std::memory_order_release);
    });
}

bool CIpmFuncTable::isValidBackendIndex_(int value)
{
    return static_cast<uint32_t>(value) <= kLastBackend;
}

bool CIpmFuncTable::isValidModuleIndex_(int value)
{
    return static_cast<uint32_t>(value) <= kLastModule;
}

const std::vector<std::wstring>& CIpmFuncTable::getModuleNames()
{
    static const wchar_t* const kNames[] = {L"Converter", L"Scaler", L"Splitter", L"User_Custom"};
    static const std::vector<std::wstring> names(std::begin(kNames), std::end(kNames));
    return names;
}

const std::vector<std::wstring>& CIpmFuncTable::getBackendNames()
{
    static const wchar_t* const kNames[] = {L"CPU Serial", L"CPU Parallel", L"GPU GL Compute", L"GPU OpenCL",
                                            L"GPU CUDA"};
    static const std::vector<std::wstring> names(std::begin(kNames), std::end(kNames));
    return names;
}

bool CIpmFuncTable::TryParseModule(const std::wstring& text, EnIpmModule& out)
{
    int32_t position = 0;
    if (!findName(getModuleNames(), text, position)) return false;
    out = static_cast<EnIpmModule>(position);
    return true;
}

bool CIpmFuncTable::TryParseBackend(const std::wstring& text, EnProcessBackend& out)
{
    int32_t position = 0;
    if (!findName(getBackendNames(), text, position)) return false;
    out = static_cast<EnProcessBackend>(position);
    return true;
}

int CIpmFuncTable::registerFunc(EnProcessBackend backend, EnIpmModule module, int index, IpmFn func,
                                std::wstring name)
{
    if (!func) return result::EmptyFunction;
    if (!isValidBackendIndex_(static_cast<int>(backend))) return result::BadBackend;
    if (!isValidModuleIndex_(static_cast<int>(module))) return result::BadModule;
    std::lock_guard<std::mutex> lock(mutex_);
    FuncInfo& entry = table_[static_cast<size_t>(backend)][static_cast<size_t>(module)][index];
    entry.func = std::move(func);
    entry.name = std::move(name);
    return result::Success;
}

int CIpmFuncTable::process(EnProcessBackend backend, EnIpmModule module, int index,
                           const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination, void* user1,
                           void* user2) const
{
    ensureInitialized_();
    if (!isValidBackendIndex_(static_cast<int>(backend))) return result::BadBackend;
    if (!isValidModuleIndex_(static_cast<int>(module))) return result::BadModule;
    if (source == nullptr || destination == nullptr) return result::MissingImage;
    const auto& functions = table_[static_cast<size_t>(backend)][static_cast<size_t>(module)];
    const auto found = functions.find(index);
    if (found == functions.end()) return result::NoFunction;
    const IpmFn& func = found->second.func;
    if (!func) return result::EmptyFunction;
    try {
        return func(source, destination, user1, user2);
    } catch (...) {
        return result::FunctionThrew;
    }
}

std::vector<std::pair<int, std::wstring>> CIpmFuncTable::getAlgorithmList(EnProcessBackend backend,
                                                                          EnIpmModule module) const
{
    ensureInitialized_();
    std::vector<std::pair<int, std::wstring>> list;
    if (!isValidBackendIndex_(static_cast<int>(backend)) || !isValidModuleIndex_(static_cast<int>(module))) {
        return list;
    }
    const auto& functions = table_[static_cast<size_t>(backend)][static_cast<size_t>(module)];
    list.reserve(functions.size());
    for (const auto& [index, info] : functions) {
        list.emplace_back(index, info.name);
    }
    return list;
}

void CIpmFuncTable::InitFuncTable()
{
    IPM_LOG(Trace, L"called");
    InitConverterFuncTable();
    InitScalerFuncTable();
    InitUserCustomFuncTable();
}

void CIpmFuncTable::InitConverterFuncTable()
{
    IPM_LOG(Trace, L"called");
    const CConverter* catalogue = CConverter::Instance();
    // The parallel converters are reachable through the table too, under the
    // same indices as their serial twins.
    for (EnProcessBackend backend : {EnProcessBackend::CPU_Serial, EnProcessBackend::CPU_Parallel}) {
        for (const AlgEntry& entry : catalogue->getAlgList(backend)) {
            registerFunc(backend, EnIpmModule::Converter, entry.index, entry.func, entry.name);
        }
    }
}

void CIpmFuncTable::InitScalerFuncTable()
{
    IPM_LOG(Trace, L"called");
}

void CIpmFuncTable::InitUserCustomFuncTable()
{
    IPM_LOG(Trace, L"called");
    ipm_internal::UserCustomLoader& loader = ipm_internal::UserCustomLoader::instance();
    if (loader.loadOnce() <= 0) {
        IPM_LOG(Error, L"No User_Custom plugin found.");
        return;
    }
    // The records' functions are the loader's wrappers: the table's copies
    // stop calling into the plug-in when the loader closes it, which happens
    // before the table goes at exit.
    int registered = 0;
    for (const AlgEntry& entry : loader.entries()) {
        if (registerFunc(EnProcessBackend::CPU_Serial, EnIpmModule::User_Custom, entry.index, entry.func,
                         entry.name) == result::Success) {
            ++registered;
        }
    }
    IPM_LOG(Trace, L"[CIpmFuncTable] User_Custom registered: %d", registered);
}

}  // namespace ipmcommon

void CIpmFuncTable_RegisterDummyForDev() {}
