#include "transcription/caption_transcription_service.h"

#include <algorithm>
#include <system_error>

#include "shared/cancellation.h"
#include "shared/digest.h"
#include "shared/files.h"
#include "shared/uuid.h"
#include "transcription/transcription_errors.h"

namespace fs = std::filesystem;

namespace vumo {

namespace {

constexpr std::int64_t nanosecondsPerMillisecond = 1'000'000;

// A folder of its own for one transcription's audio, gone when the object goes, whatever ended
// the work. A failure to remove it must not hide the error that ended the work.
class TemporaryAudioFolder {
 public:
  TemporaryAudioFolder() : path_(fs::temp_directory_path() / "Vumo-Captions" / Uuid::random().string()) {
    createDirectories(path_);
    // The user's voice: readable by the user alone.
    std::error_code ignored;
    fs::permissions(path_, fs::perms::owner_all, fs::perm_options::replace, ignored);
  }
  ~TemporaryAudioFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  TemporaryAudioFolder(const TemporaryAudioFolder&) = delete;
  TemporaryAudioFolder& operator=(const TemporaryAudioFolder&) = delete;

  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

bool hasTrack(const ProjectManifest& manifest, MediaTrackKind kind) {
  return std::any_of(manifest.media.tracks.begin(), manifest.media.tracks.end(),
                     [kind](const MediaTrack& track) { return track.kind == kind; });
}

}  // namespace

CaptionTranscriptionService::CaptionTranscriptionService(CaptionAudioExport exporter,
                                                         const CloudCredentialStore& credentials,
                                                         BailianConnectionSettings settings)
    : exporter_(std::move(exporter)), provider_(credentials, settings) {}

MediaTrackKind CaptionTranscriptionService::resolvedTrack(const ProjectManifest& manifest,
                                                          CaptionTrackSelection selection) {
  switch (selection) {
    case CaptionTrackSelection::automatic:
      if (hasTrack(manifest, MediaTrackKind::microphone)) return MediaTrackKind::microphone;
      if (hasTrack(manifest, MediaTrackKind::systemAudio)) return MediaTrackKind::systemAudio;
      break;
    case CaptionTrackSelection::microphone:
      if (hasTrack(manifest, MediaTrackKind::microphone)) return MediaTrackKind::microphone;
      break;
    case CaptionTrackSelection::systemAudio:
      if (hasTrack(manifest, MediaTrackKind::systemAudio)) return MediaTrackKind::systemAudio;
      break;
  }
  throw CaptionTranscriptionError::missingTrack();
}

CaptionGenerationResult CaptionTranscriptionService::generateBailian(const ProjectSnapshot& snapshot,
                                                                     CaptionTrackSelection selection,
                                                                     std::stop_token stop) {
  MediaTrackKind track = resolvedTrack(snapshot.manifest, selection);
  throwIfCancelled(stop);

  TemporaryAudioFolder folder;
  fs::path audioPath = folder.path() / captionExchangeAudioFileName;
  exporter_(snapshot, track, audioPath, stop);
  throwIfCancelled(stop);
  std::string audio = readFile(audioPath, maximumAudioBytes);

  CaptionExchangeJob job;
  job.protocolVersion = CaptionExchangeJob::currentProtocolVersion;
  job.id = Uuid::random();
  job.projectID = snapshot.manifest.id;
  job.sourceTrack = track;
  job.sourceAudioDigest = sha256Hex(audio);
  // The snapshot's digest is that of the very timeline bytes it holds, which is what a later
  // import compares against.
  job.timelineDigest = snapshot.timelineDigest;
  job.sourceDurationMilliseconds = snapshot.manifest.duration.nanoseconds / nanosecondsPerMillisecond;
  job.createdAt = Timestamp::now();

  CaptionExchangeDocument exchange = provider_.transcribe(audio, job, stop);
  std::optional<CaptionStyle> style;
  if (snapshot.captions) style = snapshot.captions->style;
  CaptionDocument document = exchange.captionDocument(job, style).validated(snapshot.manifest.duration);
  return {std::move(job), std::move(exchange), std::move(document)};
}

}  // namespace vumo
