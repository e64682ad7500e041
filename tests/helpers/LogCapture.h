// Log records seen by the tests: collected in-process, or printed by a
// scenario program one per line and read back by the test.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "QRV_Log.h"

namespace qrvtest {

// Collects every record while it lives, then restores the default sink.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<qrvlog::LogRecord> records() const;
    // Texts (UTF-8) of the records, in order; with a file, only that file's.
    std::vector<std::string> texts(const std::string& file = "") const;
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<qrvlog::LogRecord> records_;
};

// For scenario programs: every record goes to stdout as one line,
// "LOG<TAB>level<TAB>file<TAB>line<TAB>function<TAB>text", with the text's
// backslashes, CR, LF and TAB escaped.
void printRecordsToStdout();

// Reads the records that printRecordsToStdout wrote; other lines are skipped.
std::vector<qrvlog::LogRecord> parseRecords(const std::string& output);

std::string utf8(const std::wstring& text);

// The text of a source file's line (1-based), to check where a record says
// it was written; empty past the end.
std::string sourceLine(const std::string& file, int line);

// The escaping of the text field of printRecordsToStdout's lines, for other
// tab-separated lines that scenario programs print.
std::string escapeField(const std::string& text);
std::string unescapeField(const std::string& text);
// The fields of such a line, split at its tabs and unescaped.
std::vector<std::string> splitFields(const std::string& line);

}  // namespace qrvtest
