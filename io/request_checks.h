// Requests that would draw nothing, said before the user is left with an
// empty picture. The module stays silent (or says little) about them by
// contract: a render mode it does not know, a fast-mode size of zero, a plane
// that misses every volume. Each check gives a warning line naming the request
// and the reason; the command-line host prints them, and its --strict option
// turns them into a refusal.
#pragma once

#include <string>
#include <vector>

#include "host/plugin_interface.h"
#include "request_file.h"

namespace zrio {

// Warnings for request `index` of `file` as it will run on `scene` (`entries`
// are the scene entries as enabled for that request).
std::vector<std::string> RequestWarnings(const RequestFile& file, const Scene& scene,
                                         const std::vector<zrobjects::SceneEntry>& entries, size_t index);

// True when no pixel of an RGBA picture is covered (every alpha byte 0).
bool PictureIsEmpty(const std::vector<uint8_t>& rgba);

}  // namespace zrio
