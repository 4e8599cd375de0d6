// The layers of a slab, shared by the planar and the curved slabs: round(T /
// step) of them (rounded in double, so that 20 mm at 0.4 mm is 50 layers
// whichever way the quotient's last bit falls), at least one, step apart. A
// non-positive or non-finite step gives one layer and a zero step.
#pragma once

#include <cmath>

namespace zrvolume {

struct SlabLayers {
    int count = 1;
    float step = 0.0f;
};

inline SlabLayers LayersOfSlab(float thickness, float step) {
    SlabLayers layers;
    if (!std::isfinite(step) || !(step > 0.0f)) return layers;
    layers.step = step;
    const double count = std::floor(static_cast<double>(thickness) / step + 0.5);
    if (count > 1.0) layers.count = count < 1e9 ? static_cast<int>(count) : 1000000000;
    return layers;
}

}  // namespace zrvolume
