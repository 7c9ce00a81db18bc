// Drives the editing engines with arbitrary operation sequences. Every engine must either return a
// timeline that passes validation or throw one of the program's typed errors; nothing may stop
// the process (the checked arithmetic aborts on overflow) or return an invalid document.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "timeline/auto_zoom_engine.h"
#include "timeline/edit_timeline.h"
#include "timeline/timeline_edit_engine.h"
#include "timeline/timeline_effect_engine.h"
#include "timeline/timeline_settings_engine.h"
#include "timeline/timeline_speed_engine.h"
#include "timeline/timeline_validator.h"

namespace {

using namespace vumo;

class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  bool empty() const { return offset_ >= size_; }
  std::uint8_t byte() { return empty() ? 0 : data_[offset_++]; }
  std::int64_t int64() {
    std::uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = v << 8 | byte();
    return static_cast<std::int64_t>(v);
  }
  // Mostly plausible times, sometimes anything at all.
  ProjectTime time(ProjectTime source) {
    switch (byte() % 4) {
      case 0: return {int64()};
      case 1: return {static_cast<std::int64_t>(byte()) * 16'666'666};
      default: {
        std::uint64_t r = static_cast<std::uint64_t>(int64());
        return {static_cast<std::int64_t>(r % static_cast<std::uint64_t>(source.nanoseconds + 2'000'000'000)) -
                1'000'000'000};
      }
    }
  }
  double number() {
    switch (byte() % 5) {
      case 0: {
        std::int64_t bits = int64();
        double d;
        std::memcpy(&d, &bits, sizeof d);
        return d;
      }
      default: return static_cast<double>(byte()) / 200.0;
    }
  }
  template <class T>
  const T* pick(const std::vector<T>& items) {
    if (items.empty()) return nullptr;
    return &items[byte() % items.size()];
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t offset_ = 0;
};

Uuid idOf(const TimelineSegment* segment) { return segment ? segment->id : Uuid::random(); }
Uuid idOf(const ZoomSegment* zoom) { return zoom ? zoom->id : Uuid::random(); }
Uuid idOf(const WebcamFullscreenSegment* segment) { return segment ? segment->id : Uuid::random(); }

const char* const settingKeys[] = {"canvas.aspect",   "canvas.padding", "cursor.show",          "webcam.x",
                                   "webcam.diameter", "webcam.shape",   "audio.system.gain-db", "bogus"};
const char* const settingValues[] = {"9:16", "0.1", "on", "1", "0.4", "circle", "-100", "abc", "", "nan", "1e308"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input in(data, size);
  const ProjectTime source{static_cast<std::int64_t>(1 + in.byte() % 120) * 500'000'000 + in.byte()};
  EditTimeline timeline = EditTimeline::empty().normalized(source, true);
  TimelineValidator::validate(timeline, source);

  for (int step = 0; step < 24 && !in.empty(); ++step) {
    try {
      EditTimeline next;
      switch (in.byte() % 16) {
        case 0: next = TimelineEditEngine::split(timeline, in.time(source), source); break;
        case 1:
          next = TimelineEditEngine::trimStart(timeline, idOf(in.pick(timeline.segments)), in.time(source), source);
          break;
        case 2:
          next = TimelineEditEngine::trimEnd(timeline, idOf(in.pick(timeline.segments)), in.time(source), source);
          break;
        case 3: next = TimelineEditEngine::rippleDelete(timeline, idOf(in.pick(timeline.segments)), source); break;
        case 4: {
          std::vector<ProjectTimeRange> ranges;
          for (int i = in.byte() % 3; i >= 0; --i) ranges.push_back({in.time(source), in.time(source)});
          next = TimelineEditEngine::removeSourceRanges(timeline, ranges, source);
          break;
        }
        case 5: {
          TimelinePlaybackRate rate{static_cast<std::int32_t>(in.byte()) * 20};
          next = TimelineSpeedEngine::settingRate(rate, {in.time(source), in.time(source)}, timeline, source);
          break;
        }
        case 6: {
          std::vector<TimelineSpeedChange> changes;
          for (int i = in.byte() % 3; i >= 0; --i)
            changes.push_back({{in.time(source), in.time(source)}, {500 + 10 * (in.byte() % 4)}});
          next = TimelineSpeedEngine::applying(changes, timeline, source).timeline;
          break;
        }
        case 7: {
          std::vector<MouseEvent> events;
          for (int i = in.byte() % 8; i >= 0; --i) {
            MouseEvent event;
            event.time = in.time(source);
            event.normalizedPoint = {in.number(), in.number()};
            event.button = in.byte() % 4 == 0 ? MouseButton::right : MouseButton::left;
            event.phase = in.byte() % 4 == 0 ? MousePhase::up : MousePhase::down;
            events.push_back(event);
          }
          auto zooms = AutoZoomEngine::standard().makeSegments(events, source);
          // The generated zooms must always be acceptable on their own.
          next = TimelineEffectEngine::replaceZooms(timeline, zooms, source);
          break;
        }
        case 8:
          next =
              TimelineEffectEngine::updateZoomStart(timeline, idOf(in.pick(timeline.zooms)), in.time(source), source);
          break;
        case 9:
          next = TimelineEffectEngine::updateZoomEnd(timeline, idOf(in.pick(timeline.zooms)), in.time(source), source);
          break;
        case 10:
          next =
              TimelineEffectEngine::updateZoomScale(timeline, idOf(in.pick(timeline.zooms)), in.number() * 4, source);
          break;
        case 11:
          next = TimelineEffectEngine::updateZoomFocus(timeline, idOf(in.pick(timeline.zooms)),
                                                       {in.number(), in.number()}, source);
          break;
        case 12:
          next = TimelineEffectEngine::addWebcamFullscreen(timeline, {in.time(source), in.time(source)}, source);
          break;
        case 13: {
          const auto* segment = in.pick(timeline.webcamFullscreenSegments);
          next =
              in.byte() % 2
                  ? TimelineEffectEngine::updateWebcamFullscreenStart(timeline, idOf(segment), in.time(source), source)
                  : TimelineEffectEngine::updateWebcamFullscreenEnd(timeline, idOf(segment), in.time(source), source);
          break;
        }
        case 14: {
          EditTimeline keyed = timeline;
          if (in.byte() % 2)
            keyed.webcamKeyframes.push_back({Uuid::random(), in.time(source), {in.number(), in.number()}, 0.2});
          next = in.byte() % 2 ? TimelineEffectEngine::moveWebcamGlobally(
                                     keyed, in.time(source), {in.number(), in.number()}, in.number() * 3, source)
                               : TimelineEffectEngine::resizeWebcamGlobally(keyed, in.time(source), in.number(),
                                                                            in.number() * 3, source);
          break;
        }
        case 15: {
          std::map<std::string, std::string> values;
          for (int i = in.byte() % 3; i >= 0; --i)
            values[settingKeys[in.byte() % std::size(settingKeys)]] =
                settingValues[in.byte() % std::size(settingValues)];
          next = TimelineSettingsEngine::applying(values, timeline, true, {in.byte(), in.byte()});
          break;
        }
      }
      // What an engine returns is always a valid document.
      TimelineValidator::validate(next, source);
      timeline = std::move(next);
    } catch (const Error&) {
      // A typed refusal: the previous timeline stands.
    }
  }
  return 0;
}
