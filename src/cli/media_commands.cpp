// The commands of the command service that read the recording's sound: idle analysis and the
// caption exchange (prepare, import, cloud generation).

#include <algorithm>

#include "agent/agent_exchange.h"
#include "agent/caption_exchange.h"
#include "analysis/audio_activity_analyzer.h"
#include "analysis/caption_timing_aligner.h"
#include "analysis/timeline_idle_analyzer.h"
#include "captions/caption_coverage.h"
#include "cli/cli_errors.h"
#include "cli/media_module_loader.h"
#include "cli/output_destination.h"
#include "cli/project_command_service.h"
#include "cli/project_descriptions.h"
#include "media/media_module.h"
#include "media/waveform_cache.h"
#include "shared/cancellation.h"
#include "shared/digest.h"
#include "shared/files.h"
#include "shared/json.h"
#include "timeline/timeline_mapper.h"
#include "transcription/cloud_credential_store.h"

namespace vumo {

namespace {

namespace fs = std::filesystem;

// The caption audio of a long recording is large (32 kB a second); its digest is read in a stream.
constexpr std::size_t captionAudioMaximumBytes = std::size_t{1} << 36;

bool hasTrack(const ProjectManifest& manifest, MediaTrackKind kind) {
  return std::any_of(manifest.media.tracks.begin(), manifest.media.tracks.end(),
                     [&](const MediaTrack& track) { return track.kind == kind; });
}

// The microphone wins when both were recorded: it is where a person speaks.
MediaTrackKind idleTrack(const ProjectManifest& manifest, std::optional<MediaTrackKind> requested) {
  if (requested) {
    if (!hasTrack(manifest, *requested)) throw CLIIdleError::audioTrackUnavailable(nameOf(*requested));
    return *requested;
  }
  if (hasTrack(manifest, MediaTrackKind::microphone)) return MediaTrackKind::microphone;
  if (hasTrack(manifest, MediaTrackKind::systemAudio)) return MediaTrackKind::systemAudio;
  throw CLIIdleError::noAudioTrack();
}

// The command line spells the system's sound with a hyphen.
std::string commandLineTrackName(MediaTrackKind kind) {
  return kind == MediaTrackKind::systemAudio ? "system-audio" : std::string(nameOf(kind));
}

const std::vector<std::string>& captionInstructions() {
  static const std::vector<std::string> instructions = {
      "先检查本机已有转录引擎和模型；缺失时展示具体安装方案，让用户选择Agent安装、手动安装或暂不生成。Agent安装必须获得"
      "明确确认，任何情况下都不得上传音频。",
      "输出Caption Exchange Schema "
      "1到resultPath；中文固定使用language=zh-Hans和中国大陆简体字形，多数字幕不应高亮，只标记确有强调必要的原文关键词"
      "。",
      "模型只提供粗略句段时间时，captions-import预演应加--align-audio，以20ms音频包络保守收紧首尾静音。",
  };
  return instructions;
}

CLIRange millisecondRange(const ProjectTimeRange& range) { return CLIRange::from(range); }

// The engine's waveform service, made on first use. A current cache is read here first: an agent
// that asks `idle` again with other thresholds then never waits for the engine to load.
class LoadedWaveforms final : public WaveformProviding {
 public:
  WaveformEnvelope envelope(MediaTrackKind kind, const ProjectSnapshot& snapshot,
                            const std::function<void(double)>& progress, std::stop_token stop) override {
    if (auto cached = WaveformCache::current(snapshot, kind)) {
      if (progress) progress(1.0);
      return std::move(*cached);
    }
    if (!service_) service_ = MediaModuleLoader::load().makeWaveformService();
    return service_->envelope(kind, snapshot, progress, std::move(stop));
  }

