#pragma once

// The edited film's sound as one stream of PCM on the sequence timeline: every audio track of a
// composition plan decoded, cut, time-stretched where its speed changed (pitch kept), brought to
// one output format, scaled by its mix volume and summed. The player and the export read audio
// only through this.

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "media/media_container.h"
#include "media/media_errors.h"
#include "media/timeline_composition.h"
#include "shared/project_time.h"

namespace vumo {

// Interleaved 32-bit float samples in [-1, 1], `channelCount` per frame. Float keeps the mix of
// several tracks exact until the one clamp at the end; a writer that wants integers converts once.
// A mono source is heard at its recorded level on every output channel; other layouts are
// rematrixed by libswresample's defaults.
struct AudioOutputFormat {
  int sampleRate = 48'000;  // 8,000...384,000
  int channelCount = 2;     // 1...8, in libav's default layout for that count

  friend bool operator==(const AudioOutputFormat&, const AudioOutputFormat&) = default;
};

// Counts are in frames (one sample per channel). Sequence time t falls on frame
// floor(t × sampleRate / 1e9); a piece covers the frames from its start's frame to its end's, so
// neighbouring pieces tile the output exactly and never drift, whatever their rates. A piece whose
// decoded and stretched sound comes out shorter is padded with silence, a longer one is cut.
//
// Not copyable; use from one thread at a time. Cancellation: the container's stop token ends a read
// (CancelledError), checked between pieces and by every read of the file. After any exception the
// reader must be sought before it reads again.
class SequenceAudioReader {
 public:
  // Takes the container for the first audio track; each further track reads its own stretch of the
  // movie, so it opens the same file again with the same stop token. The plan's audio tracks are
  // mixed with the volumes of `plan.audioMix` (1.0 for a track the mix does not list). Throws
  // std::invalid_argument for a format outside its ranges, what MediaContainer::open throws, and
  // SequenceReaderError::unsupportedStream for a track that is not decodable audio.
  SequenceAudioReader(MediaContainer container, const TimelineCompositionPlan& plan, AudioOutputFormat format = {});
  SequenceAudioReader(SequenceAudioReader&&) noexcept;
  SequenceAudioReader& operator=(SequenceAudioReader&&) noexcept;
  ~SequenceAudioReader();

  const AudioOutputFormat& format() const;
  // floor(plan.sequenceDuration × sampleRate / 1e9).
  std::int64_t frameCount() const;
  // The frame the next read starts at.
  std::int64_t position() const;

  // Fills the front of `into` with the next frames, at most `into.size() / channelCount`, and
  // returns how many it wrote: fewer only at the end, 0 once the sequence is over. Throws
  // SequenceReaderError (decodingFailed, conversionFailed) or CancelledError.
  std::int64_t read(std::span<float> into);

  // The next read starts at the frame of `sequenceTime`, clamped to [0, frameCount()].
  void seek(ProjectTime sequenceTime);

  // The libavfilter graph (between its source and sink) that plays `ratePermille` times as fast with
  // the pitch kept: rubberband where libavfilter has it, else atempo, chained so that every factor
  // stays within 0.5...2.
  static std::string stretchFilterDescription(std::int32_t ratePermille, bool rubberbandAvailable);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vumo
