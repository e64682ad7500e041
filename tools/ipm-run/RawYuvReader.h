// Frames from a raw packed YUV 4:2:2 file or from standard input: frames back
// to back with no header and no padding, as `ffmpeg -pix_fmt yuyv422 -f
// rawvideo` writes them. The input is read one frame at a time, never as a
// whole.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "FrameSource.h"

class RawYuvReader : public FrameSource {
public:
    // Opens path for frames of width x height. Fails, with a one-line message,
    // when the file cannot be opened or holds less than one whole frame. A
    // file whose size is not a whole number of frames opens, and warning then
    // says how many trailing bytes will be skipped. The path "-" is standard
    // input, whose length shows only at its end: a partial frame there is
    // skipped with a warning on stderr.
    static std::unique_ptr<RawYuvReader> open(const std::string& path, uint32_t width, uint32_t height,
                                              qrv_img::En_YuvLayout layout, std::string& error,
                                              std::string& warning);

    bool nextFrame(qrv_img::QRV_Image& frame) override;
    std::string description() const override;
    std::string error() const override;

    static uint64_t frameBytes(uint32_t width, uint32_t height);

private:
    struct FileCloser {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    RawYuvReader() = default;

    std::string path_;
    std::unique_ptr<std::FILE, FileCloser> file_;
    uint64_t frameBytes_ = 0;
    uint64_t frameCount_ = 0;
    uint64_t framesRead_ = 0;
    qrv_img::En_YuvLayout layout_ = qrv_img::En_YuvLayout::YUYV;
    std::string error_;
};
