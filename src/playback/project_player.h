#pragma once
// The editor's player: plays, skims and steps the edit with its sound. Frames come from the media
// engine (ProjectPreviewing: the same frame source, evaluator and renderer as `frame` and the
// exported film), drawn on a worker thread of the player's own at the view's size in device
// pixels, a few frames ahead of the clock; a second thread keeps the sound output fed. The main
// loop hears of new frames and state through the observer. While sound plays, the clock is the
// time the speaker is heard at (PlaybackAudioOutput subtracts what is still queued), so picture
// and sound stay together whatever the renderer's speed; a frame that would come late is skipped
// instead. Without sound the clock is the main loop's.
//
// Everything here is called on the main loop's thread, and the observer is called there too,
// never inside one of these calls. Failures of the engine (a movie that no longer decodes) stop
// playback and become errorText() and one call of `failed`; a failure of the sound alone (the
// sound server went away) is told once through `failed` and playback goes on without sound.
// Nothing throws out of the player.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "editor/main_loop.h"
#include "media/media_module.h"
#include "playback/playback_audio_output.h"
#include "project/project_snapshot.h"
#include "shared/geometry.h"
#include "shared/project_time.h"
#include "timeline/edit_timeline.h"

namespace vumo {

struct PlayerFrame {
  PixelSize size;
  std::vector<std::uint8_t> rgba;  // premultiplied RGBA8, top row first, stride 4 × width
  ProjectTime sequenceTime;
};

class ProjectPlayer {
 public:
  struct Observer {
    std::function<void()> frameChanged;
    std::function<void()> stateChanged;  // playing or paused, the duration, the position after a jump
    std::function<void(const std::string&)> failed;
  };

  // Frames drawn ahead of the clock while playing, at most.
  static constexpr std::size_t framesAhead = 3;
  // How often the main loop looks at the clock while playing: well under one frame at 60 fps.
  static constexpr MainLoop::Clock::duration tickInterval = std::chrono::milliseconds(4);

  // `audio` may be null: the player is then silent and runs on the main loop's clock.
  ProjectPlayer(MainLoop& loop, std::shared_ptr<ProjectPreviewing> engine, std::unique_ptr<PlaybackAudioOutput> audio,
                Observer observer);
  // Stops the worker (an unfinished frame is cancelled) and the sound.
  ~ProjectPlayer();
  ProjectPlayer(const ProjectPlayer&) = delete;
  ProjectPlayer& operator=(const ProjectPlayer&) = delete;

  // Opens `snapshot` (pausing at its start) and clears an earlier error.
  void load(const ProjectSnapshot& snapshot);
  // The editor's current timeline: the next frame shows its look. The composition is built again
  // only when its clips or its audio mix differ from those loaded last.
  void applyTimeline(const EditTimeline& timeline);
  // The size of the picture's area in device pixels; frames are drawn to fit it.
  void setViewSize(PixelSize devicePixels);

  // Play from the position (from the start once at the end), pause, or the one that applies.
  void play();
  void pause();
  void togglePlayback();
  // Moves the position (clamped into the sequence); playback goes on from there if it was playing.
  void seek(ProjectTime sequenceTime);
  // Shows the picture at `sequenceTime` without moving the position, as the pointer hovers over
  // the timeline; ignored while playing. endSkim() shows the position's picture again.
  void skim(ProjectTime sequenceTime);
  void endSkim();
  // Pauses and moves by `frames` frames of the 60 fps grid of the edits (back for negative counts),
  // within the sequence.
  void stepFrames(int frames);

  // The position: where playback is, or would go on from.
  ProjectTime currentTime() const { return position_; }
  ProjectTime duration() const { return duration_; }
  bool isPlaying() const { return playing_; }
  std::optional<ProjectTime> skimTime() const { return skimTime_; }
  // The picture to show now; null before the first frame.
  std::shared_ptr<const PlayerFrame> currentFrame() const { return currentFrame_; }
  // The failure that stopped the player, in words; none while it works.
  std::optional<std::string> errorText() const { return errorText_; }

  // Frames drawn ahead and waiting for the clock, for tests and measurements.
  std::size_t framesQueued() const;

  // The latest grid frame inside a sequence of `duration`: where the last picture is.
  static ProjectTime lastFrameTime(ProjectTime duration);

 private:
  struct Worker;

  void startPlaying();
  // Pauses at `position`, or where the clock is.
  void stopPlaying(std::optional<ProjectTime> position);
  void requestStill(ProjectTime time, bool atPosition);
  ProjectTime lastFrameTimeOr(ProjectTime time) const;
  void takeDuration(ProjectTime duration);
  void scheduleTick();
  void tick();
  ProjectTime clockTime();
  void takeFrame(std::shared_ptr<const PlayerFrame> frame, std::uint64_t generation, bool atPosition);
  void takeFailure(const std::string& text);
  void takeSoundFailure(const std::string& text);
  void notifyState();

  MainLoop& loop_;
  Observer observer_;
  std::unique_ptr<Worker> worker_;
  // Work posted by the worker checks this before touching the player: it is cleared (under the
  // worker's lock) when the player goes away.
  std::shared_ptr<bool> alive_;

  // The snapshot loaded, with the latest timeline applied.
  std::optional<ProjectSnapshot> snapshot_;
  ProjectTime duration_;
  ProjectTime position_;
  bool playing_ = false;
  std::optional<ProjectTime> skimTime_;
  // Raised whenever what the next picture shows changes (pictures of an earlier one are dropped),
  // and, for `run_`, whenever playback starts, jumps or stops (the sound starts over).
  std::uint64_t generation_ = 0;
  std::uint64_t run_ = 0;
  MainLoop::TimerID tickTimer_ = 0;
  bool tickScheduled_ = false;
  // Where the monotonic clock of a run without sound started.
  ProjectTime playFrom_;
  MainLoop::Clock::time_point playStartedAt_{};
  ProjectTime lastClock_;
  std::shared_ptr<const PlayerFrame> currentFrame_;
  std::shared_ptr<const PlayerFrame> positionFrame_;  // the picture at the position, kept while skimming
  std::optional<std::string> errorText_;
  bool soundFailureShown_ = false;
};

// The player's engine of the loaded media engine (MediaModuleLoader::load() in the program).
// Throws PlaybackError::engineUnavailable for an engine without one, and what making it throws
// (RenderingContextError).
std::shared_ptr<ProjectPreviewing> loadPreviewEngine(const MediaModule& module);

}  // namespace vumo
