#include "LogCapture.h"

#include <cstdio>
#include <fstream>
#include <sstream>

namespace qrvtest {

LogCapture::LogCapture()
{
    qrvlog::QRV_Log::Instance()->setSink([this](const qrvlog::LogRecord& record) {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.push_back(record);
    });
}

LogCapture::~LogCapture()
{
    qrvlog::QRV_Log::Instance()->setSink(nullptr);
}

std::vector<qrvlog::LogRecord> LogCapture::records() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
}

std::vector<std::string> LogCapture::texts(const std::string& file) const
{
    std::vector<std::string> out;
    for (const auto& record : records()) {
        if (file.empty() || record.file == file) out.push_back(utf8(record.text));
    }
    return out;
}

void LogCapture::clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    records_.clear();
}

std::string utf8(const std::wstring& text)
{
    return qrvlog::toUtf8(text);
}

std::string sourceLine(const std::string& file, int line)
{
    std::ifstream in(file);
    std::string text;
    for (int i = 0; i < line; ++i) {
        if (!std::getline(in, text)) return "";
    }
    return text;
}

std::string escapeField(const std::string& text)
{
    std::string out;
    for (char c : text) {
        switch (c) {
        case '\\': out += "\\\\"; break;
        case '\r': out += "\\r"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        default: out += c;
        }
    }
    return out;
}

std::string unescapeField(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char c = text[++i];
        out += c == 'r' ? '\r' : c == 'n' ? '\n' : c == 't' ? '\t' : c;
    }
    return out;
}

std::vector<std::string> splitFields(const std::string& line)
{
    std::vector<std::string> fields;
    size_t start = 0;
    for (size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1) {
        fields.push_back(unescapeField(line.substr(start, tab - start)));
    }
    fields.push_back(unescapeField(line.substr(start)));
    return fields;
}

void printRecordsToStdout()
{
    qrvlog::QRV_Log::Instance()->setSink([](const qrvlog::LogRecord& record) {
        const std::string line = "LOG\t" + std::to_string(static_cast<int>(record.level)) + "\t" +
                                 record.file + "\t" + std::to_string(record.line) + "\t" +
                                 record.function + "\t" + escapeField(utf8(record.text)) + "\n";
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fflush(stdout);
    });
}

std::vector<qrvlog::LogRecord> parseRecords(const std::string& output)
{
    std::vector<qrvlog::LogRecord> records;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        if (line.compare(0, 4, "LOG\t") != 0) continue;
        std::vector<std::string> fields;
        size_t start = 4;
        for (int i = 0; i < 4; ++i) {
            const size_t tab = line.find('\t', start);
            if (tab == std::string::npos) break;
            fields.push_back(line.substr(start, tab - start));
            start = tab + 1;
        }
        if (fields.size() != 4) continue;
        qrvlog::LogRecord record;
        record.level = static_cast<qrvlog::LogLevel>(std::stoi(fields[0]));
        record.file = fields[1];
        record.line = std::stoi(fields[2]);
        record.function = fields[3];
        record.text = qrvlog::fromUtf8(unescapeField(line.substr(start)));
        records.push_back(std::move(record));
    }
    return records;
}

}  // namespace qrvtest
