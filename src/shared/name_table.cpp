#include "shared/name_table.h"

#include "shared/error.h"

namespace vumo {

void throwUnknownName(std::string_view typeName, std::string_view word) {
  throw DecodingError("Unsupported " + std::string(typeName) + ": " + std::string(word));
}

void throwNameNotAString(std::string_view typeName) {
  throw DecodingError("Expected a string for " + std::string(typeName));
}

}  // namespace vumo
