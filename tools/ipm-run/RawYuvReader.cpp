#include "RawYuvReader.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

uint64_t RawYuvReader::frameBytes(uint32_t width, uint32_t height)
{
    return 2ull * width * height;
}

std::unique_ptr<RawYuvReader> RawYuvReader::open(const std::string& path, uint32_t width, uint32_t height,
                                                 qrv_img::En_YuvLayout layout, std::string& error,
                                                 std::string& warning)
{
    std::unique_ptr<RawYuvReader> reader(new RawYuvReader());
    reader->path_ = path;
    reader->layout_ = layout;
    reader->frameBytes_ = frameBytes(width, height);
    if (path == "-") {
        reader->file_.reset(::fdopen(::dup(STDIN_FILENO), "rb"));
        reader->frameCount_ = UINT64_MAX;
        if (!reader->file_) {
            error = std::string("cannot read standard input: ") + std::strerror(errno);
            return nullptr;
        }
        return reader;
    }
    reader->file_.reset(std::fopen(path.c_str(), "rb"));
    if (!reader->file_) {
        error = "cannot open input file '" + path + "': " + std::strerror(errno);
        return nullptr;
    }
    struct stat info {};
    if (::fstat(::fileno(reader->file_.get()), &info) != 0 || !S_ISREG(info.st_mode)) {
        error = "input '" + path + "' is not a regular file";
        return nullptr;
    }
    const uint64_t size = static_cast<uint64_t>(info.st_size);
    const std::string geometry = std::to_string(width) + "x" + std::to_string(height);
    reader->frameCount_ = size / reader->frameBytes_;
    if (reader->frameCount_ == 0) {
        error = "input file '" + path + "' holds " + std::to_string(size) + " bytes, less than one " +
                geometry + " YUV 4:2:2 frame (" + std::to_string(reader->frameBytes_) +
                " bytes): check --size";
        return nullptr;
    }
    const uint64_t trailing = size % reader->frameBytes_;
    if (trailing != 0) {
        warning = "input file '" + path + "' holds " + std::to_string(reader->frameCount_) + " whole " +
                  geometry + " frames and " + std::to_string(trailing) +
                  " trailing bytes, which are skipped (is --size right?)";
    }
    return reader;
}

bool RawYuvReader::nextFrame(qrv_img::QRV_Image& frame)
{
    if (framesRead_ >= frameCount_) return false;
    const size_t want = static_cast<size_t>(frameBytes_);
    const size_t got = std::fread(frame.pixels(), 1, want, file_.get());
    if (path_ == "-" && !std::ferror(file_.get()) && got < want) {
        if (got != 0) {
            std::fprintf(
                stderr,
                "ipm-run: warning: standard input ended %zu bytes into frame %llu, which is skipped\n", got,
                static_cast<unsigned long long>(framesRead_));
        }
        return false;
    }
    if (got != want) {
        error_ = "reading input file '" + path_ + "' failed at frame " + std::to_string(framesRead_) + ": " +
                 (std::ferror(file_.get()) ? std::strerror(errno) : "the file became shorter");
        return false;
    }
    frame.yuvLayout = static_cast<int32_t>(layout_);
    ++framesRead_;
    return true;
}

std::string RawYuvReader::description() const
{
    return path_ == "-" ? "standard input" : path_;
}

std::string RawYuvReader::error() const
{
    return error_;
}
