// The viewer's page, built into the program from tools/zrslice/view/page at
// build time (page_assets.cmake), so that it needs no files and no network.
#pragma once

#include <cstddef>
#include <string>

namespace zrview {

struct PageAsset {
    const unsigned char* bytes = nullptr;
    size_t size = 0;
    const char* contentType = "";
};

// The asset served at `path` ("/" is index.html); nullptr when there is none.
const PageAsset* FindPageAsset(const std::string& path);

}  // namespace zrview
