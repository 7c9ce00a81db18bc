#include "captions/caption_document_engine.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>

#include "caption_fixtures.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using testing::cueId;
using testing::kSourceDuration;
using testing::makeCue;
using testing::makeDocument;
using testing::makeWord;
using testing::ms;
using Editing = CaptionEditingError::Case;
using Engine = CaptionDocumentEngine;

// Multiples of 50 ms lie on the 60 fps grid (every third frame).
CaptionDocument baseDocument() {
  return makeDocument({
      makeCue(1, 1000, 2000, "Hello big world",
              {makeWord(1000, 1400, "Hello"), makeWord(1400, 1700, "big"), makeWord(1700, 2000, "world")},
              {{"big", 1}}),
      makeCue(2, 3000, 4000, "cat cat", {makeWord(3000, 3500, "cat")}, {{"cat", 2}}),
      makeCue(3, 6000, 7000, "third"),
  });
}

// Frame k of the grid starts at floor(k * 1e9 / 60) ns.
ProjectTime frame(std::int64_t k) { return {k * 1'000'000'000 / 60}; }

template <class Operation>
std::optional<Editing> editingFailure(Operation operation) {
  try {
    operation();
  } catch (const CaptionEditingError& error) {
    return error.kind();
  }
  return std::nullopt;
}

std::vector<int> idsInOrder(const CaptionDocument& document) {
  std::vector<int> numbers;
  for (const auto& cue : document.cues) numbers.push_back(cue.id.bytes[15]);
  return numbers;
}

TEST(CaptionEngineAddCueTest, SnapsTrimsAndInsertsInStartOrder) {
  CaptionCue cue = makeCue(9, 4010, 5500, "\u3000 New line \n", {makeWord(4100, 4200, "New")}, {{"New", 1}});
  CaptionDocument result = Engine::addCue(baseDocument(), cue, kSourceDuration);
  EXPECT_EQ(idsInOrder(result), (std::vector<int>{1, 2, 9, 3}));
  const CaptionCue& added = result.cues[2];
  EXPECT_EQ(added.start, frame(241));  // 4.01 s is 240.6 frames
  EXPECT_EQ(added.end, ms(5500));
  EXPECT_EQ(added.text, "New line");
  EXPECT_TRUE(added.words.empty());
  EXPECT_TRUE(added.highlights.empty());

  EXPECT_EQ(idsInOrder(Engine::addCue(baseDocument(), makeCue(9, 0, 1000, "first"), kSourceDuration)),
            (std::vector<int>{9, 1, 2, 3}));
  EXPECT_EQ(idsInOrder(Engine::addCue(baseDocument(), makeCue(9, 7000, 60'000, "last"), kSourceDuration)),
            (std::vector<int>{1, 2, 3, 9}));
  EXPECT_EQ(idsInOrder(Engine::addCue(makeDocument({}), makeCue(9, 0, 100, "only"), kSourceDuration)),
            (std::vector<int>{9}));
}

TEST(CaptionEngineAddCueTest, SnappingDecidesWhetherARangeIsAcceptable) {
  CaptionDocument empty = makeDocument({});
  // Slightly before zero or past the end snaps back onto the source.
  EXPECT_EQ(Engine::addCue(empty, makeCue(9, -8, 500, "a"), kSourceDuration).cues[0].start, ProjectTime::zero());
  EXPECT_EQ(Engine::addCue(empty, {cueId(9), ms(59'000), {60'005'000'000}, "a", {}, {}}, kSourceDuration).cues[0].end,
            kSourceDuration);

  const std::pair<const char*, CaptionCue> invalid[] = {
      {"half a frame snaps to nothing", {cueId(9), ProjectTime::zero(), {8'333'333}, "a", {}, {}}},
      {"starts a frame before zero", makeCue(9, -10, 500, "a")},
      {"ends a frame after the source", {cueId(9), ms(59'000), {60'010'000'000}, "a", {}, {}}},
      {"end before start", makeCue(9, 500, 100, "a")},
      {"far before zero", {cueId(9), {std::numeric_limits<std::int64_t>::min()}, ms(100), "a", {}, {}}},
      {"far past the end", {cueId(9), ms(100), {std::numeric_limits<std::int64_t>::max()}, "a", {}, {}}},
  };
  for (const auto& [label, cue] : invalid)
    EXPECT_EQ(editingFailure([&] { Engine::addCue(empty, cue, kSourceDuration); }), Editing::invalidRange) << label;
}

TEST(CaptionEngineAddCueTest, RefusesEmptyTextOverlapsAndRepeatedIds) {
  CaptionDocument document = baseDocument();
  const std::tuple<const char*, CaptionCue, Editing> cases[] = {
      {"blank text", makeCue(9, 4000, 5000, " \u3000\u00A0\n"), Editing::emptyText},
      {"blank text wins over a bad range", makeCue(9, -5000, -4000, "\u3000"), Editing::emptyText},
      {"range checked before neighbours", makeCue(9, 1500, 1505, "a"), Editing::invalidRange},
      {"overlaps the previous cue", makeCue(9, 1950, 2500, "a"), Editing::overlapsNeighbor},
      {"overlaps the next cue", makeCue(9, 2500, 3050, "a"), Editing::overlapsNeighbor},
      {"same start as a cue", makeCue(9, 3000, 3500, "a"), Editing::overlapsNeighbor},
      {"spans a whole cue", makeCue(9, 2500, 4500, "a"), Editing::overlapsNeighbor},
  };
  for (const auto& [label, cue, expected] : cases)
    EXPECT_EQ(editingFailure([&] { Engine::addCue(document, cue, kSourceDuration); }), expected) << label;

  // Filling a gap exactly, touching both neighbours, is fine.
  EXPECT_EQ(idsInOrder(Engine::addCue(document, makeCue(9, 2000, 3000, "gap"), kSourceDuration)),
            (std::vector<int>{1, 9, 2, 3}));
  // An id already in use is caught by validation of the result.
  EXPECT_ERROR_CASE(Engine::addCue(document, makeCue(3, 8000, 9000, "again"), kSourceDuration), CaptionValidationError,
                    CaptionValidationError::Case::invalidCue);
  EXPECT_EQ(document, baseDocument()) << "a failed edit leaves its input alone";
}

TEST(CaptionEngineMoveCueTest, KeepsLengthAndCarriesWordsAndHighlights) {
  CaptionDocument result = Engine::moveCue(baseDocument(), cueId(1), ms(1990), kSourceDuration);
  const CaptionCue& moved = result.cues[0];
  // 1.99 s is 119.4 frames: it snaps to frame 119, and everything shifts by the same delta.
  ProjectTime delta = frame(119) - ms(1000);
  EXPECT_EQ(moved.start, frame(119));
  EXPECT_EQ(moved.end, ms(2000) + delta);
  ASSERT_EQ(moved.words.size(), 3u);
  EXPECT_EQ(moved.words[1].start, ms(1400) + delta);
  EXPECT_EQ(moved.words[2].end, ms(2000) + delta);
  EXPECT_EQ(moved.highlights, (std::vector<CaptionHighlight>{{"big", 1}}));
}

TEST(CaptionEngineMoveCueTest, MovesPastNeighboursIntoFreeTime) {
  CaptionDocument result = Engine::moveCue(baseDocument(), cueId(1), ms(4500), kSourceDuration);
  EXPECT_EQ(idsInOrder(result), (std::vector<int>{2, 1, 3}));
  EXPECT_EQ(result.cues[1].start, ms(4500));
  EXPECT_EQ(result.cues[1].end, ms(5500));
  // Touching the next cue exactly is allowed.
  EXPECT_EQ(Engine::moveCue(baseDocument(), cueId(1), ms(2000), kSourceDuration).cues[0].end, ms(3000));

  const std::tuple<const char*, Uuid, ProjectTime, Editing> cases[] = {
      {"unknown cue", cueId(42), ms(0), Editing::cueNotFound},
      {"onto the next cue", cueId(1), ms(2500), Editing::overlapsNeighbor},
      {"onto the previous cue", cueId(3), ms(3500), Editing::overlapsNeighbor},
      {"before zero", cueId(1), ms(-100), Editing::invalidRange},
      {"end past the source", cueId(3), ms(59'500), Editing::invalidRange},
  };
  for (const auto& [label, id, start, expected] : cases)
    EXPECT_EQ(editingFailure([&] { Engine::moveCue(baseDocument(), id, start, kSourceDuration); }), expected) << label;
}

TEST(CaptionEngineTrimTest, TrimStartDropsWordsThatBeginBeforeTheNewStart) {
  // 1.41 s snaps up to frame 85 (1.41666 s): "Hello" and "big" start earlier and go; the cue stays.
  CaptionDocument result = Engine::trimStart(baseDocument(), cueId(1), ms(1410), kSourceDuration);
  const CaptionCue& cue = result.cues[0];
  EXPECT_EQ(cue.start, frame(85));
  EXPECT_EQ(cue.end, ms(2000));
  ASSERT_EQ(cue.words.size(), 1u);
  EXPECT_EQ(cue.words[0], makeWord(1700, 2000, "world"));
  EXPECT_EQ(cue.highlights, (std::vector<CaptionHighlight>{{"big", 1}}));

  // A word starting exactly at the new start stays.
  EXPECT_EQ(Engine::trimStart(baseDocument(), cueId(1), ms(1700), kSourceDuration).cues[0].words.size(), 1u);
  // Past the last word's start the cue loses every word but lives on.
  EXPECT_TRUE(Engine::trimStart(baseDocument(), cueId(1), ms(1745), kSourceDuration).cues[0].words.empty());
  // Extending the start keeps the words.
  EXPECT_EQ(Engine::trimStart(baseDocument(), cueId(1), ms(500), kSourceDuration).cues[0].words.size(), 3u);
}

TEST(CaptionEngineTrimTest, TrimEndDropsWordsThatFinishAfterTheNewEnd) {
  CaptionDocument result = Engine::trimEnd(baseDocument(), cueId(1), ms(1690), kSourceDuration);
  const CaptionCue& cue = result.cues[0];
  EXPECT_EQ(cue.end, frame(101));  // 1.69 s is 101.4 frames
  ASSERT_EQ(cue.words.size(), 1u);
  EXPECT_EQ(cue.words[0].text, "Hello");
  // A word ending exactly at the new end stays.
  EXPECT_EQ(Engine::trimEnd(baseDocument(), cueId(1), ms(1700), kSourceDuration).cues[0].words.size(), 2u);
  EXPECT_EQ(Engine::trimEnd(baseDocument(), cueId(1), ms(3000), kSourceDuration).cues[0].end, ms(3000));
}

TEST(CaptionEngineTrimTest, RefusesTrimsThatBreakTheRangeRules) {
  using Operation = std::function<void()>;
  const CaptionDocument document = baseDocument();
  const std::tuple<const char*, Operation, Editing> cases[] = {
      {"start: unknown cue", [&] { Engine::trimStart(document, cueId(42), ms(0), kSourceDuration); },
       Editing::cueNotFound},
      {"start: before zero", [&] { Engine::trimStart(document, cueId(1), ms(-20), kSourceDuration); },
       Editing::invalidRange},
      {"start: at the end", [&] { Engine::trimStart(document, cueId(1), ms(2000), kSourceDuration); },
       Editing::invalidRange},
      {"start: under a frame left", [&] { Engine::trimStart(document, cueId(1), ms(1995), kSourceDuration); },
       Editing::invalidRange},
      {"start: into the previous cue", [&] { Engine::trimStart(document, cueId(2), ms(1950), kSourceDuration); },
       Editing::overlapsNeighbor},
      {"start: before the previous cue", [&] { Engine::trimStart(document, cueId(2), ms(500), kSourceDuration); },
       Editing::overlapsNeighbor},
      {"end: unknown cue", [&] { Engine::trimEnd(document, cueId(42), ms(0), kSourceDuration); }, Editing::cueNotFound},
      {"end: at the start", [&] { Engine::trimEnd(document, cueId(1), ms(1000), kSourceDuration); },
       Editing::invalidRange},
      {"end: past the source", [&] { Engine::trimEnd(document, cueId(3), ms(60'050), kSourceDuration); },
       Editing::invalidRange},
      {"end: into the next cue", [&] { Engine::trimEnd(document, cueId(1), ms(3050), kSourceDuration); },
       Editing::overlapsNeighbor},
  };
  for (const auto& [label, operation, expected] : cases) EXPECT_EQ(editingFailure(operation), expected) << label;
}

TEST(CaptionEngineTextTest, UpdateTextKeepsTimingDetailOnlyWhenTheTextIsUnchanged) {
  CaptionDocument same = Engine::updateText(baseDocument(), cueId(1), "\u3000Hello big world\n", kSourceDuration);
  EXPECT_EQ(same.cues[0], baseDocument().cues[0]);

  CaptionDocument changed = Engine::updateText(baseDocument(), cueId(1), " Hello big world! ", kSourceDuration);
  EXPECT_EQ(changed.cues[0].text, "Hello big world!");
  EXPECT_TRUE(changed.cues[0].words.empty());
  EXPECT_TRUE(changed.cues[0].highlights.empty());
  EXPECT_EQ(changed.cues[1], baseDocument().cues[1]);

  EXPECT_EQ(editingFailure([] { Engine::updateText(baseDocument(), cueId(1), "\u00A0\u3000", kSourceDuration); }),
            Editing::emptyText);
  EXPECT_EQ(editingFailure([] { Engine::updateText(baseDocument(), cueId(42), "", kSourceDuration); }),
            Editing::emptyText);
  EXPECT_EQ(editingFailure([] { Engine::updateText(baseDocument(), cueId(42), "x", kSourceDuration); }),
            Editing::cueNotFound);
  std::string tooLong(2001, 'x');
  EXPECT_THROW(Engine::updateText(baseDocument(), cueId(1), tooLong, kSourceDuration), CaptionValidationError);
}

TEST(CaptionEngineHighlightTest, AddHighlightOrdersAndSpeaksOfTheSelectionWhenItFails) {
  CaptionDocument result = Engine::addHighlight(baseDocument(), cueId(1), {"Hello", 1}, kSourceDuration);
  EXPECT_EQ(result.cues[0].highlights, (std::vector<CaptionHighlight>{{"Hello", 1}, {"big", 1}}));

  const std::pair<const char*, CaptionHighlight> refused[] = {
      {"overlaps an existing highlight", {"big world", 1}},
      {"the whole sentence", {"Hello big world", 1}},
      {"not in the text", {"cat", 1}},
      {"punctuation only", {"!", 1}},
  };
  for (const auto& [label, highlight] : refused)
    EXPECT_EQ(editingFailure([&] { Engine::addHighlight(baseDocument(), cueId(1), highlight, kSourceDuration); }),
              Editing::invalidHighlight)
        << label;

  CaptionDocument full = baseDocument();
  full.cues[2].text = "a b c d e f g h i";
  full.cues[2].highlights = {{"a", 1}, {"b", 1}, {"c", 1}, {"d", 1}, {"e", 1}, {"f", 1}, {"g", 1}, {"h", 1}};
  EXPECT_EQ(editingFailure([&] {
              Engine::addHighlight(full, cueId(3), {"i", 1}, kSourceDuration);
            }),
            Editing::invalidHighlight);

  EXPECT_EQ(editingFailure([] {
              Engine::addHighlight(baseDocument(), cueId(42), {"big", 1}, kSourceDuration);
            }),
            Editing::cueNotFound);
  // A problem elsewhere in the document is not the selection's fault and keeps its own error.
  CaptionDocument wrongTrack = baseDocument();
  wrongTrack.sourceTrack = MediaTrackKind::screen;
  EXPECT_ERROR_CASE(Engine::addHighlight(wrongTrack, cueId(1), {"Hello", 1}, kSourceDuration), CaptionValidationError,
                    CaptionValidationError::Case::invalidTrack);
}

TEST(CaptionEngineHighlightTest, ClearHighlightsAndRemoveCueTouchOnlyTheirCue) {
  CaptionDocument cleared = Engine::clearHighlights(baseDocument(), cueId(2), kSourceDuration);
  EXPECT_TRUE(cleared.cues[1].highlights.empty());
  EXPECT_EQ(cleared.cues[1].words.size(), 1u);
  EXPECT_EQ(cleared.cues[0], baseDocument().cues[0]);

  CaptionDocument removed = Engine::removeCue(baseDocument(), cueId(2), kSourceDuration);
  EXPECT_EQ(idsInOrder(removed), (std::vector<int>{1, 3}));
  EXPECT_TRUE(
      Engine::removeCue(Engine::removeCue(removed, cueId(1), kSourceDuration), cueId(3), kSourceDuration).cues.empty());

  EXPECT_EQ(editingFailure([] { Engine::clearHighlights(baseDocument(), cueId(42), kSourceDuration); }),
            Editing::cueNotFound);
  EXPECT_EQ(editingFailure([&] { Engine::removeCue(removed, cueId(2), kSourceDuration); }), Editing::cueNotFound);
}

TEST(CaptionEngineTest, EveryOperationEndsWithValidation) {
  // A source that has become shorter than the cues: any edit reports the document as invalid
  // rather than saving it.
  const ProjectTime shortSource = ms(5000);
  EXPECT_THROW(Engine::clearHighlights(baseDocument(), cueId(1), shortSource), CaptionValidationError);
  EXPECT_THROW(Engine::updateText(baseDocument(), cueId(1), "x", shortSource), CaptionValidationError);
  EXPECT_THROW(Engine::removeCue(baseDocument(), cueId(1), shortSource), CaptionValidationError);
  EXPECT_NO_THROW(Engine::removeCue(baseDocument(), cueId(3), shortSource));
  // And the result is in normal form.
  CaptionDocument odd = baseDocument();
  odd.style.fontScale = 5;
  EXPECT_EQ(Engine::removeCue(odd, cueId(3), kSourceDuration).style.fontScale, 1.2);
}

}  // namespace
}  // namespace vumo
