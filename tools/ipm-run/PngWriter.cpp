#include "PngWriter.h"

#include <cstdint>
#include <vector>

#include "ImageNames.h"

#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wsign-compare"
#include "stb_image_write.h"
#pragma GCC diagnostic pop

using qrv_img::En_ImageFormat;

namespace {

struct Output {
    std::FILE* file;
    bool failed;
};

void writeBytes(void* context, void* bytes, int size)
{
    auto* output = static_cast<Output*>(context);
    if (std::fwrite(bytes, 1, static_cast<size_t>(size), output->file) != static_cast<size_t>(size)) {
        output->failed = true;
    }
}

}  // namespace

bool PngWriter::write(std::FILE* file, const qrv_img::QRV_Image& image, std::string& error)
{
    const En_ImageFormat format = image.format;
    if (format != En_ImageFormat::Gray8 && format != En_ImageFormat::RGB888 &&
        format != En_ImageFormat::BGR888) {
        error = "PNG output takes Gray8, RGB888 or BGR888, not " + ImageNames::formatName(format);
        return false;
    }
    if (!image.pixels() || image.dataSize < image.pixelBytes() || image.width == 0 || image.height == 0) {
        error = "the image has no pixels";
        return false;
    }
    const int channels = format == En_ImageFormat::Gray8 ? 1 : 3;
    const uint8_t* pixels = image.pixels();
    // PNG has no BGR order: such an image is written from an RGB copy.
    std::vector<uint8_t> rgb;
    if (format == En_ImageFormat::BGR888) {
        rgb.assign(pixels, pixels + image.pixelBytes());
        for (size_t i = 0; i + 2 < rgb.size(); i += 3) std::swap(rgb[i], rgb[i + 2]);
        pixels = rgb.data();
    }
    Output output{file, false};
    const int written = stbi_write_png_to_func(writeBytes, &output, static_cast<int>(image.width),
                                               static_cast<int>(image.height), channels, pixels,
                                               static_cast<int>(image.rowBytes()));
    if (written == 0 || output.failed) {
        error = "the PNG encoder could not write the picture";
        return false;
    }
    return true;
}
