// Drives the module's DoModule with one decoded fuzz input (request_encoding.h)
// over a small fixed scene: an unsigned 16-bit ramp volume with grey, colour
// and opacity tables and a label mask, a signed 8-bit volume, a float volume, a
// sphere, a torus and a point set. Each input gets a fresh image; the scene's
// objects get their own parameters back before every input. A wrong parameter
// type makes DoModule throw std::bad_any_cast, and an empty grey-level curve
// ("_vlist_DOUBLE2_ITF") std::out_of_range("invalid vector subscript"): both
// are its documented answers, not failures. Anything else that escapes is.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zrfuzz {

// Scene entries of the fixed scene, in order.
enum SceneSlot : int { kRampVolume, kCharVolume, kFloatVolume, kSphereMesh, kTorusMesh, kPointSet, kSlotCount };

// Number of views (image size, camera) an input may choose from.
int ViewCount();

// Runs every request of the input; returns 0 (the libFuzzer convention).
int RunDoModuleInput(const uint8_t* data, size_t size);

}  // namespace zrfuzz
