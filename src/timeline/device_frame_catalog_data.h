#pragma once

#include <string_view>

namespace vumo::resources {

// The bytes of resources/device-frames/catalog.json, embedded at build time.
std::string_view deviceFrameCatalogJson();

}  // namespace vumo::resources
