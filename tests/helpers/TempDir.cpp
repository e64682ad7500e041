#include "TempDir.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace qrvtest {

TempDir::TempDir(const std::string& prefix)
{
    std::string pattern = "/tmp/" + prefix + "-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed for " + pattern);
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> TempDir::entries() const
{
    namespace fs = std::filesystem;
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(path_)) {
        names.push_back(fs::relative(entry.path(), path_).string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace qrvtest
