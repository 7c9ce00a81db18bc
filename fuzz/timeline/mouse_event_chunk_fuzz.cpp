// Chunk files of pointer events come from disk and may be damaged. Decoding must fail with a
// DecodingError or succeed, and what decodes must encode back to the same records.

#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "shared/json.h"
#include "timeline/mouse_event.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vumo;
  std::vector<MouseEvent> events;
  try {
    Json document = parseJson(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!document.is_array()) return 0;
    for (const Json& record : document) events.push_back(record.get<MouseEvent>());
  } catch (const DecodingError&) {
    return 0;
  }
  for (const MouseEvent& event : events) {
    Json encoded = event;
    if (parseJson(encodeCompact(encoded)).get<MouseEvent>() != event) std::abort();
  }
  return 0;
}
