// The files of the page, compiled into the program. CMake writes their bytes from the folder web/.
#pragma once

#include <span>
#include <string_view>

namespace sim {

struct WebAsset {
    std::string_view path;  // "/app.js"; the page itself is "/"
    std::string_view type;  // for Content-Type
    std::string_view body;
};

std::span<const WebAsset> web_assets();

}  // namespace sim
