#include "morphology.h"

#include <algorithm>
#include <atomic>
#include <vector>

namespace {

std::atomic<int> initCount{0};

// Separable min/max filter: rows first into a scratch image, then columns.
template <class Pick>
bool Filter2D(const uint8_t* source, uint8_t* destination, int width, int height, int radius, Pick pick) {
    if (!MoFiIsInitialized() || !source || !destination || width <= 0 || height <= 0 || radius < 0) return false;
    std::vector<uint8_t> rows(static_cast<size_t>(width) * height);
    for (int y = 0; y < height; ++y) {
        const uint8_t* in = source + static_cast<size_t>(y) * width;
        uint8_t* out = rows.data() + static_cast<size_t>(y) * width;
        for (int x = 0; x < width; ++x) {
            uint8_t v = in[x];
            for (int k = std::max(0, x - radius); k <= std::min(width - 1, x + radius); ++k) v = pick(v, in[k]);
            out[x] = v;
        }
    }
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            uint8_t v = rows[static_cast<size_t>(y) * width + x];
            for (int k = std::max(0, y - radius); k <= std::min(height - 1, y + radius); ++k)
                v = pick(v, rows[static_cast<size_t>(k) * width + x]);
            destination[static_cast<size_t>(y) * width + x] = v;
        }
    }
    return true;
}

}  // namespace

bool MoFiInitializeDx11() {
    ++initCount;
    return true;
}

void MoFiDeinitializeDx11() {
    int current = initCount.load();
    while (current > 0 && !initCount.compare_exchange_weak(current, current - 1)) {
    }
}

bool MoFiIsInitialized() { return initCount.load() > 0; }

bool MorphErosionFilter2D(const uint8_t* source, uint8_t* destination, int width, int height, int radius) {
    return Filter2D(source, destination, width, height, radius,
                    [](uint8_t a, uint8_t b) { return std::min(a, b); });
}

bool MorphDilationFilter2D(const uint8_t* source, uint8_t* destination, int width, int height, int radius) {
    return Filter2D(source, destination, width, height, radius,
                    [](uint8_t a, uint8_t b) { return std::max(a, b); });
}
