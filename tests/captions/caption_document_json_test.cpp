#include <gtest/gtest.h>

#include <string>

#include "caption_fixtures.h"
#include "captions/caption_document.h"
#include "shared/json.h"

namespace vumo {
namespace {

using testing::cueId;
using testing::makeCue;
using testing::makeDocument;
using testing::makeWord;
using testing::ms;

// The form the program writes: sorted keys, two-space indentation, every style key present.
const char* const kCanonical = R"({
  "basedOnTimelineDigest": "bbbb",
  "cues": [
    {
      "end": {
        "nanoseconds": 2000000000
      },
      "highlights": [
        {
          "occurrence": 1,
          "text": "world"
        }
      ],
      "id": "00000000-0000-4000-8000-000000000001",
      "start": {
        "nanoseconds": 1000000000
      },
      "text": "Hello world",
      "words": [
        {
          "end": {
            "nanoseconds": 1500000000
          },
          "start": {
            "nanoseconds": 1000000000
          },
          "text": "Hello"
        }
      ]
    }
  ],
  "language": "en",
  "schemaVersion": 1,
  "sourceAudioDigest": "aaaa",
  "sourceTrack": "systemAudio",
  "style": {
    "appearance": "white-black-outline",
    "bottomPosition": 0.12,
    "fontScale": 0.9,
    "isEnabled": false,
    "maximumLines": 1
  }
})";

TEST(CaptionDocumentJsonTest, DecodesEveryFieldOfAFullDocument) {
  CaptionDocument document = decodeCaptionDocument(kCanonical);
  EXPECT_EQ(document.schemaVersion, 1);
  EXPECT_EQ(document.sourceTrack, MediaTrackKind::systemAudio);
  EXPECT_EQ(document.sourceAudioDigest, "aaaa");
  EXPECT_EQ(document.basedOnTimelineDigest, "bbbb");
  EXPECT_EQ(document.language, "en");
  EXPECT_EQ(document.style, (CaptionStyle{false, 1, CaptionAppearance::whiteWithBlackOutline, 0.9, 0.12}));
  ASSERT_EQ(document.cues.size(), 1u);
  EXPECT_EQ(document.cues[0], makeCue(1, 1000, 2000, "Hello world", {makeWord(1000, 1500, "Hello")}, {{"world", 1}}));
}

TEST(CaptionDocumentJsonTest, EncodesToTheCanonicalTextAndRoundTrips) {
  EXPECT_EQ(encodeCaptionDocument(decodeCaptionDocument(kCanonical)), kCanonical);
}

TEST(CaptionDocumentJsonTest, LeavesOutAnAbsentLanguageButAlwaysWritesWordsAndHighlights) {
  CaptionDocument document = makeDocument({makeCue(1, 0, 1000, "Hi")});
  document.language.reset();
  Json encoded = parseJson(encodeCaptionDocument(document));
  EXPECT_FALSE(encoded.contains("language"));
  EXPECT_EQ(encoded["cues"][0]["words"], Json::array());
  EXPECT_EQ(encoded["cues"][0]["highlights"], Json::array());
  EXPECT_EQ(encoded["style"], parseJson(R"({"appearance":"white-on-black","bottomPosition":0.08,"fontScale":1.0,
                                            "isEnabled":true,"maximumLines":2})"));
  EXPECT_EQ(decodeCaptionDocument(encodeCaptionDocument(document)), document);
}

TEST(CaptionDocumentJsonTest, OldDocumentsTakeTheDefaultsOfKeysTheyLack) {
  CaptionDocument document = decodeCaptionDocument(R"({
    "schemaVersion": 1, "sourceTrack": "microphone", "sourceAudioDigest": "", "basedOnTimelineDigest": "",
    "style": {"isEnabled": true, "maximumLines": 2},
    "cues": [
      {"id": "00000000-0000-4000-8000-000000000001", "start": {"nanoseconds": 0}, "end": {"nanoseconds": 5}, "text": "a"},
      {"id": "00000000-0000-4000-8000-000000000002", "start": {"nanoseconds": 5}, "end": {"nanoseconds": 9}, "text": "b",
       "words": null, "highlights": null}
    ]})");
  EXPECT_EQ(document.style, CaptionStyle::defaults());
  EXPECT_FALSE(document.language.has_value());
  for (const auto& cue : document.cues) {
    EXPECT_TRUE(cue.words.empty());
    EXPECT_TRUE(cue.highlights.empty());
  }
}

