#include "timeline/device_frame_catalog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <set>

#include "shared/files.h"
#include "shared/resources.h"
#include "support/test_support.h"

namespace vumo {
namespace {

std::filesystem::path sourceResources() {
  const char* root = std::getenv("VUMO_SOURCE_DIR");
  return std::filesystem::path(root != nullptr ? root : VUMO_TEST_SOURCE_DIR) / "resources";
}

// Width, height and colour type from a PNG's header chunk.
struct PngHeader {
  std::uint32_t width = 0, height = 0;
  int colourType = -1;
};

PngHeader readPngHeader(const std::filesystem::path& path) {
  std::string bytes = readFile(path, SIZE_MAX);
  PngHeader header;
  if (bytes.size() < 26 || bytes.compare(1, 3, "PNG") != 0 || bytes.compare(12, 4, "IHDR") != 0) return header;
  auto u32 = [&](std::size_t at) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at])) << 24 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + 1])) << 16 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + 2])) << 8 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + 3]));
  };
  header.width = u32(16);
  header.height = u32(20);
  header.colourType = static_cast<unsigned char>(bytes[25]);
  return header;
}

TEST(DeviceFrameCatalog, TheBundledCatalogueHasPhonesOfTwoShapesAndComputers) {
  const DeviceFrameCatalog& catalog = DeviceFrameCatalog::bundled();
  EXPECT_GE(catalog.devices.size(), 3u);
  std::set<long> phoneAspects;  // in thousandths
  int desktops = 0;
  for (const auto& device : catalog.devices) {
    if (device.family == DeviceFrameFamily::phone) phoneAspects.insert(std::lround(device.screenAspectRatio() * 1000));
    if (device.family == DeviceFrameFamily::desktop) ++desktops;
  }
  EXPECT_GE(phoneAspects.size(), 2u);
  EXPECT_GE(desktops, 1);
  EXPECT_GE(catalog.desktopDevices().size(), 1u);
}

