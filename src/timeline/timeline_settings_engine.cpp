#include "timeline/timeline_settings_engine.h"

#include <locale.h>

#include <algorithm>
#include <cctype>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <optional>

#include "timeline/timeline_effect_engine.h"

namespace vumo {

namespace {

using Case = TimelineSettingsError::Case;

constexpr ErrorCase<Case> errorCases[] = {
    {Case::unknownKey, "unknownKey", "timeline.error.settingUnsupported", "Unsupported setting: {}", "validation",
     ErrorKind::validation},
    {Case::invalidValue, "invalidValue", "timeline.error.settingInvalid", "Invalid value for setting: {}", "validation",
     ErrorKind::validation},
    {Case::webcamUnavailable, "webcamUnavailable", "timeline.error.noCamera", "This project has no camera track.",
     "validation", ErrorKind::validation},
};
static_assert(inCaseOrder(errorCases));

// Values must read the same whatever locale the user runs in, so numbers are parsed in "C".
class CLocale {
 public:
  CLocale() : handle_(newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0))) {}
  ~CLocale() {
    if (handle_ != static_cast<locale_t>(0)) freelocale(handle_);
  }
  CLocale(const CLocale&) = delete;
  CLocale& operator=(const CLocale&) = delete;
  locale_t get() const { return handle_; }

 private:
  locale_t handle_;
};

std::optional<double> parseNumber(const std::string& text) {
  // strtod would skip leading white space; the whole string must be the number.
  if (text.empty() || std::isspace(static_cast<unsigned char>(text.front()))) return std::nullopt;
  CLocale locale;
  if (locale.get() == static_cast<locale_t>(0)) return std::nullopt;
  char* end = nullptr;
  double value = strtod_l(text.c_str(), &end, locale.get());
  if (end != text.c_str() + text.size() || !std::isfinite(value)) return std::nullopt;
  return value;
}

std::optional<bool> parseBoolean(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (text == "true" || text == "on" || text == "1") return true;
  if (text == "false" || text == "off" || text == "0") return false;
  return std::nullopt;
}

// One setting being applied: the key for error reports, the raw value, and the document.
struct Setting {
  const std::string& key;
  const std::string& value;
  EditTimeline& timeline;
  bool hasWebcam;

  bool boolean() const {
    auto parsed = parseBoolean(value);
    if (!parsed) throw TimelineSettingsError::invalidValue(key);
    return *parsed;
  }
  double number(double lower, double upper) const {
    auto parsed = parseNumber(value);
    if (!parsed) throw TimelineSettingsError::invalidValue(key);
    return std::clamp(*parsed, lower, upper);
  }
  template <class T>
  T choice(std::optional<T> parsed) const {
    if (!parsed) throw TimelineSettingsError::invalidValue(key);
    return *parsed;
  }
  WebcamOverlay& webcam() const {
    if (!hasWebcam) throw TimelineSettingsError::webcamUnavailable();
    // A project with a camera has an overlay once normalised; one that was never normalised
    // starts from the default.
    if (!timeline.webcamOverlay) timeline.webcamOverlay = WebcamOverlay::defaultValue();
    return *timeline.webcamOverlay;
  }
};

using Applier = std::function<void(const Setting&)>;

std::optional<WebcamAspectRatio> legacyShapeAspect(const std::string& value) {
  if (value == "circle" || value == "rounded-rectangle") return WebcamAspectRatio::square;
  return std::nullopt;
}

