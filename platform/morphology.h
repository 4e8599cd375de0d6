// Stand-in for the morphology filter library the module runs beside: library
// set-up and tear-down, and grey-level erosion and dilation of 8-bit images
// with a square structuring element.
#pragma once

#include <cstdint>

bool MoFiInitializeDx11();
void MoFiDeinitializeDx11();
bool MoFiIsInitialized();

// Minimum (erosion) or maximum (dilation) over the (2 radius + 1)^2 window
// around each pixel; the window is clipped at the image border. `source` and
// `destination` hold width * height bytes row by row and must not overlap.
// False, with nothing written, before initialisation or for bad arguments.
bool MorphErosionFilter2D(const uint8_t* source, uint8_t* destination, int width, int height, int radius);
bool MorphDilationFilter2D(const uint8_t* source, uint8_t* destination, int width, int height, int radius);