TEST(CaptionDocumentJsonTest, ToleratesOddButReadableInput) {
  CaptionDocument document = decodeCaptionDocument(R"({
    "schemaVersion": 1.0, "sourceTrack": "screen", "sourceAudioDigest": "x", "basedOnTimelineDigest": "y",
    "language": null, "futureKey": {"anything": [1, 2]},
    "style": {"isEnabled": false, "maximumLines": 7, "fontScale": 9, "bottomPosition": -3},
    "cues": [{"id": "abcdefab-cdef-4bcd-8bcd-abcdefabcdef", "start": {"nanoseconds": -4}, "end": {"nanoseconds": -8},
              "text": "  "}]})");
  // Decoding keeps values as written; validation is what refuses or clamps them.
  EXPECT_EQ(document.schemaVersion, 1);
  EXPECT_EQ(document.sourceTrack, MediaTrackKind::screen);
  EXPECT_FALSE(document.language.has_value());
  EXPECT_EQ(document.style.maximumLines, 7);
  EXPECT_EQ(document.style.fontScale, 9.0);
  EXPECT_EQ(document.style.bottomPosition, -3.0);
  EXPECT_EQ(document.cues[0].start.nanoseconds, -4);
  // A lower-case UUID reads, and is written back in the canonical upper case.
  EXPECT_EQ(document.cues[0].id.string(), "ABCDEFAB-CDEF-4BCD-8BCD-ABCDEFABCDEF");
  EXPECT_NE(encodeCaptionDocument(document).find("ABCDEFAB-CDEF-4BCD-8BCD-ABCDEFABCDEF"), std::string::npos);
}

TEST(CaptionDocumentJsonTest, RefusesDocumentsThatDoNotHaveTheShapeOfCaptions) {
  const std::string cue =
      R"({"id":"00000000-0000-4000-8000-000000000001","start":{"nanoseconds":0},"end":{"nanoseconds":5},"text":"a"})";
  auto documentWith =
      [](const std::string& style, const std::string& cues,
         const std::string& head =
             R"("schemaVersion":1,"sourceTrack":"microphone","sourceAudioDigest":"","basedOnTimelineDigest":"")") {
        return "{" + head + R"(,"style":)" + style + R"(,"cues":)" + cues + "}";
      };
  const std::string style = R"({"isEnabled":true,"maximumLines":2})";
  auto withCueKey = [&](const std::string& extra) {
    return documentWith(style, "[" + cue.substr(0, cue.size() - 1) + "," + extra + "}]");
  };

  struct Case {
    const char* label;
    std::string text;
  } cases[] = {
      {"not JSON", "{"},
      {"empty input", ""},
      {"a bare array", "[]"},
      {"trailing garbage", documentWith(style, "[]") + "x"},
      {"missing schemaVersion",
       documentWith(style, "[]", R"("sourceTrack":"microphone","sourceAudioDigest":"","basedOnTimelineDigest":"")")},
      {"fractional schemaVersion",
       documentWith(
           style, "[]",
           R"("schemaVersion":1.5,"sourceTrack":"microphone","sourceAudioDigest":"","basedOnTimelineDigest":"")")},
      {"schemaVersion as text",
       documentWith(
           style, "[]",
           R"("schemaVersion":"1","sourceTrack":"microphone","sourceAudioDigest":"","basedOnTimelineDigest":"")")},
      {"missing sourceTrack",
       documentWith(style, "[]", R"("schemaVersion":1,"sourceAudioDigest":"","basedOnTimelineDigest":"")")},
      {"unknown sourceTrack",
       documentWith(style, "[]",
                    R"("schemaVersion":1,"sourceTrack":"camera","sourceAudioDigest":"","basedOnTimelineDigest":"")")},
      {"kebab-case sourceTrack",
       documentWith(
           style, "[]",
           R"("schemaVersion":1,"sourceTrack":"system-audio","sourceAudioDigest":"","basedOnTimelineDigest":"")")},
      {"missing sourceAudioDigest",
       documentWith(style, "[]", R"("schemaVersion":1,"sourceTrack":"microphone","basedOnTimelineDigest":"")")},
      {"missing basedOnTimelineDigest",
       documentWith(style, "[]", R"("schemaVersion":1,"sourceTrack":"microphone","sourceAudioDigest":"")")},
      {"language as number",
       documentWith(
           style, "[]",
           R"("schemaVersion":1,"sourceTrack":"microphone","sourceAudioDigest":"","basedOnTimelineDigest":"","language":7)")},
      {"missing style",
       R"({"schemaVersion":1,"sourceTrack":"microphone","sourceAudioDigest":"","basedOnTimelineDigest":"","cues":[]})"},
      {"style as string", documentWith(R"("big")", "[]")},
      {"style without isEnabled", documentWith(R"({"maximumLines":2})", "[]")},
      {"style without maximumLines", documentWith(R"({"isEnabled":true})", "[]")},
      {"isEnabled as text", documentWith(R"({"isEnabled":"true","maximumLines":2})", "[]")},
      {"fractional maximumLines", documentWith(R"({"isEnabled":true,"maximumLines":1.5})", "[]")},
      {"unknown appearance", documentWith(R"({"isEnabled":true,"maximumLines":2,"appearance":"white-on-blue"})", "[]")},
      {"appearance by case name",
       documentWith(R"({"isEnabled":true,"maximumLines":2,"appearance":"whiteOnBlack"})", "[]")},
      {"fontScale as text", documentWith(R"({"isEnabled":true,"maximumLines":2,"fontScale":"1"})", "[]")},
      {"missing cues",
       R"({"schemaVersion":1,"sourceTrack":"microphone","sourceAudioDigest":"","basedOnTimelineDigest":"","style":{"isEnabled":true,"maximumLines":2}})"},
      {"cues as object", documentWith(style, "{}")},
      {"cue as number", documentWith(style, "[1]")},
      {"cue without id", documentWith(style, R"([{"start":{"nanoseconds":0},"end":{"nanoseconds":5},"text":"a"}])")},
      {"cue with malformed id",
       documentWith(style, R"([{"id":"not-a-uuid","start":{"nanoseconds":0},"end":{"nanoseconds":5},"text":"a"}])")},
      {"cue start as bare number",
       documentWith(style,
                    R"([{"id":"00000000-0000-4000-8000-000000000001","start":0,"end":{"nanoseconds":5},"text":"a"}])")},
      {"cue start beyond 64 bits",
       documentWith(
           style,
           R"([{"id":"00000000-0000-4000-8000-000000000001","start":{"nanoseconds":9223372036854775808},"end":{"nanoseconds":5},"text":"a"}])")},
      {"cue without text",
       documentWith(
           style,
           R"([{"id":"00000000-0000-4000-8000-000000000001","start":{"nanoseconds":0},"end":{"nanoseconds":5}}])")},
      {"cue text as array",
       documentWith(
           style,
           R"([{"id":"00000000-0000-4000-8000-000000000001","start":{"nanoseconds":0},"end":{"nanoseconds":5},"text":["a"]}])")},
      {"words as object", withCueKey(R"("words":{})")},
      {"word without text", withCueKey(R"("words":[{"start":{"nanoseconds":0},"end":{"nanoseconds":5}}])")},
      {"word without end", withCueKey(R"("words":[{"start":{"nanoseconds":0},"text":"a"}])")},
      {"highlights as string", withCueKey(R"("highlights":"a")")},
      {"highlight without occurrence", withCueKey(R"("highlights":[{"text":"a"}])")},
      {"fractional occurrence", withCueKey(R"("highlights":[{"text":"a","occurrence":1.5}])")},
      {"ill-formed UTF-8 in a string", documentWith(style, "[]",
                                                    "\"schemaVersion\":1,\"sourceTrack\":\"microphone\","
                                                    "\"sourceAudioDigest\":\"\xFF\",\"basedOnTimelineDigest\":\"\"")},
  };
  for (const auto& c : cases) EXPECT_THROW(decodeCaptionDocument(c.text), DecodingError) << c.label;
  // The baseline of the table decodes, so each row fails for its own reason.
  EXPECT_NO_THROW(decodeCaptionDocument(documentWith(style, "[" + cue + "]")));
}

