// The one way the library writes a log line: through the platform logger with
// the source file name, the line and the calling function's signature.
//
// A source file defines IPM_LOG_FILE (its name as the log shows it, for
// example "CIpmFuncTable" or "Converter/CConverter") before including this.
#pragma once

#include "QRV_Log.h"

#ifndef IPM_LOG_FILE
#error "define IPM_LOG_FILE before including IpmLog.h"
#endif

#define IPM_LOG(level, ...)                                                                    \
    ::qrvlog::QRV_Log::Instance()->writeLog(::qrvlog::LogLevel::level, IPM_LOG_FILE, __LINE__, \
                                            __PRETTY_FUNCTION__, __VA_ARGS__)
