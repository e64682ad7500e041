// A host built against the installed package: every installed header
// compiles on its own include path; the host registers a function,
// dispatches it and checks the result code.
#include <cstdio>

#include "CImageProcessMng.h"
#include "CIpmCpuEnv.h"
#include "CIpmEnv.h"
#include "CIpmFuncTable.h"
#include "CIpmGpuEnv.h"
#include "CIpmUserCustomLoader.h"
#include "CWatchTime.h"
#include "Converter/CConverter.h"
#include "Converter/CCpuParaConverter.h"
#include "Converter/CCpuSerialConverter.h"
#include "Converter/CpuConvertKernel.h"
#include "IpmTypes.h"
#include "IpmUserCustom.h"
#include "QRV_Image.h"
#include "QRV_Log.h"

int main()
{
    using namespace ipmcommon;
    CIpmFuncTable* table = CIpmFuncTable::Instance();
    const int registered = table->registerFunc(
        EnProcessBackend::CPU_Serial, EnIpmModule::Splitter, 77,
        [](const qrv_img::QRV_Image* source, qrv_img::QRV_Image* destination, void*, void*) {
            return destination->copy(*source, qrv_img::CopyMode::Processing) ? result::Success
                                                                             : result::Mismatch;
        },
        L"copy");
    qrv_img::QRV_Image source(4, 2, qrv_img::En_ImageFormat::Gray8, true, 1);
    qrv_img::QRV_Image destination(4, 2, qrv_img::En_ImageFormat::Gray8, true, 1);
    source.pixels()[5] = 9;
    CWatchTime watch;
    watch.start();
    const int code = table->process(EnProcessBackend::CPU_Serial, EnIpmModule::Splitter, 77, &source,
                                    &destination, nullptr, nullptr);
    watch.stop();
    if (registered != result::Success || code != result::Success || destination.pixels()[5] != 9) {
        std::fprintf(stderr, "consumer: registered %d, process %d\n", registered, code);
        return 1;
    }
    qrvlog::QRV_Log::Instance()->writeLog(qrvlog::LogLevel::Trace, "consumer", __LINE__, __func__, L"ok");
    std::puts("consumer: ok");
    return 0;
}
