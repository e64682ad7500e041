// For hosts: part of the host interface of libQRV_IPM.
//
// The process-wide catalogue of the built-in conversions: one list of
// processing functions per backend, each record an algorithm index, a wrapper
// of one conversion and a display name. The catalogue also owns the shared
// serial and parallel converters, created by the first wrapper call that
// needs each.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "Converter/CCpuParaConverter.h"
#include "Converter/CCpuSerialConverter.h"
#include "IpmTypes.h"

class CConverter {
public:
    // The conversions a wrapper can run; a record's algorithm index is its
    // conversion's value.
    enum class Ipm_Converter_Func : int32_t {
        YUV422_8_To_RGB888 = 0,
        YUV422_8_To_BGR888 = 1,
        RGB888_To_Gray8 = 2,
    };
    using F = Ipm_Converter_Func;

    // The one catalogue, complete once constructed; concurrent first callers
    // wait for the construction.
    static CConverter* Instance();

    // The records of one backend in index order; empty for the GPU backends
    // and for values outside the enumeration. Never changes after construction.
    const std::vector<AlgEntry>& getAlgList(ipmcommon::EnProcessBackend backend) const;

    // The format a conversion writes, so that a host can allocate the
    // destination of a step; false for a value outside the enumeration.
    static bool destinationFormat(F conversion, qrv_img::En_ImageFormat& format);

    // Fills the lists; the constructor calls it once.
    void AddFunctions();

    // A processing function that runs the conversion on the shared serial (or
    // parallel) converter and returns its code unchanged, or 4 for a value
    // outside the enumeration. It holds the catalogue's address, so it must
    // not be called after the catalogue has been destroyed at process exit.
    IpmFn makeCpuSerial_(F conversion);
    IpmFn makeCpuParallel_(F conversion);

    // The shared converters, created on first use.
    std::shared_ptr<CCpuSerialConverter> getCpuSerial_();
    std::shared_ptr<CCpuParaConverter> getCpuParallel_();

    CConverter(const CConverter&) = delete;
    CConverter& operator=(const CConverter&) = delete;

private:
    CConverter();
    ~CConverter() = default;

    static constexpr size_t kBackends = 5;

    std::vector<AlgEntry> algList_[kBackends];
    std::shared_ptr<CCpuSerialConverter> cpuSerial_;
    std::shared_ptr<CCpuParaConverter> cpuParallel_;
    std::mutex mutex_;
};
