#include "PngReader.h"

#ifdef QRV_TEST_HAVE_PNG
#include <png.h>
#endif

namespace qrvtest {

bool pngReaderAvailable()
{
#ifdef QRV_TEST_HAVE_PNG
    return true;
#else
    return false;
#endif
}

bool readPng(const std::string& path, PngPicture& out, std::string& error)
{
#ifdef QRV_TEST_HAVE_PNG
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) {
        error = path + ": " + image.message;
        return false;
    }
    if ((image.format & PNG_FORMAT_FLAG_ALPHA) != 0) {
        png_image_free(&image);
        error = path + ": has an alpha channel";
        return false;
    }
    const bool colour = (image.format & PNG_FORMAT_FLAG_COLOR) != 0;
    image.format = colour ? PNG_FORMAT_RGB : PNG_FORMAT_GRAY;
    PngPicture picture;
    picture.width = image.width;
    picture.height = image.height;
    picture.channels = colour ? 3 : 1;
    picture.pixels.resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, picture.pixels.data(), 0, nullptr)) {
        error = path + ": " + image.message;
        png_image_free(&image);
        return false;
    }
    out = std::move(picture);
    return true;
#else
    error = path + ": this test build has no libpng";
    (void)out;
    return false;
#endif
}

}  // namespace qrvtest