TEST(CaptionDocumentJsonTest, DecodingErrorsNameTheCueTheyConcern) {
  const std::string text =
      R"({"schemaVersion":1,"sourceTrack":"microphone","sourceAudioDigest":"","basedOnTimelineDigest":"",
    "style":{"isEnabled":true,"maximumLines":2},"cues":[
      {"id":"00000000-0000-4000-8000-000000000001","start":{"nanoseconds":0},"end":{"nanoseconds":5},"text":"a"},
      {"id":"00000000-0000-4000-8000-000000000002","start":{"nanoseconds":5},"text":"b"}]})";
  try {
    decodeCaptionDocument(text);
    FAIL() << "expected a decoding error";
  } catch (const DecodingError& error) {
    EXPECT_NE(std::string(error.what()).find("Caption cue 1"), std::string::npos) << error.what();
    EXPECT_NE(std::string(error.what()).find("end"), std::string::npos) << error.what();
  }
}

TEST(CaptionDocumentJsonTest, TextBuiltInMemoryThatIsNotUtf8FailsToEncodeWithAClearError) {
  CaptionDocument document = makeDocument({makeCue(1, 0, 1000, "bad \xFF byte")});
  try {
    encodeCaptionDocument(document);
    FAIL() << "expected an error";
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find("UTF-8"), std::string::npos);
  }
}

TEST(CaptionAppearanceTest, RawValuesRoundTrip) {
  for (auto appearance : {CaptionAppearance::whiteOnBlack, CaptionAppearance::whiteWithBlackOutline,
                          CaptionAppearance::blackWithWhiteOutline})
    EXPECT_EQ(parseName<CaptionAppearance>(nameOf(appearance)), appearance);
  EXPECT_EQ(nameOf(CaptionAppearance::whiteOnBlack), "white-on-black");
  EXPECT_EQ(nameOf(CaptionAppearance::whiteWithBlackOutline), "white-black-outline");
  EXPECT_EQ(nameOf(CaptionAppearance::blackWithWhiteOutline), "black-white-outline");
  EXPECT_FALSE(parseName<CaptionAppearance>("White-On-Black"));
}

}  // namespace
}  // namespace vumo
