#include "project/cursor_asset_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "shared/digest.h"
#include "shared/files.h"
#include "shared/json.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;

TEST(CursorAssetStore, StoresEachShapeOnceAndReadsItsDescriptorsBack) {
  testing::TemporaryDirectory dir;
  fs::path folder = dir.path() / "cursor" / "assets";
  CursorAssetStore store(folder);
  auto a = store.store("png", {16, 24}, {1, 2});
  EXPECT_EQ(store.store("png", {16, 24}, {1, 2}), a);
  auto b = store.store("png", {16, 24}, {2, 2});
  EXPECT_NE(a.id, b.id);
  // png bytes, then width, height, hot spot x, y as big-endian doubles.
  std::string bytes = "png";
  for (std::uint64_t bits :
       {0x4030000000000000ull, 0x4038000000000000ull, 0x3ff0000000000000ull, 0x4000000000000000ull})
    for (int shift = 56; shift >= 0; shift -= 8) bytes.push_back(static_cast<char>((bits >> shift) & 0xff));
  EXPECT_EQ(a.id, sha256Hex(bytes));
  EXPECT_EQ(a.relativePath, "cursor/assets/" + a.id + ".png");
  EXPECT_EQ(readFile(folder / (a.id + ".png"), SIZE_MAX), "png");
  EXPECT_EQ(fs::directory_iterator(folder) == fs::directory_iterator(), false);

  writeFileAtomically(folder / "junk.json", "{");
  writeFileAtomically(folder / "EVIL.JSON",
                      encodeDocument(Json(CursorAssetDescriptor{"../../x", "p", {1, 1}, {0, 0}})));
  auto c = CursorAssetDescriptor{std::string(64, '0'), "cursor/assets/x.png", {1, 1}, {0, 0}};
  writeFileAtomically(folder / "UPPER.JSON", encodeDocument(Json(c)));
  auto read = CursorAssetStore::readDescriptors(folder);
  std::vector<CursorAssetDescriptor> expected{a, b, c};
  std::sort(expected.begin(), expected.end(), [](auto& x, auto& y) { return x.id < y.id; });
  EXPECT_EQ(read, expected);
  EXPECT_EQ(CursorAssetStore(folder).descriptors(), expected);
  EXPECT_TRUE(CursorAssetStore::readDescriptors(dir.path() / "missing").empty());
}

}  // namespace
}  // namespace vumo
