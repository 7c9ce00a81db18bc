#include "project/cursor_asset_store.h"

#include <algorithm>
#include <bit>
#include <cctype>
#include <cstdint>

#include "project/folder_listing.h"
#include "shared/digest.h"
#include "shared/document_limits.h"
#include "shared/files.h"
#include "shared/json.h"

namespace vumo {

namespace {

void appendBigEndian(std::string& bytes, double value) {
  auto bits = std::bit_cast<std::uint64_t>(value);
  for (int shift = 56; shift >= 0; shift -= 8) bytes.push_back(static_cast<char>((bits >> shift) & 0xff));
}

std::string lowercase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool isAssetID(std::string_view id) {
  return id.size() == 64 &&
         std::all_of(id.begin(), id.end(), [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

}  // namespace

CursorAssetStore::CursorAssetStore(std::filesystem::path assetsDirectory)
    : assetsDirectory_(std::move(assetsDirectory)) {
  createDirectories(assetsDirectory_);
  for (auto& descriptor : readDescriptors(assetsDirectory_)) descriptorsByID_[descriptor.id] = descriptor;
}

std::string CursorAssetStore::assetID(std::string_view pngData, SizeValue logicalSize, PointValue hotSpot) {
  std::string bytes(pngData);
  appendBigEndian(bytes, logicalSize.width);
  appendBigEndian(bytes, logicalSize.height);
  appendBigEndian(bytes, hotSpot.x);
  appendBigEndian(bytes, hotSpot.y);
  return sha256Hex(bytes);
}

CursorAssetDescriptor CursorAssetStore::store(std::string_view pngData, SizeValue logicalSize, PointValue hotSpot) {
  std::string id = assetID(pngData, logicalSize, hotSpot);
  std::lock_guard guard(lock_);
  if (auto found = descriptorsByID_.find(id); found != descriptorsByID_.end()) return found->second;
  CursorAssetDescriptor descriptor{id, "cursor/assets/" + id + ".png", logicalSize, hotSpot};
  writeFileAtomically(assetsDirectory_ / (id + ".png"), pngData);
  writeFileAtomically(assetsDirectory_ / (id + ".json"), encodeDocument(Json(descriptor)));
  descriptorsByID_.emplace(id, descriptor);
  return descriptor;
}

std::vector<CursorAssetDescriptor> CursorAssetStore::descriptors() const {
  std::lock_guard guard(lock_);
  std::vector<CursorAssetDescriptor> list;
  list.reserve(descriptorsByID_.size());
  for (const auto& [id, descriptor] : descriptorsByID_) list.push_back(descriptor);
  return list;
}

std::vector<CursorAssetDescriptor> CursorAssetStore::readDescriptors(const std::filesystem::path& assetsDirectory) {
  std::vector<CursorAssetDescriptor> list;
  for (const auto& path : visibleEntries(assetsDirectory)) {
    if (lowercase(path.extension().string()) != ".json") continue;
    try {
      auto descriptor = json::as<CursorAssetDescriptor>(parseJson(readFile(path, documentLimits::cursorAssetBytes)),
                                                        "CursorAssetDescriptor");
      // The id names the image file beside it, so anything but a digest could point elsewhere.
      if (isAssetID(descriptor.id)) list.push_back(std::move(descriptor));
    } catch (const SystemFileError&) {
      throw;  // the file may be fine; an answer without it would be wrong
    } catch (const Error&) {
      // Unreadable or foreign file: skipped, as documented.
    }
  }
  std::stable_sort(list.begin(), list.end(), [](const auto& a, const auto& b) { return a.id < b.id; });
  return list;
}

}  // namespace vumo
