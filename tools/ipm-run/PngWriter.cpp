#include "PngWriter.h"

#include "ImageNames.h"

#ifdef IPM_RUN_HAVE_PNG
#include <csetjmp>
#include <cstring>
#include <png.h>
#include <vector>
#endif

using qrv_img::En_ImageFormat;

#ifdef IPM_RUN_HAVE_PNG
namespace {

struct ErrorState {
    std::jmp_buf jump;
    char message[256];
};

void onPngError(png_structp png, png_const_charp message)
{
    auto* state = static_cast<ErrorState*>(png_get_error_ptr(png));
    std::snprintf(state->message, sizeof state->message, "%s", message);
    std::longjmp(state->jump, 1);
}

void onPngWarning(png_structp, png_const_charp) {}

// Nothing with a destructor lives in this frame: libpng leaves it by longjmp.
bool encode(std::FILE* file, png_bytepp rows, png_uint_32 width, png_uint_32 height, int colourType, bool bgr,
            ErrorState& state)
{
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &state, onPngError, onPngWarning);
    if (!png) {
        std::snprintf(state.message, sizeof state.message, "out of memory");
        return false;
    }
    png_infop info = png_create_info_struct(png);
    if (!info || setjmp(state.jump)) {
        if (!info) std::snprintf(state.message, sizeof state.message, "out of memory");
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_init_io(png, file);
    // Level 3 encodes several times faster than the default at a few per cent
    // more bytes; pictures are written while the stream runs.
    png_set_compression_level(png, 3);
    png_set_IHDR(png, info, width, height, 8, colourType, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    if (bgr) png_set_bgr(png);
    png_write_image(png, rows);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

}  // namespace
#endif

bool PngWriter::available()
{
#ifdef IPM_RUN_HAVE_PNG
    return true;
#else
    return false;
#endif
}

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
#ifdef IPM_RUN_HAVE_PNG
    std::vector<png_bytep> rows(image.height);
    for (uint32_t row = 0; row < image.height; ++row) rows[row] = image.pixels() + row * image.rowBytes();
    ErrorState state{};
    const int colourType = format == En_ImageFormat::Gray8 ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_RGB;
    if (!encode(file, rows.data(), image.width, image.height, colourType, format == En_ImageFormat::BGR888,
                state)) {
        error = std::string("libpng: ") + state.message;
        return false;
    }
    return true;
#else
    (void)file;
    error = "this ipm-run was built without libpng";
    return false;
#endif
}
