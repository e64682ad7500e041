#include "OutputDirectory.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

// A hidden temporary file next to `final`; the descriptor is open for writing.
int makeTemporary(const std::string& directory, const std::string& name, std::string& tempPath)
{
    std::string pattern = directory + "/." + name + ".XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    const int fd = ::mkstemp(buffer.data());
    if (fd >= 0) tempPath = buffer.data();
    return fd;
}

}  // namespace

bool OutputDirectory::prepare(const std::string& path, OutputDirectory& out, std::string& error)
{
    std::error_code ec;
    const fs::file_status status = fs::status(path, ec);
    if (fs::exists(status)) {
        if (!fs::is_directory(status)) {
            error = "output directory '" + path + "' exists and is not a directory";
            return false;
        }
    } else if (!fs::create_directories(path, ec) && ec) {
        error = "cannot create output directory '" + path + "': " + ec.message();
        return false;
    }
    std::string probe;
    const int fd = makeTemporary(path, "probe", probe);
    if (fd < 0) {
        error = "cannot write in output directory '" + path + "': " + std::strerror(errno);
        return false;
    }
    ::close(fd);
    ::unlink(probe.c_str());
    out.path_ = path;
    // umask can only be read by setting it; this runs before any other thread.
    out.fileModeMask_ = ::umask(0);
    ::umask(out.fileModeMask_);
    return true;
}

std::string OutputDirectory::pathOf(const std::string& name) const
{
    return path_ + "/" + name;
}

bool OutputDirectory::writeFile(const std::string& name,
                                const std::function<bool(std::FILE*, std::string&)>& write,
                                std::string& error) const
{
    std::string tempPath;
    const int fd = makeTemporary(path_, name, tempPath);
    if (fd < 0) {
        error = "cannot create a file in '" + path_ + "': " + std::strerror(errno);
        return false;
    }
    std::FILE* file = ::fdopen(fd, "wb");
    if (!file) {
        error = "cannot open '" + tempPath + "': " + std::strerror(errno);
        ::close(fd);
        ::unlink(tempPath.c_str());
        return false;
    }
    bool ok = write(file, error);
    if (std::fflush(file) != 0 || std::ferror(file)) {
        if (ok) error = "writing '" + pathOf(name) + "' failed: " + std::strerror(errno);
        ok = false;
    }
    // mkstemp creates the file readable by its owner only; pictures and the
    // summary are for everyone who may read the directory.
    if (ok && ::fchmod(fd, 0666 & ~fileModeMask_) != 0) {
        error = "cannot set the permissions of '" + pathOf(name) + "': " + std::strerror(errno);
        ok = false;
    }
    if (std::fclose(file) != 0 && ok) {
        error = "writing '" + pathOf(name) + "' failed: " + std::strerror(errno);
        ok = false;
    }
    if (ok && ::rename(tempPath.c_str(), pathOf(name).c_str()) != 0) {
        error = "cannot rename '" + tempPath + "' to '" + pathOf(name) + "': " + std::strerror(errno);
        ok = false;
    }
    if (!ok) ::unlink(tempPath.c_str());
    return ok;
}
