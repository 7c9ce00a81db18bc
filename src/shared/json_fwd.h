#pragma once

// The name of the program's JSON document type, for headers that declare conversions or take a
// document by reference. The full nlohmann header is heavy to compile, so only source files that
// build, read or write documents include shared/json.h.

#include <nlohmann/json_fwd.hpp>

namespace vumo {

using Json = nlohmann::json;

}  // namespace vumo
