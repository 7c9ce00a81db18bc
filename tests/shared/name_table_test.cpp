#include "shared/name_table.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "shared/json.h"
#include "shared/media_track_kind.h"

namespace vumo {

// A table with an older spelling, as some stored enumerations have.
enum class Shade { light, dark };

template <>
struct EnumNames<Shade> {
  static constexpr std::string_view typeName = "shade";
  static constexpr NameTable<Shade, 3> table{{
      {Shade::light, "light"},
      {Shade::dark, "dark"},
      {Shade::dark, "Dark"},
  }};
};

namespace {

std::string decodingMessage(const std::function<void()>& decode) {
  try {
    decode();
  } catch (const DecodingError& error) {
    return error.what();
  }
  return "(no error)";
}

TEST(NameTable, WordsBothWaysWithTheFirstSpellingWritten) {
  EXPECT_EQ(nameOf(Shade::dark), "dark");
  EXPECT_EQ(parseName<Shade>("Dark"), Shade::dark);
  EXPECT_EQ(parseName<Shade>("light"), Shade::light);
  EXPECT_EQ(parseName<Shade>("LIGHT"), std::nullopt);
  EXPECT_EQ(parseName<Shade>(""), std::nullopt);
  static_assert(nameOf(Shade::light) == "light", "usable where a constant is needed");
}

TEST(NameTable, JsonIsTheWordAndOlderSpellingsAreReadButNeverWritten) {
  EXPECT_EQ(Json(Shade::dark), Json("dark"));
  EXPECT_EQ(Json("Dark").get<Shade>(), Shade::dark);
  EXPECT_EQ(json::as<Shade>(Json("light"), "shade"), Shade::light);
  EXPECT_EQ(encodeCompact(Json{{"kind", MediaTrackKind::systemAudio}}), R"({"kind":"systemAudio"})");
  EXPECT_EQ(json::required<MediaTrackKind>(Json::parse(R"({"kind":"microphone"})"), "kind"),
            MediaTrackKind::microphone);
}

TEST(NameTable, AnUnknownWordFailsWithOneMessageNamingTheTypeAndTheWord) {
  struct Case {
    std::function<void()> decode;
    std::string message;
  };
  const Case cases[] = {
      {[] { decodeName<Shade>("grey"); }, "Unsupported shade: grey"},
      {[] { Json("grey").get<Shade>(); }, "Unsupported shade: grey"},
      {[] { json::as<Shade>(Json(""), "shade"); }, "Unsupported shade: "},
      {[] { json::required<MediaTrackKind>(Json::parse(R"({"kind":"webcam"})"), "kind"); },
       "Unsupported media track kind: webcam"},
      // Not a string at all: read through a key, the key is named; read bare, the type.
      {[] { json::required<MediaTrackKind>(Json::parse(R"({"kind":3})"), "kind"); }, "Expected a string for key kind"},
      {[] { Json(3).get<Shade>(); }, "Expected a string for shade"},
  };
  for (const auto& c : cases) EXPECT_EQ(decodingMessage(c.decode), c.message);
}

}  // namespace
}  // namespace vumo
