// The script that a test hands to a stub runtime library through an
// environment variable. The stubs read it again on every call, so a process
// can change what the runtime reports between two refreshes.
#pragma once

#include <cstdlib>
#include <string>
#include <vector>

namespace stub {

inline std::vector<std::string> split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t end; (end = text.find(separator, start)) != std::string::npos; start = end + 1) {
        parts.push_back(text.substr(start, end - start));
    }
    parts.push_back(text.substr(start));
    return parts;
}

inline std::string script(const char* variable)
{
    const char* text = std::getenv(variable);
    return text != nullptr ? text : "";
}

// The value of key in a "key=value;key=value" script, or fallback.
inline std::string value(const std::string& scriptText, const std::string& key, const std::string& fallback)
{
    for (const std::string& item : split(scriptText, ';')) {
        if (item.compare(0, key.size() + 1, key + "=") == 0) return item.substr(key.size() + 1);
    }
    return fallback;
}

}  // namespace stub
