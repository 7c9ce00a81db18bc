#pragma once

// The catalogue of device frames: bitmaps of phones and computers that the recording can be shown
// inside. The catalogue and its images live in the program's resources folder (`device-frames/…`,
// see shared/resources.h); the renderer loads the images.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "shared/error.h"
#include "shared/geometry.h"
#include "shared/json_fwd.h"
#include "shared/name_table.h"
#include "timeline/scene_layout.h"

namespace vumo {

enum class DeviceFrameFamily { phone, desktop };

template <>
struct EnumNames<DeviceFrameFamily> {
  static constexpr std::string_view typeName = "device family";
  static constexpr NameTable<DeviceFrameFamily, 2> table{{
      {DeviceFrameFamily::phone, "phone"},
      {DeviceFrameFamily::desktop, "desktop"},
  }};
};

struct DeviceFrameVariant {
  std::string id;    // the `assetID` a timeline stores
  std::string name;  // shown to the user
  std::string file;  // image path relative to the resources folder
  bool isDefault = false;

  friend bool operator==(const DeviceFrameVariant&, const DeviceFrameVariant&) = default;
};

void to_json(Json& j, const DeviceFrameVariant& variant);
void from_json(const Json& j, DeviceFrameVariant& variant);

struct DeviceFrameDescriptor {
  std::string id;
  std::string name;
  std::int64_t priority = 0;      // lower comes first in pickers
  PixelSize outerPixelSize;       // size of every variant's bitmap
  RectValue screenRect;           // the transparent screen area within the bitmap, in pixels
  double screenCornerRadius = 0;  // pixels of the bitmap
  std::vector<DeviceFrameVariant> variants;
  std::optional<std::vector<std::string>> legacyAssetIDs;  // older ids that still resolve here
  std::optional<DeviceFrameFamily> family;

  const DeviceFrameVariant& defaultVariant() const;
  double screenAspectRatio() const { return screenRect.width / screenRect.height; }

  friend bool operator==(const DeviceFrameDescriptor&, const DeviceFrameDescriptor&) = default;
};

void to_json(Json& j, const DeviceFrameDescriptor& descriptor);
void from_json(const Json& j, DeviceFrameDescriptor& descriptor);

struct DeviceFrameSelection {
  DeviceFrameDescriptor descriptor;
  DeviceFrameVariant variant;
};

class DeviceFrameCatalogError : public Error {
 public:
  enum class Case { missingAsset, missingCatalog, invalidCatalog };

  static DeviceFrameCatalogError missingAsset(const std::string& file);
  static DeviceFrameCatalogError missingCatalog();
  static DeviceFrameCatalogError invalidCatalog(const std::string& reason);

  Case kind() const noexcept { return kind_; }
  // The missing image for `missingAsset`, the reason for `invalidCatalog`.
  const std::string& detail() const noexcept { return detail_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  DeviceFrameCatalogError(Case kind, std::string detail);
  Case kind_;
  std::string detail_;
};

struct DeviceFrameCatalog {
  static constexpr std::int64_t currentSchemaVersion = 1;
  // Two aspect ratios within this of each other (after rounding both to 0.001) are compatible.
  static constexpr double aspectTolerance = 0.02;

  std::int64_t schemaVersion = currentSchemaVersion;
  std::vector<DeviceFrameDescriptor> devices;

  // The catalogue of the program's resources folder, loaded and checked once: `missingCatalog`
  // when the program has no resources folder, else as `load`.
  static const DeviceFrameCatalog& bundled();
  // Parses and checks a catalogue document; anything wrong is `invalidCatalog`.
  static DeviceFrameCatalog decode(std::string_view jsonText);
  // Reads `device-frames/catalog.json` from a resources folder: `missingCatalog` if there is
  // none, `invalidCatalog` if it does not decode; then `validate`.
  static DeviceFrameCatalog load(const std::filesystem::path& resourceDirectory);

  // Every variant's image must exist in the resources folder, else `missingAsset(file)`.
  void validate(const std::filesystem::path& resourceDirectory) const;

  // The device and variant an asset id names: a variant id, or a device id or legacy id (which
  // name the device's default variant). None if unknown.
  std::optional<DeviceFrameSelection> descriptor(std::string_view assetID) const;
  // Devices whose screen aspect matches the source's, in priority order.
  std::vector<DeviceFrameDescriptor> compatibleDevices(SizeValue sourceSize) const;
  // Devices of family `desktop`, in priority order.
  std::vector<DeviceFrameDescriptor> desktopDevices() const;

  friend bool operator==(const DeviceFrameCatalog&, const DeviceFrameCatalog&) = default;
};

void to_json(Json& j, const DeviceFrameCatalog& catalog);
void from_json(const Json& j, DeviceFrameCatalog& catalog);

}  // namespace vumo