const std::map<std::string, Applier>& appliers() {
  static const std::map<std::string, Applier> table = {
      {"canvas.aspect",
       [](const Setting& s) { s.timeline.canvas.aspectRatio = s.choice(parseName<CanvasAspectRatio>(s.value)); }},
      {"canvas.background",
       [](const Setting& s) {
         CanvasEdit& canvas = s.timeline.canvas;
         canvas.background = s.choice(parseName<CanvasBackground>(s.value));
         if (presetBackground(canvas.preset) != canvas.background) canvas.preset = defaultPreset(canvas.background);
       }},
      {"canvas.padding", [](const Setting& s) { s.timeline.canvas.padding = s.number(0, 0.18); }},
      {"canvas.radius",
       [](const Setting& s) {
         double radius = std::round(s.number(0, 0.08) * 1000) / 1000;
         s.timeline.canvas.cornerRadius = std::clamp(radius, 0.0, 0.08);
       }},
      {"cursor.show", [](const Setting& s) { s.timeline.cursor.isVisible = s.boolean(); }},
      {"cursor.scale", [](const Setting& s) { s.timeline.cursor.scale = s.number(0.5, 3.0); }},
      {"cursor.click-ripple", [](const Setting& s) { s.timeline.cursor.showsClickEffect = s.boolean(); }},
      {"cursor.click-style",
       [](const Setting& s) { s.timeline.cursor.clickEffectStyle = s.choice(parseName<ClickEffectStyle>(s.value)); }},
      {"webcam.show", [](const Setting& s) { s.webcam().isVisible = s.boolean(); }},
      {"webcam.x", [](const Setting& s) { s.webcam().center.x = s.number(0, 1); }},
      {"webcam.y", [](const Setting& s) { s.webcam().center.y = s.number(0, 1); }},
      {"webcam.diameter",
       [](const Setting& s) {
         s.webcam().diameter =
             s.number(TimelineEffectEngine::minimumWebcamDiameter, TimelineEffectEngine::maximumWebcamDiameter);
       }},
      {"webcam.mirror", [](const Setting& s) { s.webcam().isMirrored = s.boolean(); }},
      {"webcam.aspect-ratio",
       [](const Setting& s) { s.webcam().aspectRatio = s.choice(parseName<WebcamAspectRatio>(s.value)); }},
      {"webcam.corner-radius", [](const Setting& s) { s.webcam().cornerRadius = s.number(0, 1); }},
      {"webcam.shape",
       [](const Setting& s) {
         WebcamOverlay& overlay = s.webcam();
         overlay.aspectRatio = s.choice(legacyShapeAspect(s.value));
         overlay.cornerRadius = s.value == "circle" ? 1.0 : 0.6;
       }},
      {"webcam.border", [](const Setting& s) { s.webcam().showsBorder = s.boolean(); }},
      {"webcam.border-width", [](const Setting& s) { s.webcam().borderWidthAt1080p = s.number(2, 20); }},
      {"webcam.shadow", [](const Setting& s) { s.webcam().showsShadow = s.boolean(); }},
      {"audio.system.muted", [](const Setting& s) { s.timeline.audioMix.systemAudio.isMuted = s.boolean(); }},
      {"audio.system.gain-db",
       [](const Setting& s) {
         s.timeline.audioMix.systemAudio.gainDecibels =
             s.number(AudioMixEdit::minimumGainDecibels, AudioMixEdit::maximumGainDecibels);
       }},
      {"audio.microphone.muted", [](const Setting& s) { s.timeline.audioMix.microphone.isMuted = s.boolean(); }},
      {"audio.microphone.gain-db",
       [](const Setting& s) {
         s.timeline.audioMix.microphone.gainDecibels =
             s.number(AudioMixEdit::minimumGainDecibels, AudioMixEdit::maximumGainDecibels);
       }},
  };
  return table;
}

}  // namespace

TimelineSettingsError::TimelineSettingsError(Case kind, std::string key)
    : Error(catalogue(), kind, key), kind_(kind), key_(std::move(key)) {}

const ErrorCatalogue<Case>& TimelineSettingsError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"TimelineSettingsError", "Editor", errorCases};
  return catalogue;
}

EditTimeline TimelineSettingsEngine::applying(const std::map<std::string, std::string>& values,
                                              const EditTimeline& timeline, bool hasWebcam, PixelSize sourceSize) {
  EditTimeline result = timeline;
  const auto& table = appliers();
  // std::map iterates in sorted key order, which is what makes a batch deterministic.
  for (const auto& [key, value] : values) {
    auto applier = table.find(key);
    if (applier == table.end()) throw TimelineSettingsError::unknownKey(key);
    // The camera is checked before the value is looked at: without a camera no value is right.
    if (key.starts_with("webcam.") && !hasWebcam) throw TimelineSettingsError::webcamUnavailable();
    applier->second(Setting{key, value, result, hasWebcam});
  }
  return constrainWebcam(result, sourceSize);
}

EditTimeline TimelineSettingsEngine::withCursor(const EditTimeline& timeline, const CursorEdit& cursor) {
  if (!std::isfinite(cursor.scale)) throw TimelineSettingsError::invalidValue("cursor.scale");
  EditTimeline result = timeline;
  result.cursor = cursor;
  result.cursor.scale = std::clamp(cursor.scale, 0.5, 3.0);
  return result;
}

double TimelineSettingsEngine::outputAspectRatio(const EditTimeline& timeline, PixelSize sourceSize) {
  // A source of unknown size is treated as the common 16:9.
  double sourceAspect = sourceSize.width > 0 && sourceSize.height > 0
                            ? static_cast<double>(sourceSize.width) / static_cast<double>(sourceSize.height)
                            : 16.0 / 9.0;
  return vumo::outputAspectRatio(timeline.canvas.aspectRatio, sourceAspect);
}

EditTimeline TimelineSettingsEngine::constrainWebcam(const EditTimeline& timeline, PixelSize sourceSize) {
  EditTimeline result = timeline;
  if (result.webcamOverlay) {
    WebcamOverlay& overlay = *result.webcamOverlay;
    overlay.center = TimelineEffectEngine::constrainedWebcamCenter(
        overlay.center, overlay.diameter, outputAspectRatio(result, sourceSize), overlay.aspectRatio);
  }
  return result;
}

const std::vector<std::string>& TimelineSettingsEngine::supportedKeys() {
  static const std::vector<std::string> keys = [] {
    std::vector<std::string> names;
    for (const auto& entry : appliers()) names.push_back(entry.first);
    return names;
  }();
  return keys;
}

}  // namespace vumo
