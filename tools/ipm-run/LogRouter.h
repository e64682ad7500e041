// Where the library's log goes in ipm-run: to stderr up to the verbosity
// chosen with --log-level (nowhere by default), and, while a run listens, the
// manager's lines about failed steps to the run's statistics. The manager
// reports a failed step only through its log ("process error: %d" with the
// result code), and an exception it caught inside a pass as an error line.
#pragma once

#include <functional>
#include <string>

#include "QRV_Log.h"

class LogRouter {
public:
    // Takes over the library's log for the rest of the process; records up
    // to printLevel (1 to 3; 0 for none) are written to stderr.
    static void install(int printLevel);

    // While set, called on the logging thread (the worker) for each failed
    // step with its result code, and for each exception the manager caught.
    static void setListener(std::function<void(int code)> onStepFailed, std::function<void()> onManagerError);
    static void clearListener();

    // Whether the record is the manager's line for a failed step, and its code.
    static bool parseStepFailure(const qrvlog::LogRecord& record, int& code);
    // Whether the record reports an exception the manager caught in a pass.
    static bool isManagerError(const qrvlog::LogRecord& record);

    // "[ERROR] CIpmFuncTable:42 void f(): text", the record on one line.
    static std::string formatLine(const qrvlog::LogRecord& record);
    // The record's text in UTF-8 without the line breaks that open the
    // environment report's lines.
    static std::string plainText(const qrvlog::LogRecord& record);
};