 private:
  std::shared_ptr<WaveformProviding> service_;
};

}  // namespace

ProjectCommandService::ProjectCommandService(ProjectStore& store, std::stop_token cancellation, MediaServices media)
    : store_(store), cancellation_(std::move(cancellation)), media_(std::move(media)) {
  // The real engine is loaded only when a command first needs it, so commands that never decode
  // start without FFmpeg.
  if (!media_.waveforms) media_.waveforms = std::make_shared<LoadedWaveforms>();
  if (!media_.exportCaptionAudio)
    media_.exportCaptionAudio = [](const ProjectSnapshot& snapshot, MediaTrackKind kind, const fs::path& target,
                                   std::stop_token cancellation) {
      MediaModuleLoader::load().exportCaptionAudio(snapshot, kind, target, std::move(cancellation));
    };
  if (!media_.makeStillRenderer) {
    media_.makeStillRenderer = [] { return MediaModuleLoader::load().makeStillRenderer(); };
  }
  if (!media_.generateCaptions) {
    auto exporter = media_.exportCaptionAudio;
    media_.generateCaptions = [exporter](const ProjectSnapshot& snapshot, CaptionTrackSelection selection,
                                         std::stop_token cancellation) {
      CloudCredentialStore credentials;
      CaptionTranscriptionService service(exporter, credentials);
      return service.generateBailian(snapshot, selection, std::move(cancellation));
    };
  }
}

ProjectCommandService::~ProjectCommandService() = default;

CLIIdleResponse ProjectCommandService::idle(const CLICommand::Idle& request) {
  auto project = load(request.projectID);
  const ProjectSnapshot& snapshot = project.snapshot;
  const MediaTrackKind kind = idleTrack(snapshot.manifest, request.track);
  WaveformEnvelope envelope = media_.waveforms->envelope(
      kind, snapshot, [](double) {}, cancellation_);

  const ProjectTime duration = snapshot.manifest.duration;
  const ProjectTime minimum = ProjectTime::fromMilliseconds(request.minimumMilliseconds);
  TimelineIdleAnalysis analysis;
  double noiseFloor = -96.0;
  double recommended = AudioActivityAnalyzer::recommendedThreshold(noiseFloor);
  if (duration.nanoseconds >= 1) {
    analysis =
        TimelineIdleAnalyzer::analyze(envelope, snapshot.mouseEvents, duration, minimum, request.silenceDecibels);
    noiseFloor = AudioActivityAnalyzer::estimatedNoiseFloor(&envelope);
    recommended = AudioActivityAnalyzer::recommendedThreshold(noiseFloor);
  }

  TimelineMapper mapper(snapshot.timeline, duration);
  std::vector<ProjectTimeRange> retained;
  for (const auto& projection : mapper.projections()) retained.push_back(projection.segment.sourceRange);
  auto cuts = TimelineIdleAnalyzer::recommendedCuts(analysis, retained,
                                                    ProjectTime::fromMilliseconds(request.keepTailMilliseconds),
                                                    ProjectTime::fromMilliseconds(request.minimumRemovalMilliseconds));

  CLIIdleResponse response;
  response.projectID = snapshot.manifest.id.string();
  response.analyzedTrack = commandLineTrackName(kind);
  response.minimumDurationMilliseconds = request.minimumMilliseconds;
  response.silenceThresholdDecibels = request.silenceDecibels;
  response.estimatedNoiseFloorDecibels = noiseFloor;
  response.recommendedSilenceDecibels = recommended;
  response.keepTailMilliseconds = request.keepTailMilliseconds;
  response.minimumRemovalMilliseconds = request.minimumRemovalMilliseconds;
  for (const auto& cut : cuts) response.recommendedCuts.push_back(millisecondRange(cut));
  response.idleSpans = ProjectInspector::spanDescriptions(analysis.idleRanges, mapper);
  response.silenceSpans = ProjectInspector::spanDescriptions(analysis.silenceRanges, mapper);
  response.quietSpans = ProjectInspector::spanDescriptions(analysis.quietRanges, mapper);
  return response;
}

CLICaptionPreparationResponse ProjectCommandService::prepareCaptions(const std::string& projectID,
                                                                     MediaTrackKind track) {
  auto project = load(projectID);
  const ProjectSnapshot& snapshot = project.snapshot;
  const Uuid jobID = Uuid::random();
  const fs::path folder = createExchangeJobDirectory(jobID);
  // A job is whole or absent: an agent that lists the exchange never meets audio without its job.
  struct HalfMadeJob {
    const fs::path& folder;
    bool finished = false;
    ~HalfMadeJob() {
      std::error_code ignored;
      if (!finished) fs::remove_all(folder, ignored);
    }
  } halfMade{folder};
  const fs::path audio = folder / captionExchangeAudioFileName;
  media_.exportCaptionAudio(snapshot, track, audio, cancellation_);

  CaptionExchangeJob job;
  job.id = jobID;
  job.projectID = snapshot.manifest.id;
  job.sourceTrack = track;
  job.sourceAudioDigest = sha256HexOfFile(audio, captionAudioMaximumBytes);
  job.timelineDigest = snapshot.timelineDigest;
  job.sourceDurationMilliseconds = snapshot.manifest.duration.cliMilliseconds();
  job.createdAt = Timestamp::now();
  writeFileAtomically(folder / exchangeJobFileName, encodeCaptionExchangeJob(job));
  halfMade.finished = true;

  // One cue and one word that fit inside the recording, however short it is.
  const std::int64_t duration = job.sourceDurationMilliseconds;
  CaptionExchangeDocument example;
  example.jobID = jobID;
  example.projectID = job.projectID;
  example.sourceAudioDigest = job.sourceAudioDigest;
  example.language = std::string(CaptionExchangeDocument::simplifiedChineseLanguage);
  example.cues.push_back({0, std::min<std::int64_t>(duration, 1'000), "替换为转录文本",
                          std::vector<CaptionExchangeWord>{{0, std::min<std::int64_t>(duration, 500), "替换"}},
                          std::vector<CaptionExchangeHighlight>{{"转录文本", 1}}});

  CLICaptionPreparationResponse response;
  response.projectID = job.projectID.string();
  response.jobID = jobID.string();
  response.audioPath = fs::absolute(audio).string();
  response.resultPath = fs::absolute(folder / captionExchangeDocumentFileName).string();
  response.sourceTrack = std::string(nameOf(track));
  response.timelineDigest = job.timelineDigest;
  response.captionFormatExample = std::move(example);
  response.instructions = captionInstructions();
  return response;
}

CLICaptionImportResponse ProjectCommandService::importCaptions(const CLICaptionImportRequest& request) {
  auto project = load(request.projectID);
  const ProjectSnapshot& snapshot = project.snapshot;
  const ProjectTime duration = snapshot.manifest.duration;
  const fs::path folder = exchangeRootDirectory() / request.jobID.string();

  CaptionExchangeJob job = decodeCaptionExchangeJob(readCaptionExchangeJobData(folder / exchangeJobFileName));
  job.verifyCurrent(request.jobID, snapshot.manifest.id, snapshot.timelineDigest);
  CaptionExchangeDocument exchange =
      decodeCaptionExchangeDocument(readCaptionExchangeDocumentData(folder / captionExchangeDocumentFileName));

  // The snapshot's captions are the state this answer reports and a commit expects.
  std::optional<CaptionStyle> style;
  if (snapshot.captions) style = snapshot.captions->style;
  CaptionDocument document = exchange.captionDocument(job, style).validated(duration);
  validateCaptionCoverage(document, snapshot.timeline, duration);

  CLICaptionImportResponse response;
  if (request.alignsAudio) {
    WaveformEnvelope envelope = media_.waveforms->envelope(
        job.sourceTrack, snapshot, [](double) {}, cancellation_);
    CaptionTimingAlignmentResult aligned = CaptionTimingAligner::align(document, envelope);
    document = aligned.document.validated(duration);
    CLICaptionAudioAlignmentDescription alignment;
    alignment.analyzedTrack = std::string(nameOf(job.sourceTrack));
    alignment.estimatedNoiseFloorDecibels = aligned.estimatedNoiseFloorDecibels;
    alignment.activityThresholdDecibels = aligned.thresholdDecibels;
    for (const auto& adjustment : aligned.adjustments)
      alignment.adjustments.push_back({adjustment.cueIndex, millisecondRange(adjustment.originalRange),
                                       millisecondRange(adjustment.adjustedRange),
                                       std::string(nameOf(adjustment.action))});
    response.audioAlignment = std::move(alignment);
    response.warnings = std::move(aligned.warnings);
  }

  response.projectID = snapshot.manifest.id.string();
  response.timelineDigest = snapshot.timelineDigest;
  response.captionsDigest = snapshot.captionsDigest;
  response.cueCount = static_cast<std::int64_t>(document.cues.size());
  for (const auto& cue : document.cues) {
    response.wordTimingCount += static_cast<std::int64_t>(cue.words.size());
    response.highlightCount += static_cast<std::int64_t>(cue.highlights.size());
    if (!cue.highlights.empty()) ++response.highlightedCueCount;
  }

  if (!request.appliesChanges) {
    std::vector<std::string> words{"captions-import", response.projectID.substr(0, 8), "--job", request.jobID.string()};
    if (request.alignsAudio) words.push_back("--align-audio");
    words.insert(words.end(), {"--apply", "--expect-timeline", response.timelineDigest, "--expect-captions",
                               response.captionsDigest});
    response.confirmationArguments = std::move(words);
    return response;
  }
  if (!request.expectedTimelineDigest || !request.expectedCaptionsDigest)
    throw CLIArgumentError::missingValue("--expect-timeline/--expect-captions");
  response.resultingDigest = store_.commitCaptions(document, *request.expectedCaptionsDigest,
                                                   *request.expectedTimelineDigest, project.package);
  response.applied = true;
  return response;
}

CLICaptionGenerationResponse ProjectCommandService::generateBailianCaptions(const std::string& projectID,
                                                                            CaptionTrackSelection track) {
  auto project = load(projectID);
  CaptionGenerationResult result = media_.generateCaptions(project.snapshot, track, cancellation_);

  const fs::path folder = createExchangeJobDirectory(result.job.id);
  writeFileAtomically(folder / exchangeJobFileName, encodeCaptionExchangeJob(result.job));
  const fs::path resultPath = folder / captionExchangeDocumentFileName;
  writeFileAtomically(resultPath, encodeCaptionExchangeDocument(result.exchange));

  CaptionsState state = store_.captionsState(project.package);
  CLICaptionGenerationResponse response;
  response.projectID = project.snapshot.manifest.id.string();
  response.jobID = result.job.id.string();
  response.sourceTrack = std::string(nameOf(result.job.sourceTrack));
  response.cueCount = static_cast<std::int64_t>(result.document.cues.size());
  for (const auto& cue : result.document.cues) response.wordTimingCount += static_cast<std::int64_t>(cue.words.size());
  response.timelineDigest = result.job.timelineDigest;
  response.captionsDigest = state.digest;
  response.resultPath = fs::absolute(resultPath).string();
  response.confirmationArguments = {"captions-import", response.projectID, "--job", response.jobID};
  return response;
}

CLIOutputResponse ProjectCommandService::frame(const CLICommand::Frame& request) {
  const fs::path output = prepareOutputPath(request.outputPath, request.replace);
  LoadedProject project = load(request.projectID);
  const std::shared_ptr<ProjectStillRendering> renderer = media_.makeStillRenderer();
  std::string extension = output.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  StillImageFormat format;
  if (extension == ".jpg" || extension == ".jpeg") {
    format = StillImageFormat::jpeg;
  } else if (extension == ".png") {
    format = StillImageFormat::png;
  } else {
    throw CLIArgumentError::invalidValue("--out必须为jpg/jpeg/png");
  }
  const std::string picture = renderer->render(project.snapshot, ProjectTime::fromMilliseconds(request.milliseconds),
                                               static_cast<int>(request.width), format, cancellation_);
  throwIfCancelled(cancellation_);
  writeFileAtomically(output, picture);
  return CLIOutputResponse{1, project.snapshot.manifest.id.string(), output.string()};
}

}  // namespace vumo
