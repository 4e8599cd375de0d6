// Every parameter key the render plug-in reads, with its type tag: the one
// list that request files (and every other host front end) are checked
// against. The module reads each key by exact name and type and ignores
// anything else, so a misspelt key or one under the wrong tag would otherwise
// go unnoticed and quietly change the picture (a thin slice instead of a slab).
#pragma once

#include <string>
#include <vector>

namespace zrio {

// The keys, e.g. "_float_PlaneThickness", in the order of the module's reads.
const std::vector<std::string>& ModuleKeys();

bool IsModuleKey(const std::string& key);

// The known key nearest to `key`: the same name under another tag first, then
// the smallest edit distance (ignoring case); empty when nothing is close.
std::string NearestModuleKey(const std::string& key);

// The texts "_string_RenderingSourceType" may hold for a request the hosts
// hand on: "SECTIONAL_VOLUME", "SECTIONAL_MESH".
const std::vector<std::string>& RenderingSourceTypes();

// The render modes of "_int_VolumeRayCastType" that draw something.
const std::vector<int>& RenderModes();

}  // namespace zrio
