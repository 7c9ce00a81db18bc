#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string_view>

#include "shared/error.h"

namespace vumo {

// A recording refused or stopped for want of room in the projects folder. The payload is the
// folder.
class RecordingStorageError : public Error {
 public:
  enum class Case { insufficientFreeSpace };

  RecordingStorageError(Case kind, std::string_view folder);

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

namespace recording_messages {
// The note a recording carries when the guard ended it; the package is finished as on stop.
inline constexpr std::string_view stoppedForFreeSpace =
    "The recording was stopped and kept because less than 1 GiB of disk space was left in the projects folder.";
}  // namespace recording_messages

// The bytes an unprivileged process may still write on the file system of `folder` (statvfs);
// none when the folder cannot be asked.
std::optional<std::uint64_t> availableBytes(const std::filesystem::path& folder);

struct FreeSpaceGuardSettings {
  static constexpr std::uint64_t defaultMinimumBytes = std::uint64_t(1) << 30;
  std::uint64_t minimumBytes = defaultMinimumBytes;
  // The bytes free in a folder; none: `availableBytes`.
  std::function<std::optional<std::uint64_t>(const std::filesystem::path&)> probe;
  std::chrono::milliseconds checkInterval{1000};
};

// Keeps a recording from filling the disk: a movie that runs out of room mid-fragment is lost,
// while one stopped with room to spare is finished like any other. A probe that cannot answer
// never stops anything: an unknown amount is not a shortage.
class FreeSpaceGuard {
 public:
  static constexpr std::uint64_t defaultMinimumBytes = FreeSpaceGuardSettings::defaultMinimumBytes;

  using Settings = FreeSpaceGuardSettings;
  using Clock = std::chrono::steady_clock;

  FreeSpaceGuard(std::filesystem::path folder, Settings settings = {});

  // RecordingStorageError::insufficientFreeSpace when the folder has less than the minimum.
  void requireRoomToStart() const;
  // Whether the folder has run short, asked at most once per interval (the first call asks); a
  // shortage, once seen, is kept.
  bool ranShort(Clock::time_point now = Clock::now());

 private:
  bool short_() const;

  std::filesystem::path folder_;
  Settings settings_;
  std::optional<Clock::time_point> lastCheck_;
  bool ranShort_ = false;
};

}  // namespace vumo
