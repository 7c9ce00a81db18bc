// Differential fuzzing of the chunk reader: for pointer events, geometry samples and cursor shape
// samples, the simdjson reader must accept exactly the chunks that the records' from_json
// accepts, and produce the same records. Anything but a DecodingError is a crash.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <vector>

#include "project/chunk_reader.h"
#include "shared/error.h"
#include "shared/json.h"

namespace {

template <class Record>
std::optional<std::vector<Record>> documentReader(std::string_view bytes) {
  try {
    vumo::Json document = vumo::parseJson(bytes);
    vumo::json::requireArray(document, "");
    std::vector<Record> records;
    for (const vumo::Json& element : document) records.push_back(vumo::json::as<Record>(element, ""));
    return records;
  } catch (const vumo::DecodingError&) {
    return std::nullopt;
  }
}

template <class Record, class Decode>
void compare(std::string_view bytes, const char* name, Decode decode) {
  std::optional<std::vector<Record>> fast;
  try {
    fast = decode(bytes);
  } catch (const vumo::DecodingError&) {
  }
  std::optional<std::vector<Record>> reference = documentReader<Record>(bytes);
  if (fast.has_value() != reference.has_value() || (fast && !(*fast == *reference))) {
    std::fprintf(stderr, "%s: chunk reader %s, document reader %s\n", name, fast ? "accepted" : "refused",
                 reference ? "accepted" : "refused");
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static vumo::ChunkReader reader;
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  compare<vumo::MouseEvent>(bytes, "MouseEvent", [](std::string_view b) { return reader.decodeMouseEvents(b); });
  compare<vumo::GeometrySample>(bytes, "GeometrySample",
                                [](std::string_view b) { return reader.decodeGeometrySamples(b); });
  compare<vumo::CursorShapeSample>(bytes, "CursorShapeSample",
                                   [](std::string_view b) { return reader.decodeCursorShapeSamples(b); });
  return 0;
}
