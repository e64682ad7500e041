// A directory under /tmp that lives as long as the object.
#pragma once

#include <string>
#include <vector>

namespace qrvtest {

class TempDir {
public:
    explicit TempDir(const std::string& prefix = "qrv-test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Every entry below the directory, hidden ones included, relative and sorted.
    std::vector<std::string> entries() const;

private:
    std::string path_;
};

}  // namespace qrvtest
