// The demo gallery: request documents that show each capability of the module
// on the built-in phantoms, rendered one picture each, with the request file
// written beside every picture so that any of them can be replayed and edited,
// and a contact sheet of all pictures.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "io/render_run.h"

namespace zrslice {

struct DemoItem {
    std::string name;         // file stem, e.g. "03-slab-maximum"
    std::string description;  // what the picture shows
    nlohmann::json document;  // the request file
};

// The gallery's request documents, in order, at `size` pixels square.
std::vector<DemoItem> DemoItems(int size = 256);

// Renders every item into `folder` (<name>.png, <name>.json request, and the
// outputs of render) and writes contact-sheet.png and index.md. `log` gets
// one line per picture unless null.
void RunDemo(const std::string& folder, zrio::PluginSession& plugin, int size, bool quiet);

// A request document as written to disk: indented, with number arrays kept
// on one line.
std::string RequestFileText(const nlohmann::json& document);

// Tiles pictures in rows of `columns` over a dark background, each with its
// caption (upper-case letters, digits and '-' are drawn) under it.
zrio::RgbaImage ContactSheet(const std::vector<zrio::RgbaImage>& pictures, const std::vector<std::string>& captions,
                       int columns);

}  // namespace zrslice
