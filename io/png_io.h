// PNG files of the pictures zrslice writes: 8-bit RGBA colour and 16-bit grey
// values, and the matching readers (for tests and comparisons). Writers throw
// InputError naming the file; they write exactly the path they are given, so
// callers that must never leave a partial file write to a temporary name first.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zrio {

struct RgbaImage {
    int width = 0, height = 0;
    std::vector<uint8_t> pixels;  // R, G, B, A per pixel, row by row
};

struct GreyImage16 {
    int width = 0, height = 0;
    std::vector<uint16_t> values;  // row by row
};

void WritePngRgba(const std::string& path, const RgbaImage& image);
void WritePngGrey16(const std::string& path, const GreyImage16& image);

// Readers convert whatever the file holds to the requested layout.
RgbaImage ReadPngRgba(const std::string& path);
GreyImage16 ReadPngGrey16(const std::string& path);

}  // namespace zrio
