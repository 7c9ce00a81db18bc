#pragma once

// Captions from the cloud: exports the chosen audio track, sends it to Bailian and turns the answer
// into a caption document for the project, validated but not committed. The caller shows or
// imports the result; nothing here writes into the project or the exchange folder.

#include <filesystem>
#include <functional>
#include <stop_token>

#include "agent/caption_exchange.h"
#include "captions/caption_document.h"
#include "project/project_snapshot.h"
#include "shared/media_track_kind.h"
#include "transcription/bailian_transcription_provider.h"
#include "transcription/caption_track_selection.h"
#include "transcription/cloud_credential_store.h"

namespace vumo {

// Writes the caption audio of one track of the snapshot's recording (a WAV file of 16 kHz 16-bit
// mono PCM after a 44-byte header) to `target`. The media area provides the real one; it stops with
// CancelledError when `stop` is requested.
using CaptionAudioExport = std::function<void(const ProjectSnapshot& snapshot, MediaTrackKind track,
                                              const std::filesystem::path& target, std::stop_token stop)>;

struct CaptionGenerationResult {
  CaptionExchangeJob job;
  CaptionExchangeDocument exchange;
  CaptionDocument document;  // validated against the recording's duration
};

// One owner that handles one call at a time.
class CaptionTranscriptionService {
 public:
  // The exported audio is at most this large (about nine hours of caption audio).
  static constexpr std::size_t maximumAudioBytes = std::size_t{1} << 30;

  CaptionTranscriptionService(CaptionAudioExport exporter, const CloudCredentialStore& credentials,
                              BailianConnectionSettings settings = {});

  CaptionTranscriptionService(const CaptionTranscriptionService&) = delete;
  CaptionTranscriptionService& operator=(const CaptionTranscriptionService&) = delete;

  // The track captions are made from: `automatic` takes the microphone when the recording has
  // one, else the system audio; an explicit choice needs that track. Failing that,
  // CaptionTranscriptionError::missingTrack.
  static MediaTrackKind resolvedTrack(const ProjectManifest& manifest, CaptionTrackSelection selection);

  // Exports the track into a private temporary folder (the system's temporary directory,
  // "Vumo-Captions", a fresh UUID), removed again on every way out; makes the job (digests of the
  // audio bytes and of the snapshot's timeline, duration truncated to milliseconds); transcribes;
  // converts keeping the project's current caption style; validates. Fails with the errors of the
  // steps: missingTrack, the exporter's, CloudCredentialError, CaptionTranscriptionError,
  // CaptionValidationError, CancelledError.
  CaptionGenerationResult generateBailian(const ProjectSnapshot& snapshot, CaptionTrackSelection selection,
                                          std::stop_token stop = {});

 private:
  CaptionAudioExport exporter_;
  BailianTranscriptionProvider provider_;
};

}  // namespace vumo