TEST(DeviceFrameCatalog, TheBundledCatalogueIsTheResourceFileAndItsImagesExist) {
  DeviceFrameCatalog onDisk = DeviceFrameCatalog::load(sourceResources());
  EXPECT_EQ(onDisk, DeviceFrameCatalog::bundled());
  for (const auto& device : onDisk.devices) {
    for (const auto& variant : device.variants) {
      PngHeader header = readPngHeader(sourceResources() / variant.file);
      EXPECT_EQ(header.width, static_cast<std::uint32_t>(device.outerPixelSize.width)) << variant.file;
      EXPECT_EQ(header.height, static_cast<std::uint32_t>(device.outerPixelSize.height)) << variant.file;
      EXPECT_EQ(header.colourType, 6) << variant.file << " must carry alpha for the screen hole";
      EXPECT_LT(std::filesystem::file_size(sourceResources() / variant.file), 100'000u) << variant.file;
    }
  }
}

TEST(DeviceFrameCatalog, AssetIDsResolveThroughVariantsDevicesAndLegacyIDs) {
  const DeviceFrameCatalog& catalog = DeviceFrameCatalog::bundled();
  auto silver = catalog.descriptor("vumo-phone-slim-silver");
  ASSERT_TRUE(silver);
  EXPECT_EQ(silver->descriptor.id, "vumo-phone-slim");
  EXPECT_EQ(silver->variant.id, "vumo-phone-slim-silver");
  auto legacy = catalog.descriptor("phone-slim");
  ASSERT_TRUE(legacy);
  EXPECT_EQ(legacy->descriptor.id, "vumo-phone-slim");
  EXPECT_TRUE(legacy->variant.isDefault);
  auto device = catalog.descriptor("vumo-laptop");
  ASSERT_TRUE(device);
  EXPECT_EQ(device->variant.id, "vumo-laptop-space-gray");
  EXPECT_FALSE(catalog.descriptor("vumo-phone-slim-gold"));
  EXPECT_FALSE(catalog.descriptor(""));
}

TEST(DeviceFrameCatalog, CompatibleDevicesMatchTheSourceAspectInPriorityOrder) {
  const DeviceFrameCatalog& catalog = DeviceFrameCatalog::bundled();
  auto ids = [](const std::vector<DeviceFrameDescriptor>& devices) {
    std::vector<std::string> result;
    for (const auto& d : devices) result.push_back(d.id);
    return result;
  };
  EXPECT_EQ(ids(catalog.compatibleDevices({1179, 2556})), std::vector<std::string>{"vumo-phone-slim"});
  EXPECT_EQ(ids(catalog.compatibleDevices({1080, 1920})), std::vector<std::string>{"vumo-phone-classic"});
  EXPECT_EQ(ids(catalog.compatibleDevices({2560, 1600})), std::vector<std::string>{"vumo-laptop"});
  EXPECT_EQ(ids(catalog.compatibleDevices({1920, 1080})), std::vector<std::string>{"vumo-display"});
  EXPECT_TRUE(catalog.compatibleDevices({1000, 1000}).empty());
  EXPECT_TRUE(catalog.compatibleDevices({0, 1000}).empty());
  EXPECT_EQ(ids(catalog.desktopDevices()), (std::vector<std::string>{"vumo-laptop", "vumo-display"}));
}

std::string catalogText(const std::string& devices) { return R"({"schemaVersion":1,"devices":[)" + devices + "]}"; }

std::string device(const std::string& id, const std::string& variants, const std::string& extra = "") {
  return R"({"id":")" + id + R"(","name":"Phone","priority":1,"outerPixelSize":{"width":100,"height":200},)" +
         R"("screenRect":{"x":10,"y":10,"width":80,"height":180},"screenCornerRadius":8,"variants":[)" + variants +
         "]" + extra + "}";
}

std::string variant(const std::string& id, bool isDefault, const std::string& file = "device-frames/x.png") {
  return R"({"id":")" + id + R"(","name":"Black","file":")" + file + R"(","isDefault":)" +
         (isDefault ? "true" : "false") + "}";
}

TEST(DeviceFrameCatalog, DecodingRejectsCataloguesARendererCouldNotTrust) {
  struct Case {
    const char* name;
    std::string text;
  };
  const Case cases[] = {
      {"not JSON", "{"},
      {"no devices", catalogText("")},
      {"schema 2", R"({"schemaVersion":2,"devices":[)" + device("a", variant("a-1", true)) + "]}"},
      {"no variants", catalogText(device("a", ""))},
      {"no default variant", catalogText(device("a", variant("a-1", false)))},
      {"two default variants", catalogText(device("a", variant("a-1", true) + "," + variant("a-2", true)))},
      {"duplicate variant ids", catalogText(device("a", variant("x", true)) + "," + device("b", variant("x", true)))},
      {"legacy id naming another variant",
       catalogText(device("a", variant("a-1", true)) + "," +
                   device("b", variant("b-1", true), R"(,"legacyAssetIDs":["a-1"])"))},
      {"absolute image path", catalogText(device("a", variant("a-1", true, "/etc/passwd")))},
      {"image path leaving the resources", catalogText(device("a", variant("a-1", true, "../secret.png")))},
      {"screen outside the frame",
       catalogText(
           R"({"id":"a","name":"A","priority":1,"outerPixelSize":{"width":100,"height":200},"screenRect":{"x":50,"y":10,"width":80,"height":180},"screenCornerRadius":0,"variants":[)" +
           variant("a-1", true) + "]}")},
      {"unknown family", catalogText(device("a", variant("a-1", true), R"(,"family":"tablet")"))},
  };
  for (const auto& c : cases) {
    try {
      DeviceFrameCatalog::decode(c.text);
      ADD_FAILURE() << c.name << ": accepted";
    } catch (const DeviceFrameCatalogError& error) {
      EXPECT_EQ(error.kind(), DeviceFrameCatalogError::Case::invalidCatalog) << c.name;
    }
  }
  EXPECT_NO_THROW(DeviceFrameCatalog::decode(catalogText(device("a", variant("a-1", true), R"(,"family":"phone")"))));
}

TEST(DeviceFrameCatalog, LoadingReportsAMissingCatalogueAndMissingImages) {
  testing::TemporaryDirectory folder;
  EXPECT_ERROR_CASE(DeviceFrameCatalog::load(folder.path()), DeviceFrameCatalogError,
                    DeviceFrameCatalogError::Case::missingCatalog);
  createDirectories(folder.path() / "device-frames");
  writeFileAtomically(folder.path() / "device-frames/catalog.json",
                      catalogText(device("a", variant("a-1", true, "device-frames/a.png"))));
  try {
    DeviceFrameCatalog::load(folder.path());
    FAIL();
  } catch (const DeviceFrameCatalogError& error) {
    EXPECT_EQ(error.kind(), DeviceFrameCatalogError::Case::missingAsset);
    EXPECT_EQ(error.detail(), "device-frames/a.png");
  }
  writeFileAtomically(folder.path() / "device-frames/a.png", "png");
  EXPECT_EQ(DeviceFrameCatalog::load(folder.path()).devices.size(), 1u);
}

TEST(DeviceFrameCatalog, TheResourceFolderIsFound) {
  auto found = ResourceLocator::directory();
  ASSERT_TRUE(found);
  EXPECT_NO_THROW(DeviceFrameCatalog::load(*found));
}

// ---------------------------------------------------------------------------------------------
// Layout

TEST(SceneLayout, ScreenRectFitsTheSourceInsideThePaddingAndCentresIt) {
  EXPECT_EQ(SceneLayout::screenRect({1920, 1080}, {1920, 1080}, 0), (RectValue{0, 0, 1920, 1080}));
  // 16:9 in 9:16 with the largest padding: the width limits the scale.
  RectValue r = SceneLayout::screenRect({1920, 1080}, {1080, 1920}, 0.18);
  EXPECT_DOUBLE_EQ(r.width, 1080 * 0.64);
  EXPECT_DOUBLE_EQ(r.height, 1080 * 0.64 * 1080 / 1920);
  EXPECT_DOUBLE_EQ(r.x, 1080 * 0.18);
  EXPECT_DOUBLE_EQ(r.y, (1920 - r.height) / 2);
  // A tall source in a wide output: the height limits.
  RectValue tall = SceneLayout::screenRect({1000, 2000}, {1920, 1080}, 0.1);
  EXPECT_DOUBLE_EQ(tall.height, 1080 * 0.8);
  EXPECT_DOUBLE_EQ(tall.width, 432);
  EXPECT_DOUBLE_EQ(tall.x + tall.width / 2, 960);
  for (SizeValue bad : {SizeValue{0, 1080}, SizeValue{1920, -1}})
    EXPECT_EQ(SceneLayout::screenRect(bad, {1920, 1080}, 0.1), RectValue{});
  EXPECT_EQ(SceneLayout::screenRect({1920, 1080}, {0, 1080}, 0.1), RectValue{});
}

TEST(SceneLayout, FitLeavesBarsAndFillCropsInsideADeviceScreen) {
  const RectValue phoneScreen{32, 24, 588, 1278};
  RectValue fit = contentRect(DeviceFrameContentMode::fit, {1920, 1080}, phoneScreen);
  EXPECT_DOUBLE_EQ(fit.width, 588);
  EXPECT_DOUBLE_EQ(fit.height, 588 * 1080.0 / 1920);
  EXPECT_GT(fit.y, phoneScreen.y);  // bars above and below
  EXPECT_DOUBLE_EQ(fit.y + fit.height / 2, phoneScreen.y + phoneScreen.height / 2);

  RectValue fill = contentRect(DeviceFrameContentMode::fill, {1920, 1080}, phoneScreen);
  EXPECT_DOUBLE_EQ(fill.height, 1278);
  EXPECT_GT(fill.width, phoneScreen.width);  // cropped left and right
  EXPECT_DOUBLE_EQ(fill.x + fill.width / 2, phoneScreen.x + phoneScreen.width / 2);

  EXPECT_EQ(contentRect(DeviceFrameContentMode::fill, {0, 5}, phoneScreen), phoneScreen);
}

}  // namespace
}  // namespace vumo
