#pragma once
// What the user chooses for an export, and how that choice becomes a concrete output size, frame
// rate and bit rate. Pure computation: every option is available for every project, and the one
// refusal is a choice the canvas cannot honour.
//
// Each enumeration has two sets of words: its raw value, which documents store (`p1080`, `fps30`,
// `highQuality`), and the kebab-case word of the command line (`1080p`, `30`, `high-quality`).

#include <cstdint>
#include <optional>
#include <string_view>

#include "export/export_errors.h"
#include "shared/geometry.h"
#include "shared/json_fwd.h"
#include "shared/name_table.h"
#include "shared/project_time.h"
#include "timeline/edit_timeline.h"

namespace vumo {

enum class ExportResolution { original, p720, p1080, p1440, p2160 };
enum class ExportFrameRate { source, fps30, fps60 };
enum class ExportQuality { compact, standard, high };
enum class ExportCodec { h264, hevc };
enum class ExportPreset { highQuality, standard, compact };

template <>
struct EnumNames<ExportResolution> {
  static constexpr std::string_view typeName = "export resolution";
  static constexpr NameTable<ExportResolution, 5> table{{
      {ExportResolution::original, "original"},
      {ExportResolution::p720, "p720"},
      {ExportResolution::p1080, "p1080"},
      {ExportResolution::p1440, "p1440"},
      {ExportResolution::p2160, "p2160"},
  }};
};

template <>
struct EnumNames<ExportFrameRate> {
  static constexpr std::string_view typeName = "export frame rate";
  static constexpr NameTable<ExportFrameRate, 3> table{{
      {ExportFrameRate::source, "source"},
      {ExportFrameRate::fps30, "fps30"},
      {ExportFrameRate::fps60, "fps60"},
  }};
};

template <>
struct EnumNames<ExportQuality> {
  static constexpr std::string_view typeName = "export quality";
  static constexpr NameTable<ExportQuality, 3> table{{
      {ExportQuality::compact, "compact"},
      {ExportQuality::standard, "standard"},
      {ExportQuality::high, "high"},
  }};
};

template <>
struct EnumNames<ExportCodec> {
  static constexpr std::string_view typeName = "export codec";
  static constexpr NameTable<ExportCodec, 2> table{{
      {ExportCodec::h264, "h264"},
      {ExportCodec::hevc, "hevc"},
  }};
};

template <>
struct EnumNames<ExportPreset> {
  static constexpr std::string_view typeName = "export preset";
  static constexpr NameTable<ExportPreset, 3> table{{
      {ExportPreset::highQuality, "highQuality"},
      {ExportPreset::standard, "standard"},
      {ExportPreset::compact, "compact"},
  }};
};

// The command line's words, one table per enumeration in the shape of EnumNames.
template <class E>
struct ExportCommandLineWords;

template <>
struct ExportCommandLineWords<ExportResolution> {
  static constexpr NameTable<ExportResolution, 5> table{{
      {ExportResolution::original, "original"},
      {ExportResolution::p720, "720p"},
      {ExportResolution::p1080, "1080p"},
      {ExportResolution::p1440, "1440p"},
      {ExportResolution::p2160, "2160p"},
  }};
};

template <>
struct ExportCommandLineWords<ExportFrameRate> {
  static constexpr NameTable<ExportFrameRate, 3> table{{
      {ExportFrameRate::source, "source"},
      {ExportFrameRate::fps30, "30"},
      {ExportFrameRate::fps60, "60"},
  }};
};

template <>
struct ExportCommandLineWords<ExportQuality> {
  static constexpr NameTable<ExportQuality, 3> table{{
      {ExportQuality::compact, "compact"},
      {ExportQuality::standard, "standard"},
      {ExportQuality::high, "high"},
  }};
};

template <>
struct ExportCommandLineWords<ExportCodec> {
  static constexpr NameTable<ExportCodec, 2> table{{
      {ExportCodec::h264, "h264"},
      {ExportCodec::hevc, "hevc"},
  }};
};

template <>
struct ExportCommandLineWords<ExportPreset> {
  static constexpr NameTable<ExportPreset, 3> table{{
      {ExportPreset::highQuality, "high-quality"},
      {ExportPreset::standard, "standard"},
      {ExportPreset::compact, "compact"},
  }};
};

template <class E>
concept ExportCommandLineEnum = NamedEnum<E> && requires {
  ExportCommandLineWords<E>::table;
};

// The command-line word of `value`.
template <ExportCommandLineEnum E>
constexpr std::string_view commandLineWord(E value) {
  for (const auto& [candidate, word] : ExportCommandLineWords<E>::table)
    if (candidate == value) return word;
  return ExportCommandLineWords<E>::table.front().second;
}

// The case a command-line word names. The raw value is accepted as well, so a word copied from a
// document works too; none for a word of no case.
template <ExportCommandLineEnum E>
constexpr std::optional<E> parseCommandLineWord(std::string_view word) {
  for (const auto& [candidate, name] : ExportCommandLineWords<E>::table)
    if (name == word) return candidate;
  return parseName<E>(word);
}

// The shorter edge of the output in pixels; none for `original`, which keeps the source's size.
std::optional<std::int64_t> shortEdge(ExportResolution resolution);

// What an export turns into once the project's source size and canvas are known.
struct ResolvedExportConfiguration {
  PixelSize outputSize;
  std::int32_t framesPerSecond = 60;
  std::int64_t bitRate = 0;  // bits per second
  ExportQuality quality = ExportQuality::standard;
  ExportCodec codec = ExportCodec::h264;

