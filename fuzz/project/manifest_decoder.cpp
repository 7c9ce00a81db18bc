// Feeds arbitrary bytes to the manifest decoder. Anything but a DecodingError is a crash, and a
// manifest that decodes must survive encode-decode unchanged with stable text.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "project/project_manifest.h"
#include "shared/error.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  vumo::ProjectManifest manifest;
  try {
    manifest = vumo::decodeProjectManifest(bytes);
  } catch (const vumo::DecodingError&) {
    return 0;
  }
  std::string text = vumo::encodeProjectManifest(manifest);
  vumo::ProjectManifest again = vumo::decodeProjectManifest(text);
  if (!(again == manifest) || vumo::encodeProjectManifest(again) != text) {
    std::fprintf(stderr, "manifest did not survive a round trip:\n%s\n", text.c_str());
    std::abort();
  }
  return 0;
}
