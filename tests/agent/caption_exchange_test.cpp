#include "agent/caption_exchange.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "agent/agent_exchange.h"
#include "shared/error.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using ValidationCase = CaptionValidationError::Case;
using testing::ScopedDataHome;

CaptionExchangeJob sampleJob() {
  CaptionExchangeJob job;
  job.id = *Uuid::parse("11111111-2222-3333-4444-555555555555");
  job.projectID = *Uuid::parse("AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE");
  job.sourceTrack = MediaTrackKind::systemAudio;
  job.sourceAudioDigest = std::string(64, 'a');
  job.timelineDigest = std::string(64, 'b');
  job.sourceDurationMilliseconds = 10'000;
  job.createdAt = *Timestamp::parseISO8601("2026-03-01T10:00:00Z");
  return job;
}

CaptionExchangeDocument answerTo(const CaptionExchangeJob& job, std::optional<std::string> language,
                                 std::vector<CaptionExchangeCue> cues) {
  return {1, job.id, job.projectID, job.sourceAudioDigest, std::move(language), std::move(cues)};
}

TEST(CaptionExchangeLanguage, OnlySimplifiedChineseTagsAreSimplified) {
  struct Row {
    std::optional<std::string> language;
    bool simplifies;
  };
  for (const Row& row :
       {Row{"zh", true}, Row{"ZH-CN", true}, Row{"zh-sg", true}, Row{"zh-Hans", true}, Row{"zh-Hans-CN", true},
        Row{"zh-TW", false}, Row{"zh-Hant", false}, Row{"en", false}, Row{"zh-hk", false}, Row{std::nullopt, false}})
    EXPECT_EQ(CaptionExchangeDocument::simplifiesChinese(row.language), row.simplifies) << row.language.value_or("-");
}

TEST(CaptionExchangeLanguage, CueTextLosesItsFinalFullStopAndKeepsOtherMarks) {
  struct Row {
    std::string text;
    std::optional<std::string> language;
    std::string expected;
  };
  const Row rows[] = {
      {"你好。", "zh-Hans", "你好"},
      {"「你好。」", std::nullopt, "「你好」"},
      {"『好。』", "zh-TW", "『好』"},
      {"Wait...", "en", "Wait..."},
      {"Wait.", "en", "Wait"},
      {"Done.)", "en", "Done)"},
      {"好！", "zh-Hans", "好！"},
      {"  Said \"so.\"\n", std::nullopt, "Said \"so\""},
      {"（完。）】", "zh", "（完）】"},
      {"”", "zh", "”"},
      {"。", "zh", ""},
      // Script: traditional becomes simplified only for simplified-Chinese tags.
      {"這是測試。", "ZH-CN", "这是测试"},
      {"這是測試。", "zh-Hans-CN", "这是测试"},
      {"這是測試。", "zh-TW", "這是測試"},
      {"這是測試。", "en", "這是測試"},
  };
  for (const Row& row : rows)
    EXPECT_EQ(CaptionExchangeDocument::normalizedCueText(row.text, row.language), row.expected) << row.text;
}

