#include "timeline/device_frame_catalog.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <system_error>

#include "shared/document_limits.h"
#include "shared/files.h"
#include "shared/json.h"
#include "shared/resources.h"

namespace vumo {

namespace {

const char* const catalogRelativePath = "device-frames/catalog.json";

[[noreturn]] void invalid(const std::string& reason) { throw DeviceFrameCatalogError::invalidCatalog(reason); }

bool isSafeRelativePath(const std::string& file) {
  if (file.empty()) return false;
  std::filesystem::path path(file);
  if (path.is_absolute()) return false;
  for (const auto& part : path)
    if (part == "..") return false;
  return true;
}

double roundedAspect(double aspect) { return std::round(aspect * 1000.0) / 1000.0; }

// Everything a renderer relies on without checking again.
void check(const DeviceFrameCatalog& catalog) {
  if (catalog.schemaVersion < 1 || catalog.schemaVersion > DeviceFrameCatalog::currentSchemaVersion)
    invalid(fmt::format("unsupported schema {}", catalog.schemaVersion));
  if (catalog.devices.empty()) invalid("no devices");
  std::set<std::string> assetIDs;  // every id a timeline may store resolves to one place
  auto claim = [&](const std::string& id) {
    if (id.empty()) invalid("empty id");
    if (!assetIDs.insert(id).second) invalid("duplicate id " + id);
  };
  for (const auto& device : catalog.devices) {
    claim(device.id);
    if (device.name.empty()) invalid("device " + device.id + " has no name");
    const auto& outer = device.outerPixelSize;
    const auto& screen = device.screenRect;
    if (outer.width <= 0 || outer.height <= 0) invalid("device " + device.id + " has no size");
    if (!std::isfinite(screen.x) || !std::isfinite(screen.y) || !(screen.width > 0) || !(screen.height > 0) ||
        !std::isfinite(screen.width) || !std::isfinite(screen.height) || screen.x < 0 || screen.y < 0 ||
        screen.x + screen.width > static_cast<double>(outer.width) ||
        screen.y + screen.height > static_cast<double>(outer.height))
      invalid("device " + device.id + " has a screen outside its frame");
    if (!std::isfinite(device.screenCornerRadius) || device.screenCornerRadius < 0 ||
        device.screenCornerRadius * 2 > std::min(screen.width, screen.height))
      invalid("device " + device.id + " has an impossible corner radius");
    if (device.variants.empty()) invalid("device " + device.id + " has no variants");
    auto defaults =
        std::count_if(device.variants.begin(), device.variants.end(), [](const auto& v) { return v.isDefault; });
    if (defaults != 1) invalid("device " + device.id + " needs exactly one default variant");
    for (const auto& variant : device.variants) {
      claim(variant.id);
      if (variant.name.empty()) invalid("variant " + variant.id + " has no name");
      if (!isSafeRelativePath(variant.file)) invalid("variant " + variant.id + " has a bad file path");
    }
    if (device.legacyAssetIDs)
      for (const auto& legacy : *device.legacyAssetIDs) claim(legacy);
  }
}

std::vector<DeviceFrameDescriptor> inPriorityOrder(std::vector<DeviceFrameDescriptor> devices) {
  std::stable_sort(devices.begin(), devices.end(), [](const auto& a, const auto& b) {
    if (a.priority != b.priority) return a.priority < b.priority;
    return a.id < b.id;
  });
  return devices;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Errors

namespace {

using CatalogCase = DeviceFrameCatalogError::Case;

constexpr ErrorCase<CatalogCase> errorCases[] = {
    {CatalogCase::missingAsset, "missingAsset", "deviceFrame.error.missingAsset",
     "The device frame image {} is missing.", "execution", ErrorKind::failure},
    {CatalogCase::missingCatalog, "missingCatalog", "deviceFrame.error.missingCatalog",
     "The device frame catalogue is missing.", "execution", ErrorKind::failure},
    {CatalogCase::invalidCatalog, "invalidCatalog", "deviceFrame.error.invalidCatalog",
     "The device frame catalogue is invalid: {}.", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(errorCases));

}  // namespace

DeviceFrameCatalogError::DeviceFrameCatalogError(Case kind, std::string detail)
    : Error(catalogue(), kind, detail), kind_(kind), detail_(std::move(detail)) {}

DeviceFrameCatalogError DeviceFrameCatalogError::missingAsset(const std::string& file) {
  return DeviceFrameCatalogError(Case::missingAsset, file);
}

DeviceFrameCatalogError DeviceFrameCatalogError::missingCatalog() {
  return DeviceFrameCatalogError(Case::missingCatalog, {});
}

DeviceFrameCatalogError DeviceFrameCatalogError::invalidCatalog(const std::string& reason) {
  return DeviceFrameCatalogError(Case::invalidCatalog, reason);
}

const ErrorCatalogue<DeviceFrameCatalogError::Case>& DeviceFrameCatalogError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"DeviceFrameCatalogError", "Editor", errorCases};
  return catalogue;
}

// ---------------------------------------------------------------------------------------------
// JSON

void to_json(Json& j, const DeviceFrameVariant& variant) {
  j = Json{{"id", variant.id}, {"name", variant.name}, {"file", variant.file}, {"isDefault", variant.isDefault}};
}

void from_json(const Json& j, DeviceFrameVariant& variant) {
  json::requireObject(j, "variant");
  variant.id = json::required<std::string>(j, "id");
  variant.name = json::required<std::string>(j, "name");
  variant.file = json::required<std::string>(j, "file");
  variant.isDefault = json::required<bool>(j, "isDefault");
}

void to_json(Json& j, const DeviceFrameDescriptor& d) {
  j = Json{{"id", d.id},
           {"name", d.name},
           {"priority", d.priority},
           {"outerPixelSize", d.outerPixelSize},
           {"screenRect", d.screenRect},
           {"screenCornerRadius", d.screenCornerRadius},
           {"variants", d.variants}};
  json::setOptional(j, "legacyAssetIDs", d.legacyAssetIDs);
  json::setOptional(j, "family", d.family);
}

void from_json(const Json& j, DeviceFrameDescriptor& d) {
  json::requireObject(j, "device");
  d.id = json::required<std::string>(j, "id");
  d.name = json::required<std::string>(j, "name");
  d.priority = json::required<std::int64_t>(j, "priority");
  d.outerPixelSize = json::required<PixelSize>(j, "outerPixelSize");
  d.screenRect = json::required<RectValue>(j, "screenRect");
  d.screenCornerRadius = json::required<double>(j, "screenCornerRadius");
  d.variants = json::required<std::vector<DeviceFrameVariant>>(j, "variants");
  d.legacyAssetIDs = json::optional<std::vector<std::string>>(j, "legacyAssetIDs");
  d.family = json::optional<DeviceFrameFamily>(j, "family");
}

void to_json(Json& j, const DeviceFrameCatalog& catalog) {
  j = Json{{"schemaVersion", catalog.schemaVersion}, {"devices", catalog.devices}};
}

void from_json(const Json& j, DeviceFrameCatalog& catalog) {
  json::requireObject(j, "catalog");
  catalog.schemaVersion = json::required<std::int64_t>(j, "schemaVersion");
  catalog.devices = json::required<std::vector<DeviceFrameDescriptor>>(j, "devices");
}

// ---------------------------------------------------------------------------------------------
// Catalogue

const DeviceFrameVariant& DeviceFrameDescriptor::defaultVariant() const {
  for (const auto& variant : variants)
    if (variant.isDefault) return variant;
  return variants.front();  // a checked catalogue always has one default
}

DeviceFrameCatalog DeviceFrameCatalog::decode(std::string_view jsonText) {
  DeviceFrameCatalog catalog;
  try {
    catalog = json::as<DeviceFrameCatalog>(parseJson(jsonText), "catalog");
  } catch (const DecodingError& error) {
    invalid(error.what());
  }
  check(catalog);
  return catalog;
}

const DeviceFrameCatalog& DeviceFrameCatalog::bundled() {
  // Parsed once; the catalogue never changes while the program runs.
  struct Loaded {
    std::optional<DeviceFrameCatalog> catalog;
    std::optional<DeviceFrameCatalogError> error;
  };
  static const Loaded loaded = [] {
    Loaded result;
    try {
      auto folder = ResourceLocator::directory();
      if (!folder) throw DeviceFrameCatalogError::missingCatalog();
      result.catalog = load(*folder);
    } catch (const DeviceFrameCatalogError& error) {
      result.error = error;
    }
    return result;
  }();
  if (loaded.error) throw *loaded.error;
  return *loaded.catalog;
}

DeviceFrameCatalog DeviceFrameCatalog::load(const std::filesystem::path& resourceDirectory) {
  const auto path = resourceDirectory / catalogRelativePath;
  std::error_code ec;
  if (!std::filesystem::is_regular_file(path, ec)) throw DeviceFrameCatalogError::missingCatalog();
  std::string text;
  try {
    text = readFile(path, documentLimits::resourceBytes);
  } catch (const FileError&) {
    throw DeviceFrameCatalogError::missingCatalog();
  }
  DeviceFrameCatalog catalog = decode(text);
  catalog.validate(resourceDirectory);
  return catalog;
}

void DeviceFrameCatalog::validate(const std::filesystem::path& resourceDirectory) const {
  std::error_code ec;
  for (const auto& device : devices)
    for (const auto& variant : device.variants)
      if (!std::filesystem::is_regular_file(resourceDirectory / variant.file, ec))
        throw DeviceFrameCatalogError::missingAsset(variant.file);
}

std::optional<DeviceFrameSelection> DeviceFrameCatalog::descriptor(std::string_view assetID) const {
  for (const auto& device : devices) {
    for (const auto& variant : device.variants)
      if (variant.id == assetID) return DeviceFrameSelection{device, variant};
    bool named = device.id == assetID;
    if (!named && device.legacyAssetIDs)
      named = std::find(device.legacyAssetIDs->begin(), device.legacyAssetIDs->end(), assetID) !=
              device.legacyAssetIDs->end();
    if (named) return DeviceFrameSelection{device, device.defaultVariant()};
  }
  return std::nullopt;
}

std::vector<DeviceFrameDescriptor> DeviceFrameCatalog::compatibleDevices(SizeValue sourceSize) const {
  std::vector<DeviceFrameDescriptor> result;
  if (!(sourceSize.width > 0) || !(sourceSize.height > 0)) return result;
  const double sourceAspect = roundedAspect(sourceSize.width / sourceSize.height);
  for (const auto& device : devices)
    if (std::fabs(roundedAspect(device.screenAspectRatio()) - sourceAspect) <= aspectTolerance + 1e-9)
      result.push_back(device);
  return inPriorityOrder(std::move(result));
}

std::vector<DeviceFrameDescriptor> DeviceFrameCatalog::desktopDevices() const {
  std::vector<DeviceFrameDescriptor> result;
  for (const auto& device : devices)
    if (device.family == DeviceFrameFamily::desktop) result.push_back(device);
  return inPriorityOrder(std::move(result));
}

}  // namespace vumo
