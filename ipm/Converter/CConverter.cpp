#include "Converter/CConverter.h"

#include <utility>

#define IPM_LOG_FILE "Converter/CConverter"
#include "IpmLog.h"

using ipmcommon::EnProcessBackend;
using qrv_img::QRV_Image;

namespace {

// Runs one conversion on a converter of either kind; both offer the same three.
template <typename Converter>
int runConversion(Converter& converter, CConverter::F conversion, const QRV_Image* source,
                  QRV_Image* destination, void* user1, void* user2)
{
    switch (conversion) {
    case CConverter::F::YUV422_8_To_RGB888:
        return converter.ConvertYUV422_8_To_RGB888(source, destination, user1, user2);
    case CConverter::F::YUV422_8_To_BGR888:
        return converter.ConvertYUV422_8_To_BGR888(source, destination, user1, user2);
    case CConverter::F::RGB888_To_Gray8:
        return converter.ConvertRGB888_To_Gray8(source, destination, user1, user2);
    }
    return ipmcommon::result::NoFunction;
}

}  // namespace

CConverter* CConverter::Instance()
{
    static CConverter catalogue;
    return &catalogue;
}

CConverter::CConverter()
{
    IPM_LOG(Trace, L"Called");
    AddFunctions();
}

const std::vector<AlgEntry>& CConverter::getAlgList(EnProcessBackend backend) const
{
    static const std::vector<AlgEntry> kNone;
    const auto position = static_cast<uint32_t>(backend);
    return position < kBackends ? algList_[position] : kNone;
}

bool CConverter::destinationFormat(F conversion, qrv_img::En_ImageFormat& format)
{
    switch (conversion) {
    case F::YUV422_8_To_RGB888: format = qrv_img::En_ImageFormat::RGB888; return true;
    case F::YUV422_8_To_BGR888: format = qrv_img::En_ImageFormat::BGR888; return true;
    case F::RGB888_To_Gray8: format = qrv_img::En_ImageFormat::Gray8; return true;
    }
    return false;
}

void CConverter::AddFunctions()
{
    IPM_LOG(Trace, L"Called");
    const struct {
        EnProcessBackend backend;
        F conversion;
        const wchar_t* name;
    } rows[] = {
        {EnProcessBackend::CPU_Serial, F::YUV422_8_To_RGB888, L"YUV422 -> RGB888 (CPU Serial)"},
        {EnProcessBackend::CPU_Serial, F::YUV422_8_To_BGR888, L"YUV422 -> BGR888 (CPU Serial)"},
        {EnProcessBackend::CPU_Serial, F::RGB888_To_Gray8, L"RGB888 -> Gray8 (CPU Serial)"},
        {EnProcessBackend::CPU_Parallel, F::YUV422_8_To_RGB888, L"YUV422 -> RGB888 (CPU Parallel)"},
        {EnProcessBackend::CPU_Parallel, F::YUV422_8_To_BGR888, L"YUV422 -> BGR888 (CPU Parallel)"},
        {EnProcessBackend::CPU_Parallel, F::RGB888_To_Gray8, L"RGB888 -> Gray8 (CPU Parallel)"},
    };
    for (const auto& row : rows) {
        AlgEntry entry;
        entry.index = static_cast<int32_t>(row.conversion);
        entry.func = row.backend == EnProcessBackend::CPU_Serial ? makeCpuSerial_(row.conversion)
                                                                 : makeCpuParallel_(row.conversion);
        entry.name = row.name;
        algList_[static_cast<size_t>(row.backend)].push_back(std::move(entry));
    }
}

IpmFn CConverter::makeCpuSerial_(F conversion)
{
    IPM_LOG(Trace, L"Called");
    return [this, conversion](const QRV_Image* source, QRV_Image* destination, void* user1, void* user2) {
        const std::shared_ptr<CCpuSerialConverter> converter = getCpuSerial_();
        return runConversion(*converter, conversion, source, destination, user1, user2);
    };
}

IpmFn CConverter::makeCpuParallel_(F conversion)
{
    IPM_LOG(Trace, L"Called");
    return [this, conversion](const QRV_Image* source, QRV_Image* destination, void* user1, void* user2) {
        const std::shared_ptr<CCpuParaConverter> converter = getCpuParallel_();
        return runConversion(*converter, conversion, source, destination, user1, user2);
    };
}

std::shared_ptr<CCpuSerialConverter> CConverter::getCpuSerial_()
{
    IPM_LOG(Trace, L"Called");
    std::lock_guard<std::mutex> lock(mutex_);
    if (!cpuSerial_) cpuSerial_ = std::make_shared<CCpuSerialConverter>();
    return cpuSerial_;
}

std::shared_ptr<CCpuParaConverter> CConverter::getCpuParallel_()
{
    IPM_LOG(Trace, L"Called");
    std::lock_guard<std::mutex> lock(mutex_);
    if (!cpuParallel_) cpuParallel_ = std::make_shared<CCpuParaConverter>();
    return cpuParallel_;
}
