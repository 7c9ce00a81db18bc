// The command service in process, on projects built for one question each. The recording's sound
// comes from stand-ins: an envelope given peak by peak, an exporter that writes known bytes, a
// transcription that answers at once, so every number below is computed by hand.

#include "cli/project_command_service.h"

#include <gtest/gtest.h>

#include "agent/agent_exchange.h"
#include "agent/caption_exchange.h"
#include "cli/cli_errors.h"
#include "media/waveform_service.h"
#include "project/chunk_store.h"
#include "project/project_fixtures.h"
#include "project/project_store_error.h"
#include "shared/cancellation.h"
#include "shared/digest.h"
#include "shared/json.h"
#include "support/envelope_builder.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using project_testing::folderContents;
using project_testing::StoreFixture;

ProjectTime ms(std::int64_t milliseconds) { return ProjectTime::fromMilliseconds(milliseconds); }

MouseEvent pointerEvent(std::int64_t milliseconds, MousePhase phase, std::optional<bool> insideSource = true) {
  MouseEvent event;
  event.time = ms(milliseconds);
  event.normalizedPoint = {0.5, 0.5};
  event.button = phase == MousePhase::moved ? MouseButton::none : MouseButton::left;
  event.phase = phase;
  event.isInsideSource = insideSource;
  return event;
}

void writeEvents(const ProjectPackage& package, const std::vector<MouseEvent>& events) {
  ChunkStore<MouseEvent> chunks(package.mouseEventsDirectory(), standardChunkMaximumCount, standardChunkMaximumSpan,
                                [](const MouseEvent& e) { return e.time; });
  for (const auto& event : events) chunks.append(event);
  chunks.flush();
}

// Loud (-6 dB) in the given millisecond spans, digital silence elsewhere.
WaveformEnvelope envelopeOf(MediaTrackKind kind, std::int64_t milliseconds,
                            const std::vector<std::pair<std::int64_t, std::int64_t>>& loud) {
  testing::EnvelopeBuilder builder(kind);
  for (const auto& [start, end] : loud) builder.burst(start, end);
  return builder.silenceUntil(milliseconds).build();
}

struct FakeWaveforms : WaveformProviding {
  std::map<MediaTrackKind, WaveformEnvelope> envelopes;
  int requests = 0;
  WaveformEnvelope envelope(MediaTrackKind kind, const ProjectSnapshot&, const std::function<void(double)>&,
                            std::stop_token) override {
    ++requests;
    return envelopes.at(kind);
  }
};