TEST(CaptionExchangeConversion, BuildsTheProjectDocumentFromTheJob) {
  CaptionExchangeJob job = sampleJob();
  CaptionExchangeCue cue{1'000, 2'500, "開始錄製。", std::vector<CaptionExchangeWord>{{1'000, 1'400, "開始"}},
                         std::vector<CaptionExchangeHighlight>{{"錄製", std::nullopt}}};
  CaptionExchangeDocument exchange =
      answerTo(job, "ZH-CN", {cue, {3'000, 4'000, "Second", std::nullopt, std::nullopt}});
  CaptionStyle kept;
  kept.fontScale = 1.2;

  CaptionDocument document = exchange.captionDocument(job, kept).validated(ProjectTime{10'000'000'000});
  EXPECT_EQ(document.language, "zh-Hans");
  EXPECT_EQ(document.sourceTrack, MediaTrackKind::systemAudio);
  EXPECT_EQ(document.sourceAudioDigest, job.sourceAudioDigest);
  EXPECT_EQ(document.basedOnTimelineDigest, job.timelineDigest);
  EXPECT_EQ(document.style, kept);
  ASSERT_EQ(document.cues.size(), 2u);
  EXPECT_EQ(document.cues[0].start, ProjectTime{1'000'000'000});
  EXPECT_EQ(document.cues[0].end, ProjectTime{2'500'000'000});
  EXPECT_EQ(document.cues[0].text, "开始录制");
  EXPECT_EQ(document.cues[0].words,
            (std::vector<CaptionWord>{{ProjectTime{1'000'000'000}, ProjectTime{1'400'000'000}, "开始"}}));
  EXPECT_EQ(document.cues[0].highlights, (std::vector<CaptionHighlight>{{"录制", 1}}));
  EXPECT_TRUE(document.cues[1].words.empty());
  EXPECT_NE(document.cues[0].id, document.cues[1].id);
  // Ids are fresh on every conversion; the style falls back to the default without one to keep.
  CaptionDocument again = exchange.captionDocument(job);
  EXPECT_NE(again.cues[0].id, document.cues[0].id);
  EXPECT_EQ(again.style, CaptionStyle::defaults());
  EXPECT_EQ(answerTo(job, "zh-TW", {cue}).captionDocument(job).language, "zh-TW");
}

TEST(CaptionExchangeConversion, RefusesAnswersToAnotherJobAndUnusableCues) {
  CaptionExchangeJob job = sampleJob();
  CaptionExchangeCue cue{0, 1'000, "Hi", std::nullopt, std::nullopt};
  auto convert = [&](CaptionExchangeDocument exchange) {
    return exchange.captionDocument(job).validated(ProjectTime{10'000'000'000});
  };
  CaptionExchangeDocument otherJob = answerTo(job, "en", {cue});
  otherJob.jobID = Uuid::random();
  CaptionExchangeDocument otherProject = answerTo(job, "en", {cue});
  otherProject.projectID = Uuid::random();
  CaptionExchangeDocument otherAudio = answerTo(job, "en", {cue});
  otherAudio.sourceAudioDigest = std::string(64, 'c');
  CaptionExchangeDocument otherVersion = answerTo(job, "en", {cue});
  otherVersion.protocolVersion = 2;
  for (const auto& exchange : {otherJob, otherProject, otherAudio, otherVersion})
    EXPECT_ERROR_CASE(convert(exchange), CaptionValidationError, ValidationCase::staleAudio);

  EXPECT_ERROR_CASE(convert(answerTo(job, "zh", {{0, 1'000, "。", std::nullopt, std::nullopt}})),
                    CaptionValidationError, ValidationCase::invalidCue);
  EXPECT_ERROR_CASE(convert(answerTo(job, "en", {{0, INT64_MAX / 1000, "Long", std::nullopt, std::nullopt}})),
                    CaptionValidationError, ValidationCase::invalidCue);
  CaptionExchangeCue overflowingWord{0, 1'000, "Hi", std::vector<CaptionExchangeWord>{{INT64_MIN / 2, 10, "x"}},
                                     std::nullopt};
  EXPECT_ERROR_CASE(convert(answerTo(job, "en", {overflowingWord})), CaptionValidationError,
                    ValidationCase::invalidCue);
}

TEST(CaptionExchangeJobCheck, EveryMismatchIsAStaleTimeline) {
  CaptionExchangeJob job = sampleJob();
  EXPECT_NO_THROW(job.verifyCurrent(job.id, job.projectID, job.timelineDigest));
  CaptionExchangeJob newer = job;
  newer.protocolVersion = 2;
  EXPECT_ERROR_CASE(newer.verifyCurrent(job.id, job.projectID, job.timelineDigest), CaptionValidationError,
                    ValidationCase::staleTimeline);
  EXPECT_ERROR_CASE(job.verifyCurrent(Uuid::random(), job.projectID, job.timelineDigest), CaptionValidationError,
                    ValidationCase::staleTimeline);
  EXPECT_ERROR_CASE(job.verifyCurrent(job.id, Uuid::random(), job.timelineDigest), CaptionValidationError,
                    ValidationCase::staleTimeline);
  EXPECT_ERROR_CASE(job.verifyCurrent(job.id, job.projectID, std::string(64, 'f')), CaptionValidationError,
                    ValidationCase::staleTimeline);
}

TEST(CaptionExchangeJSON, WritesSortedKeysWithoutAbsentOptionalsAndReadsItBack) {
  CaptionExchangeJob job = sampleJob();
  EXPECT_EQ(encodeCaptionExchangeJob(job),
            "{\n"
            "  \"createdAt\": \"2026-03-01T10:00:00Z\",\n"
            "  \"id\": \"11111111-2222-3333-4444-555555555555\",\n"
            "  \"projectID\": \"AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE\",\n"
            "  \"protocolVersion\": 1,\n"
            "  \"sourceAudioDigest\": \"" +
                std::string(64, 'a') +
                "\",\n"
                "  \"sourceDurationMilliseconds\": 10000,\n"
                "  \"sourceTrack\": \"systemAudio\",\n"
                "  \"timelineDigest\": \"" +
                std::string(64, 'b') +
                "\"\n"
                "}");
  EXPECT_EQ(decodeCaptionExchangeJob(encodeCaptionExchangeJob(job)), job);

  CaptionExchangeDocument document =
      answerTo(job, std::nullopt,
               {{0, 500, "A", std::nullopt, std::vector<CaptionExchangeHighlight>{{"A", std::nullopt}}},
                {500, 900, "B", std::vector<CaptionExchangeWord>{{500, 600, "B"}}, std::nullopt}});
  std::string encoded = encodeCaptionExchangeDocument(document);
  EXPECT_EQ(encoded.find("language"), std::string::npos);
  EXPECT_EQ(encoded.find("occurrence"), std::string::npos);
  EXPECT_EQ(decodeCaptionExchangeDocument(encoded), document);
}

TEST(CaptionExchangeJSON, MalformedDocumentsAreDecodingErrors) {
  const std::string valid =
      encodeCaptionExchangeDocument(answerTo(sampleJob(), "en", {{0, 1, "x", std::nullopt, std::nullopt}}));
  EXPECT_NO_THROW(decodeCaptionExchangeDocument(valid));
  std::string floatTime = valid;
  floatTime.replace(floatTime.find("\"startMilliseconds\": 0"), 22, "\"startMilliseconds\": 0.5");
  for (
      const std::string& bytes :
      {std::string("[]"), std::string("{"), std::string("{\"protocolVersion\":1}"), floatTime,
       std::string(
           R"({"protocolVersion":1,"jobID":"nope","projectID":"AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE","sourceAudioDigest":"a","cues":[]})"),
       std::string(
           R"({"protocolVersion":1,"jobID":"11111111-2222-3333-4444-555555555555","projectID":"AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE","sourceAudioDigest":"a","cues":[{"startMilliseconds":0,"endMilliseconds":1,"text":"x","highlights":[{"text":"x","occurrence":"1"}]}]})")})
    EXPECT_THROW(decodeCaptionExchangeDocument(bytes), DecodingError) << bytes;
  EXPECT_THROW(decodeCaptionExchangeJob("{\"protocolVersion\":1}"), DecodingError);
}

class CaptionExchangeFiles : public ::testing::Test {
 protected:
  ScopedDataHome home;
  fs::path folder = createExchangeJobDirectory(Uuid::random());

  void write(const fs::path& path, std::size_t bytes) {
    std::ofstream(path, std::ios::binary) << std::string(bytes, ' ');
  }
};

TEST_F(CaptionExchangeFiles, JobOverItsLimitIsTooLarge) {
  write(folder / "job.json", 65'536);
  EXPECT_EQ(readCaptionExchangeJobData(folder / "job.json").size(), 65'536u);
  write(folder / "job.json", 65'537);
  EXPECT_ERROR_CASE(readCaptionExchangeJobData(folder / "job.json"), EditPlanValidationError,
                    EditPlanValidationError::Case::documentTooLarge);
}

TEST_F(CaptionExchangeFiles, SymbolicLinkAsResultIsInvalid) {
  testing::TemporaryDirectory elsewhere;
  write(elsewhere.path() / "captions.json", 10);
  fs::create_symlink(elsewhere.path() / "captions.json", folder / "captions.json");
  EXPECT_ERROR_CASE(readCaptionExchangeDocumentData(folder / "captions.json"), EditPlanValidationError,
                    EditPlanValidationError::Case::invalidDocument);
}

}  // namespace
}  // namespace vumo