  friend bool operator==(const ResolvedExportConfiguration&, const ResolvedExportConfiguration&) = default;
};

// The user's choice. Stored as JSON with the keys `resolution`, `frameRate`, `quality` and
// `codec`, each its raw value.
struct ExportConfiguration {
  ExportResolution resolution = ExportResolution::p1080;
  ExportFrameRate frameRate = ExportFrameRate::fps60;
  ExportQuality quality = ExportQuality::standard;
  ExportCodec codec = ExportCodec::h264;

  // Throws ExportConfigurationError(originalResolutionRequiresSourceAspect) for `original` on any
  // canvas but `source`.
  ResolvedExportConfiguration resolved(PixelSize sourceSize, CanvasAspectRatio aspectRatio) const;

  // The output's pixel size: the source's own for `original` (odd sides included); otherwise the
  // resolution's short edge on the canvas's shape, both sides even and the width at least 2.
  PixelSize resolvedOutputSize(PixelSize sourceSize, CanvasAspectRatio aspectRatio) const;

  // 30 for `fps30`; 60 otherwise, `source` included.
  std::int32_t framesPerSecond() const;

  // Bits per second for the video track: piecewise linear in the pixel count, scaled by frame
  // rate, quality and codec, and clamped to 3,000,000...80,000,000.
  static std::int64_t bitRate(PixelSize outputSize, std::int32_t framesPerSecond, ExportQuality quality,
                              ExportCodec codec);

  friend bool operator==(const ExportConfiguration&, const ExportConfiguration&) = default;
};

void to_json(Json& j, const ExportConfiguration& configuration);
void from_json(const Json& j, ExportConfiguration& configuration);
// The resolved values as the command line reports them: `outputSize`, `framesPerSecond`,
// `bitRate`, `quality`, `codec`.
void to_json(Json& j, const ResolvedExportConfiguration& resolved);

// The preset's configuration; its `id` is the raw value of the case (nameOf).
ExportConfiguration exportPresetConfiguration(ExportPreset preset);

struct ExportFileSizeEstimator {
  // Expected size of the finished file in bytes for `duration` of sequence time: the video's bit
  // rate plus 192,000 bit/s of audio, with 0.2 % for the container, truncated. A negative
  // duration counts as none.
  static std::int64_t estimatedBytes(const ResolvedExportConfiguration& configuration, ProjectTime duration);
};

}  // namespace vumo
