#pragma once

// What the editor window needs of a player: the playhead, playback, skimming, and the frame to
// paint. The real one is the project player over the media engine (`makeEditorPlayer`);
// `TimelineClockPlayer` keeps the playhead alone, for an editor without a preview engine.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "shared/geometry.h"
#include "shared/project_time.h"
#include "timeline/edit_timeline.h"

namespace vumo {

struct ProjectSnapshot;

// A borrowed frame: premultiplied RGBA8, top row first, 4 * width bytes a row. `keepAlive` holds
// the memory `rgba` points into.
struct EditorPlayerFrame {
  PixelSize size;
  const std::uint8_t* rgba = nullptr;
  ProjectTime sequenceTime;
  std::shared_ptr<const void> keepAlive;
};

class EditorPlayer {
 public:
  // Each runs on the main loop; any may be left empty.
  struct Observer {
    std::function<void()> frameChanged;
    std::function<void()> stateChanged;
    std::function<void(const std::string&)> failed;
  };

  virtual ~EditorPlayer() = default;

  // Set once by the window before `load`.
  virtual void setObserver(Observer observer) = 0;
  virtual void load(const ProjectSnapshot& snapshot) = 0;
  virtual void applyTimeline(const EditTimeline& timeline) = 0;
  virtual void setViewSize(PixelSize devicePixels) = 0;
  virtual void play() = 0;
  virtual void pause() = 0;
  virtual void togglePlayback() = 0;
  virtual void seek(ProjectTime sequenceTime) = 0;
  virtual void skim(ProjectTime sequenceTime) = 0;
  virtual void endSkim() = 0;
  virtual void stepFrames(int frames) = 0;
  // The position: where playback is or goes on from (a skim does not move it).
  virtual ProjectTime currentTime() const = 0;
  // Where the picture shows while the pointer hovers over the timeline.
  virtual std::optional<ProjectTime> skimTime() const = 0;
  virtual ProjectTime duration() const = 0;
  virtual bool isPlaying() const = 0;
  // None before the first frame.
  virtual std::optional<EditorPlayerFrame> currentFrame() const = 0;
  virtual std::optional<std::string> errorText() const = 0;
};

// The playhead without pictures: seeks and steps on the 60 fps grid within the timeline's
// sequence, never plays (there is nothing to show), and says why through `errorText`.
class TimelineClockPlayer final : public EditorPlayer {
 public:
  // `reason` is the error text the view shows in place of the picture.
  explicit TimelineClockPlayer(std::string reason);

  void setObserver(Observer observer) override { observer_ = std::move(observer); }
  void load(const ProjectSnapshot& snapshot) override;
  void applyTimeline(const EditTimeline& timeline) override;
  void setViewSize(PixelSize) override {}
  void play() override {}
  void pause() override {}
  void togglePlayback() override {}
  void seek(ProjectTime sequenceTime) override;
  void skim(ProjectTime sequenceTime) override;
  void endSkim() override;
  void stepFrames(int frames) override;
  ProjectTime currentTime() const override { return time_; }
  std::optional<ProjectTime> skimTime() const override { return skimTime_; }
  ProjectTime duration() const override { return duration_; }
  bool isPlaying() const override { return false; }
  std::optional<EditorPlayerFrame> currentFrame() const override { return std::nullopt; }
  std::optional<std::string> errorText() const override { return reason_; }

 private:
  void moveTo(ProjectTime time);

  std::string reason_;
  Observer observer_;
  ProjectTime sourceDuration_;
  ProjectTime duration_;
  ProjectTime time_;
  std::optional<ProjectTime> skimTime_;
};

class MainLoop;

// The project player over the loaded media engine, with sound through PulseAudio (silent where
// there is no sound server). Where the engine cannot be loaded or cannot draw (no media engine
// installed, no GPU context), a TimelineClockPlayer that shows why.
std::unique_ptr<EditorPlayer> makeEditorPlayer(MainLoop& loop);

}  // namespace vumo
