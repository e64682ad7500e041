#include "StepArgument.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "CIpmFuncTable.h"
#include "ImageNames.h"
#include "QRV_Log.h"

using ipmcommon::CIpmFuncTable;

const char* const StepArgument::kFramePrefix = "frame:";

namespace {

std::string joinNames(const std::vector<std::wstring>& names)
{
    std::string joined;
    for (const auto& name : names) {
        if (!joined.empty()) joined += ", ";
        joined += qrvlog::toUtf8(name);
    }
    return joined;
}

bool parseIndex(const std::string& text, int& out)
{
    if (text.empty() || text.find_first_not_of("+-0123456789") != std::string::npos) return false;
    errno = 0;
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || value < INT_MIN || value > INT_MAX) return false;
    out = static_cast<int>(value);
    return true;
}

}  // namespace

bool StepArgument::parse(const std::string& text, StepArgument& out, std::string& error)
{
    StepArgument argument;
    argument.text = text;
    std::string rest = text;
    const std::string prefix = kFramePrefix;
    if (rest.compare(0, prefix.size(), prefix) == 0) {
        argument.fromFrame = true;
        rest.erase(0, prefix.size());
    }

    const size_t firstSlash = rest.find('/');
    const size_t secondSlash = firstSlash == std::string::npos ? firstSlash : rest.find('/', firstSlash + 1);
    if (secondSlash == std::string::npos || rest.find('/', secondSlash + 1) != std::string::npos) {
        error = "step '" + text +
                "' is not BACKEND/MODULE/INDEX[:FORMAT] (for example \"CPU Parallel/Converter/0\")";
        return false;
    }
    const std::string backendText = rest.substr(0, firstSlash);
    const std::string moduleText = rest.substr(firstSlash + 1, secondSlash - firstSlash - 1);
    std::string indexText = rest.substr(secondSlash + 1);
    const size_t colon = indexText.find(':');
    if (colon != std::string::npos) {
        const std::string formatText = indexText.substr(colon + 1);
        indexText.erase(colon);
        qrv_img::En_ImageFormat format;
        if (!ImageNames::parseFormat(formatText, format)) {
            error = "unknown format '" + formatText + "' in step '" + text + "' (use " +
                    ImageNames::kFormatChoices + ")";
            return false;
        }
        argument.destinationFormat = format;
    }

    if (!CIpmFuncTable::TryParseBackend(qrvlog::fromUtf8(backendText), argument.backend)) {
        error = "unknown backend '" + backendText + "' in step '" + text +
                "' (backends: " + joinNames(CIpmFuncTable::getBackendNames()) + ")";
        return false;
    }
    if (!CIpmFuncTable::TryParseModule(qrvlog::fromUtf8(moduleText), argument.module)) {
        error = "unknown module '" + moduleText + "' in step '" + text +
                "' (modules: " + joinNames(CIpmFuncTable::getModuleNames()) + ")";
        return false;
    }
    if (!parseIndex(indexText, argument.index)) {
        error = "bad algorithm index '" + indexText + "' in step '" + text + "' (an integer)";
        return false;
    }
    out = std::move(argument);
    return true;
}

std::string StepArgument::coordinates() const
{
    const auto& backends = CIpmFuncTable::getBackendNames();
    const auto& modules = CIpmFuncTable::getModuleNames();
    return qrvlog::toUtf8(backends[static_cast<size_t>(backend)]) + "/" +
           qrvlog::toUtf8(modules[static_cast<size_t>(module)]) + "/" + std::to_string(index);
}