class MediaCommandsTest : public ::testing::Test {
 protected:
  // A finished ten-second recording with the given audio tracks and no pointer events.
  ProjectPackage project(bool systemAudio, bool microphone) {
    RecordingOptions options;
    options.capturesSystemAudio = systemAudio;
    options.capturesMicrophone = microphone;
    auto created = fixture.store.createProject(project_testing::displaySource(), options, {1920, 1080}, std::nullopt,
                                               std::nullopt);
    writeFileAtomically(created.package.mediaPath(), "placeholder");
    created.manifest.duration = ms(10'000);
    ProjectPackage package = fixture.store.finish(created.package, created.manifest);
    id = fixture.store.readManifest(package).id.string();
    return package;
  }

  ProjectCommandService service() {
    ProjectCommandService::MediaServices media;
    media.waveforms = waveforms;
    media.exportCaptionAudio = [this](const ProjectSnapshot&, MediaTrackKind kind, const fs::path& target,
                                      std::stop_token) {
      exportedKinds.push_back(kind);
      writeFileAtomically(target, wavBytes);
      return;
    };
    media.generateCaptions = [this](const ProjectSnapshot& snapshot, CaptionTrackSelection, std::stop_token) {
      return generate(snapshot);
    };
    return ProjectCommandService(fixture.store, {}, media);
  }

  testing::ScopedDataHome home;
  StoreFixture fixture;
  std::shared_ptr<FakeWaveforms> waveforms = std::make_shared<FakeWaveforms>();
  std::string wavBytes = std::string("RIFF") + std::string(40, '\0') + "sound";
  std::vector<MediaTrackKind> exportedKinds;
  std::function<CaptionGenerationResult(const ProjectSnapshot&)> generate;
  std::string id;
};

TEST_F(MediaCommandsTest, RegeneratedZoomsCountEveryRecordedPressWhereverItLanded) {
  ProjectPackage package = project(true, true);
  // Three presses far apart: inside, of unknown place, and outside the recorded source. A recording
  // session leaves the last out when it makes the first zooms; regenerating later works from the
  // project's events as they are.
  writeEvents(package,
              {pointerEvent(1'000, MousePhase::down, true), pointerEvent(4'000, MousePhase::down, std::nullopt),
               pointerEvent(7'000, MousePhase::down, false)});
  CLIMutationRequest request{id, CLIMutation{CLIMutation::ZoomRegenerate{}}, false, std::nullopt};
  CLIMutationResponse preview = service().mutate(request);
  EXPECT_EQ(preview.after.zoomCount, 3);
  EXPECT_FALSE(preview.applied);
}

// Sound in [0, 2 s) and [6 s, 7 s); the pointer moves at 1 s and 8 s, and a press outside the
// source at 4 s does not count. The timeline has [3 s, 4 s) cut out and plays the rest twice as
// fast, so 4 s of source land at 3 s of the film and every later second takes half a second.
//   pointer windows [0.5, 1.5) and [7.5, 8.5) -> idle [1.5, 7.5) and [8.5, 10) (exactly the minimum)
//   silence [2, 6) and [7, 10) -> quiet [2, 6) and [8.5, 10); [7, 7.5) is too short
//   cuts (source time): [2, 5.5) less the 500 ms tail, split by the timeline's cut, and [8.5, 9.5)
TEST_F(MediaCommandsTest, IdleFindsQuietSpansAndProposesCutsOnlyInPlayedMaterial) {
  ProjectPackage package = project(true, true);
  writeEvents(package, {pointerEvent(1'000, MousePhase::moved), pointerEvent(4'000, MousePhase::down, false),
                        pointerEvent(8'000, MousePhase::moved)});
  EditTimeline timeline = fixture.store.loadSnapshot(package).timeline;
  timeline.schemaVersion = EditTimeline::currentSchemaVersion;
  timeline.segments = {
      {Uuid::random(), ProjectTimeRange::fromStartEnd(ms(0), ms(3'000)), TimelinePlaybackRate::normal()},
      {Uuid::random(), ProjectTimeRange::fromStartEnd(ms(4'000), ms(10'000)), TimelinePlaybackRate{2'000}}};
  fixture.store.commitTimeline(timeline, fixture.store.timelineDigest(package), std::nullopt, package);
  waveforms->envelopes[MediaTrackKind::microphone] =
      envelopeOf(MediaTrackKind::microphone, 10'000, {{0, 2'000}, {6'000, 7'000}});

  CLICommand::Idle request;
  request.projectID = id;
  CLIIdleResponse response = service().idle(request);
  Json answer = response;
  EXPECT_EQ(answer["analyzedTrack"], "microphone");  // it wins over the system's sound
  EXPECT_EQ(answer["recommendedCuts"], parseJson(R"([{"startMilliseconds":2000,"endMilliseconds":3000},
      {"startMilliseconds":4000,"endMilliseconds":5500},{"startMilliseconds":8500,"endMilliseconds":9500}])"));
  EXPECT_EQ(answer["idleSpans"], parseJson(R"([
      {"sourceStartMilliseconds":1500,"sourceEndMilliseconds":7500,"sequenceRanges":[
        {"startMilliseconds":1500,"endMilliseconds":3000},{"startMilliseconds":3000,"endMilliseconds":4750}]},
      {"sourceStartMilliseconds":8500,"sourceEndMilliseconds":10000,"sequenceRanges":[
        {"startMilliseconds":5250,"endMilliseconds":6000}]}])"));
  EXPECT_EQ(answer["quietSpans"], parseJson(R"([
      {"sourceStartMilliseconds":2000,"sourceEndMilliseconds":6000,"sequenceRanges":[
        {"startMilliseconds":2000,"endMilliseconds":3000},{"startMilliseconds":3000,"endMilliseconds":4000}]},
      {"sourceStartMilliseconds":8500,"sourceEndMilliseconds":10000,"sequenceRanges":[
        {"startMilliseconds":5250,"endMilliseconds":6000}]}])"));
  EXPECT_EQ(answer["silenceSpans"].size(), 2u);
  // 150 loud buckets of 500: the lower quartile is digital silence.
  EXPECT_EQ(answer["estimatedNoiseFloorDecibels"], -96.0);
  EXPECT_EQ(answer["recommendedSilenceDecibels"], -55.0);
  EXPECT_EQ(answer["suggestedRate"], 3);
  EXPECT_EQ(answer.size(), 18u);
}

TEST_F(MediaCommandsTest, IdleNamesTheTrackItCannotAnalyse) {
  struct Case {
    bool systemAudio, microphone;
    std::optional<MediaTrackKind> requested;
    std::string message;  // empty: analysed
    std::string analyzed;
  };
  const Case cases[] = {
      {true, false, MediaTrackKind::microphone, "项目不包含所选静默分析音轨：microphone", ""},
      {false, true, MediaTrackKind::systemAudio, "项目不包含所选静默分析音轨：systemAudio", ""},
      {false, false, std::nullopt, "项目没有可用于静默分析的麦克风或系统声音轨。", ""},
      {true, false, std::nullopt, "", "system-audio"},
      {true, true, MediaTrackKind::systemAudio, "", "system-audio"},
  };
  for (const auto& c : cases) {
    project(c.systemAudio, c.microphone);
    for (auto kind : {MediaTrackKind::microphone, MediaTrackKind::systemAudio})
      waveforms->envelopes[kind] = envelopeOf(kind, 10'000, {});
    CLICommand::Idle request;
    request.projectID = id;
    request.track = c.requested;
    if (c.message.empty()) {
      EXPECT_EQ(service().idle(request).analyzedTrack, c.analyzed);
      continue;
    }
    try {
      service().idle(request);
      ADD_FAILURE() << c.message;
    } catch (const CLIIdleError& error) {
      EXPECT_EQ(std::string(error.what()), c.message);
      EXPECT_EQ(error.classification().code, "validation");
    }
  }
}

class CaptionExchangeCommandsTest : public MediaCommandsTest {
 protected:
  void SetUp() override { package = project(false, true); }

  CLICaptionPreparationResponse prepare() { return service().prepareCaptions(id, MediaTrackKind::microphone); }

  // The agent's transcript for a prepared job.
  void writeTranscript(const CLICaptionPreparationResponse& job, const Json& cues, const char* language = "zh-CN") {
    Json document = {{"protocolVersion", 1},       {"jobID", job.jobID},
                     {"projectID", job.projectID}, {"sourceAudioDigest", job.captionFormatExample.sourceAudioDigest},
                     {"language", language},       {"cues", cues}};
    writeFileAtomically(job.resultPath, document.dump());
  }

  CLICaptionImportResponse import(const CLICaptionPreparationResponse& job, bool aligns = false, bool applies = false,
                                  std::optional<std::string> timeline = std::nullopt,
                                  std::optional<std::string> captions = std::nullopt) {
    return service().importCaptions({id, Uuid::parse(job.jobID).value(), aligns, applies, timeline, captions});
  }

  ProjectPackage package;
};

TEST_F(CaptionExchangeCommandsTest, PrepareWritesTheAudioAndAJobBoundToIt) {
  CLICaptionPreparationResponse job = prepare();
  EXPECT_EQ(exportedKinds, std::vector<MediaTrackKind>{MediaTrackKind::microphone});
  const fs::path folder = exchangeRootDirectory() / job.jobID;
  EXPECT_EQ(fs::path(job.audioPath), folder / "source.wav");
  EXPECT_EQ(fs::path(job.resultPath), folder / "captions.json");
  EXPECT_FALSE(fs::exists(job.resultPath));
  EXPECT_EQ(readFile(job.audioPath, 1'000), wavBytes);

  CaptionExchangeJob written = decodeCaptionExchangeJob(readFile(folder / "job.json", 65'536));
  EXPECT_EQ(written.sourceAudioDigest, sha256Hex(wavBytes));
  EXPECT_EQ(written.timelineDigest, fixture.store.timelineDigest(package));
  EXPECT_EQ(written.sourceDurationMilliseconds, 10'000);
  EXPECT_EQ(job.sourceTrack, "microphone");
  const auto& example = job.captionFormatExample;
  EXPECT_EQ(example.sourceAudioDigest, written.sourceAudioDigest);
  ASSERT_EQ(example.cues.size(), 1u);
  EXPECT_EQ(example.cues[0].endMilliseconds, 1'000);
  EXPECT_EQ(job.instructions.size(), 3u);
}

TEST_F(CaptionExchangeCommandsTest, AFailedPreparationLeavesNoHalfMadeJob) {
  ProjectCommandService::MediaServices media;
  media.waveforms = waveforms;
  media.exportCaptionAudio = [](const ProjectSnapshot&, MediaTrackKind, const fs::path& target, std::stop_token) {
    writeFileAtomically(target, "RIFF");  // part of the audio, then Ctrl-C
    throw CancelledError();
  };
  ProjectCommandService cancelled(fixture.store, {}, media);
  EXPECT_THROW(cancelled.prepareCaptions(id, MediaTrackKind::microphone), CancelledError);
  EXPECT_TRUE(fs::is_empty(exchangeRootDirectory()));
}

TEST_F(CaptionExchangeCommandsTest, ImportPreviewWritesNothingAndItsCommitStoresWhatItShowed) {
  CLICaptionPreparationResponse job = prepare();
  writeTranscript(job, parseJson(R"([
      {"startMilliseconds":0,"endMilliseconds":5000,"text":"歡迎使用。",
       "words":[{"startMilliseconds":100,"endMilliseconds":600,"text":"歡迎"}],
       "highlights":[{"text":"欢迎"}]},
      {"startMilliseconds":6000,"endMilliseconds":9000,"text":"Done."}])"));
  waveforms->envelopes[MediaTrackKind::microphone] = envelopeOf(MediaTrackKind::microphone, 10'000, {{2'000, 2'500}});
  const auto before = folderContents(package.rootPath);

  CLICaptionImportResponse preview = import(job, true);
  EXPECT_EQ(folderContents(package.rootPath), before);
  EXPECT_FALSE(preview.applied);
  EXPECT_EQ(preview.cueCount, 2);
  EXPECT_EQ(preview.wordTimingCount, 1);
  EXPECT_EQ(preview.highlightedCueCount, 1);
  ASSERT_TRUE(preview.audioAlignment);
  // Words are never cut off: the sound at 2.0-2.5 s pads to 1.9-2.65 s, then reaches back to 0.1 s.
  Json adjustments = preview.audioAlignment->adjustments;
  EXPECT_EQ(adjustments, parseJson(R"([
      {"cueIndex":0,"originalRange":{"startMilliseconds":0,"endMilliseconds":5000},
       "adjustedRange":{"startMilliseconds":100,"endMilliseconds":2650},"action":"aligned"},
      {"cueIndex":1,"originalRange":{"startMilliseconds":6000,"endMilliseconds":9000},
       "adjustedRange":{"startMilliseconds":6000,"endMilliseconds":9000},"action":"unchanged-no-activity"}])"));
  ASSERT_EQ(preview.warnings.size(), 1u);
  EXPECT_EQ(preview.warnings[0],
            "Reliable audio activity was not detected for 1 captions. Original timing was kept (indices: 1).");
  ASSERT_TRUE(preview.confirmationArguments);
  EXPECT_EQ(*preview.confirmationArguments,
            (std::vector<std::string>{"captions-import", id.substr(0, 8), "--job", job.jobID, "--align-audio",
                                      "--apply", "--expect-timeline", preview.timelineDigest, "--expect-captions",
                                      preview.captionsDigest}));

  EXPECT_THROW(import(job, true, true), CLIArgumentError);  // --apply needs both digests
  CLICaptionImportResponse commit = import(job, true, true, preview.timelineDigest, preview.captionsDigest);
  EXPECT_TRUE(commit.applied);
  ASSERT_TRUE(commit.resultingDigest);
  EXPECT_EQ(fixture.store.captionsDigest(package), *commit.resultingDigest);
  CaptionDocument stored = *fixture.store.loadSnapshot(package).captions;
  EXPECT_EQ(stored.language, "zh-Hans");
  ASSERT_EQ(stored.cues.size(), 2u);
  EXPECT_EQ(stored.cues[0].text, "欢迎使用");  // simplified, the final full stop gone
  EXPECT_EQ(stored.cues[0].start, ms(100));
  EXPECT_EQ(stored.cues[0].end, ms(2'650));
  EXPECT_EQ(stored.cues[1].text, "Done");
  EXPECT_EQ(stored.sourceAudioDigest, sha256Hex(wavBytes));

  // The same confirmation again: the captions it expected are gone.
  EXPECT_THROW(import(job, true, true, preview.timelineDigest, preview.captionsDigest), ProjectStoreError);
  EXPECT_EQ(fixture.store.captionsDigest(package), *commit.resultingDigest);
}

TEST_F(CaptionExchangeCommandsTest, ImportRefusesATranscriptThatNoLongerFitsTheProject) {
  CLICaptionPreparationResponse job = prepare();
  writeTranscript(job, parseJson(R"([{"startMilliseconds":3000,"endMilliseconds":4500,"text":"hello"}])"));

  // A cut through the cue.
  EditTimeline timeline = fixture.store.loadSnapshot(package).timeline;
  timeline.segments = {
      {Uuid::random(), ProjectTimeRange::fromStartEnd(ms(0), ms(4'000)), TimelinePlaybackRate::normal()},
      {Uuid::random(), ProjectTimeRange::fromStartEnd(ms(5'000), ms(10'000)), TimelinePlaybackRate::normal()}};
  fixture.store.commitTimeline(timeline, fixture.store.timelineDigest(package), std::nullopt, package);
  EXPECT_ERROR_CASE(import(job), CaptionValidationError, CaptionValidationError::Case::staleTimeline);

  CLICaptionPreparationResponse fresh = prepare();
  writeTranscript(fresh, parseJson(R"([{"startMilliseconds":3000,"endMilliseconds":4500,"text":"hello"}])"));
  EXPECT_ERROR_CASE(import(fresh), CaptionValidationError, CaptionValidationError::Case::cueCrossesRemovedContent);

  // A transcript of the other job's audio.
  std::filesystem::copy_file(job.resultPath, fresh.resultPath, fs::copy_options::overwrite_existing);
  EXPECT_ERROR_CASE(import(fresh), CaptionValidationError, CaptionValidationError::Case::staleAudio);
  EXPECT_FALSE(fixture.store.loadSnapshot(package).captions);
}

TEST_F(CaptionExchangeCommandsTest, GenerationPreparesAnImportAndCommitsNothing) {
  generate = [](const ProjectSnapshot& snapshot) {
    CaptionGenerationResult result;
    result.job.id = Uuid::random();
    result.job.projectID = snapshot.manifest.id;
    result.job.sourceTrack = MediaTrackKind::microphone;
    result.job.sourceAudioDigest = std::string(64, 'c');
    result.job.timelineDigest = snapshot.timelineDigest;
    result.job.sourceDurationMilliseconds = 10'000;
    result.exchange.jobID = result.job.id;
    result.exchange.projectID = snapshot.manifest.id;
    result.exchange.sourceAudioDigest = result.job.sourceAudioDigest;
    result.exchange.language = "zh-Hans";
    result.exchange.cues.push_back(
        {0, 1'000, "你好", std::vector<CaptionExchangeWord>{{0, 400, "你"}, {400, 900, "好"}}, std::nullopt});
    result.document = result.exchange.captionDocument(result.job).validated(snapshot.manifest.duration);
    return result;
  };
  const auto before = folderContents(package.rootPath);
  CLICaptionGenerationResponse generated = service().generateBailianCaptions(id, CaptionTrackSelection::automatic);
  EXPECT_EQ(folderContents(package.rootPath), before);
  EXPECT_EQ(generated.cueCount, 1);
  EXPECT_EQ(generated.wordTimingCount, 2);
  EXPECT_EQ(generated.confirmationArguments,
            (std::vector<std::string>{"captions-import", id, "--job", generated.jobID}));
  EXPECT_TRUE(fs::exists(exchangeRootDirectory() / generated.jobID / "job.json"));

  // What it prepared imports like an agent's transcript.
  CLICaptionPreparationResponse job;
  job.jobID = generated.jobID;
  CLICaptionImportResponse preview = import(job);
  EXPECT_EQ(preview.cueCount, 1);
  EXPECT_EQ(preview.captionsDigest, generated.captionsDigest);
}

}  // namespace
}  // namespace vumo
