// The page's files, built into the agent (agent/web/, turned into bytes by
// embed_web.cmake): one binary to install, and a page that always matches the
// agent's JSON. About 20 KB.
#pragma once

#include <string_view>

struct WebAsset {
    std::string_view path;  // as requested: "/", "/app.js", ...
    std::string_view type;  // Content-Type
    std::string_view body;
};

// The file served at PATH; nullptr: none.
const WebAsset *findWebAsset(std::string_view path);
