// Bilinear enlargement of a reduced rendered image into the full-size output,
// either overwriting the destination (up-scale) or merging over what it already
// holds (up-scale and merge). Destination rows run in parallel.
//
// Destination row r (0 <= r < rowCount): y = r * sy, y0 = floor(y), fy = y - y0;
// source rows y0 and y0 + 1 are read without clamping (the caller guarantees
// that both exist, and one column past the last one used). The destination
// starts at (rowOffset + r) * pitch + x0, the source at y0 * pitch, column 0; a
// fractional accumulator fx starts at 0. For each destination column x0..x1-1:
// when fx >= 1, fx -= 1 and the source column advances by one (at most once per
// destination pixel, hence sx <= 1); each byte is
// (s00 (1 - fx) + s01 fx)(1 - fy) + (s10 (1 - fx) + s11 fx) fy, truncated, the
// value likewise; then fx += sx.
//
// Up-scale and merge: the interpolated bytes (before truncation) times 1/255
// give S = (s0, s1, s2, sA). sA <= 0 leaves the destination pixel (and value)
// untouched. Otherwise, with D the destination pixel normalised the same way:
// - D's opacity byte 0: the destination becomes trunc(S * 255), all four bytes;
// - mask at the pixel <= 0 (or no mask): colour = trunc((dA D + (1 - dA) S) 255),
//   byte 3 = 255 (existing content over the new layer);
// - mask > 0: colour = trunc(((1 - w) D + w S) 255), byte 3 = 255.
// The value, when both value buffers exist, is written with the pixel.
//
// Up-scale only: with clearRows > 0 the destination is taken as not yet
// cleared, and every other pixel of its first clearRows rows (pitch pixels
// each) is set to zero, which gives the bytes of clearing it first; each row
// is written once, in parallel. The drawn rectangle must lie within them.
#pragma once

#include <cstdint>

namespace zrvolume {

struct ImageUpscaleArgs {
    const uint32_t* source = nullptr;         // reduced colour image, leading rows/columns
    const uint16_t* sourceValues = nullptr;   // optional
    uint32_t* destination = nullptr;          // full-size colour image
    uint16_t* destinationValues = nullptr;    // optional; used only with sourceValues
    int pitch = 0;       // pixels per row, shared by source and destination
    int x0 = 0;          // first destination column
    int x1 = 0;          // one past the last destination column
    int rowOffset = 0;   // destination row of source row 0
    int rowCount = 0;    // destination rows drawn
    float sx = 1.0f;     // source columns per destination column, at most 1
    float sy = 1.0f;     // source rows per destination row
    // Merge only: per-destination-pixel mask (index row * pitch + column; null =
    // no mask, every pixel counts as <= 0) and the weight w of the new layer.
    const float* mask = nullptr;
    float weight = 0.7f;
    int clearRows = 0;   // up-scale only, see above
};

// Bilinear magnification of all four bytes (and of the value).
void UpscaleImage(const ImageUpscaleArgs& args);

// Bilinear magnification merged over the destination's existing content.
void UpscaleAndMergeImage(const ImageUpscaleArgs& args);

}  // namespace zrvolume
