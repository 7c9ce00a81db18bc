#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "project/cursor_records.h"

namespace vumo {

// The cursor images of one package (`cursor/assets/`): each distinct shape once, as `<id>.png`
// with a `<id>.json` descriptor beside it. Shared by the recording's threads; guards itself.
class CursorAssetStore {
 public:
  // Creates the folder with its parents and loads the descriptors already there.
  explicit CursorAssetStore(std::filesystem::path assetsDirectory);
  CursorAssetStore(const CursorAssetStore&) = delete;
  CursorAssetStore& operator=(const CursorAssetStore&) = delete;

  // The id is the SHA-256 of the PNG bytes followed by the big-endian IEEE 754 bits of width,
  // height, hot spot x and y, so equal images with other hot spots are other assets. A known id
  // writes nothing. The PNG is written before its descriptor, so a descriptor never names a
  // missing image.
  CursorAssetDescriptor store(std::string_view pngData, SizeValue logicalSize, PointValue hotSpot);

  // Sorted by id: the order they take in the manifest.
  std::vector<CursorAssetDescriptor> descriptors() const;

  // The `.json` descriptors of a folder (extension case-insensitive), sorted by id. Files that
  // cannot be read or decoded, or whose id is not a SHA-256 in lower-case hex, are skipped, and a folder that cannot be
  // listed gives nothing: cursor images are decoration, never a reason to lose a recording.
  static std::vector<CursorAssetDescriptor> readDescriptors(const std::filesystem::path& assetsDirectory);

  static std::string assetID(std::string_view pngData, SizeValue logicalSize, PointValue hotSpot);

 private:
  std::filesystem::path assetsDirectory_;
  mutable std::mutex lock_;
  std::map<std::string, CursorAssetDescriptor> descriptorsByID_;
};

}  // namespace vumo
