#include "png_io.h"

#include <png.h>

#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>

#include "input_error.h"

namespace zrio {

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// libpng reports errors through a callback that must not return. It records
// the message and jumps back to the setjmp in the calling function, which then
// throws. Every object with a destructor is created before the setjmp, so the
// jump skips no clean-up.
struct ErrorContext {
    char message[256] = {};
};

[[noreturn]] void JumpOnPngError(png_structp png, png_const_charp message) {
    auto* context = static_cast<ErrorContext*>(png_get_error_ptr(png));
    std::snprintf(context->message, sizeof(context->message), "%s", message);
    png_longjmp(png, 1);
}

void IgnoreWarning(png_structp, png_const_charp) {}

void Write(const std::string& path, int width, int height, int bitDepth, int colourType,
           const std::vector<png_bytep>& rows) {
    File file(std::fopen(path.c_str(), "wb"));
    if (!file) throw InputError(path, "cannot create the file");
    ErrorContext context;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &context, JumpOnPngError, IgnoreWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_write_struct(&png, nullptr);
        throw InputError(path, "cannot start the PNG encoder");
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        throw InputError(path, std::string("PNG error: ") + context.message);
    }
    png_init_io(png, file.get());
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), bitDepth, colourType,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    // PNG stores 16-bit samples big-endian; our buffers are little-endian.
    if (bitDepth == 16) png_set_swap(png);
    png_write_image(png, const_cast<png_bytepp>(rows.data()));
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    if (std::fflush(file.get()) != 0 || std::ferror(file.get())) throw InputError(path, "write failed");
}

// Decodes a PNG in the layout `wantGrey16` chooses: 16-bit grey values, or
// 8-bit RGBA (any PNG is expanded to it). `bytes` receives the rows.
void Read(const std::string& path, bool wantGrey16, int& width, int& height, std::vector<uint8_t>& bytes) {
    File file(std::fopen(path.c_str(), "rb"));
    if (!file) throw InputError(path, "cannot open the file");
    unsigned char signature[8] = {};
    if (std::fread(signature, 1, 8, file.get()) != 8 || png_sig_cmp(signature, 0, 8) != 0)
        throw InputError(path, "not a PNG file");
    ErrorContext context;
    std::vector<png_bytep> rows;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &context, JumpOnPngError, IgnoreWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_read_struct(&png, nullptr, nullptr);
        throw InputError(path, "cannot start the PNG decoder");
    }
    volatile bool wrongLayout = false;  // volatile: set between setjmp and a possible longjmp
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        throw InputError(path, std::string("PNG error: ") + context.message);
    }
    png_init_io(png, file.get());
    png_set_sig_bytes(png, 8);
    png_read_info(png, info);
    if (wantGrey16) {
        wrongLayout = png_get_color_type(png, info) != PNG_COLOR_TYPE_GRAY || png_get_bit_depth(png, info) != 16;
        png_set_swap(png);
    } else {
        png_set_expand(png);
        png_set_strip_16(png);
        png_set_gray_to_rgb(png);
        png_set_add_alpha(png, 0xFF, PNG_FILLER_AFTER);
    }
    if (!wrongLayout) {
        png_read_update_info(png, info);
        width = static_cast<int>(png_get_image_width(png, info));
        height = static_cast<int>(png_get_image_height(png, info));
        const size_t rowBytes = png_get_rowbytes(png, info);
        bytes.resize(rowBytes * height);
        rows.resize(height);
        for (int y = 0; y < height; ++y) rows[y] = bytes.data() + rowBytes * y;
        png_read_image(png, rows.data());
    }
    png_destroy_read_struct(&png, &info, nullptr);
    if (wrongLayout) throw InputError(path, "not a 16-bit grey PNG");
}

}  // namespace

void WritePngRgba(const std::string& path, const RgbaImage& image) {
    std::vector<png_bytep> rows(image.height);
    for (int y = 0; y < image.height; ++y)
        rows[y] = const_cast<png_bytep>(image.pixels.data() + static_cast<size_t>(y) * image.width * 4);
    Write(path, image.width, image.height, 8, PNG_COLOR_TYPE_RGBA, rows);
}

void WritePngGrey16(const std::string& path, const GreyImage16& image) {
    std::vector<png_bytep> rows(image.height);
    for (int y = 0; y < image.height; ++y)
        rows[y] = reinterpret_cast<png_bytep>(const_cast<uint16_t*>(image.values.data() + static_cast<size_t>(y) * image.width));
    Write(path, image.width, image.height, 16, PNG_COLOR_TYPE_GRAY, rows);
}

RgbaImage ReadPngRgba(const std::string& path) {
    RgbaImage image;
    Read(path, false, image.width, image.height, image.pixels);
    return image;
}

GreyImage16 ReadPngGrey16(const std::string& path) {
    GreyImage16 image;
    std::vector<uint8_t> bytes;
    Read(path, true, image.width, image.height, bytes);
    image.values.resize(bytes.size() / 2);
    std::memcpy(image.values.data(), bytes.data(), image.values.size() * 2);
    return image;
}

}  // namespace zrio
