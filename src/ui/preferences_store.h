#pragma once

// The application's preferences: one small JSON object of dotted keys in
// $XDG_CONFIG_HOME/Vumo/preferences.json, replaced atomically on every save. Only the desktop
// application reads it; recording and rendering take their options from their callers.
//
// A file that cannot be read as preferences is never dropped silently: it is moved aside as
// `preferences.json.bad`, the defaults take its place, and the load says so in a sentence that the
// application shows once.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "project/project_manifest.h"
#include "shared/json_fwd.h"

namespace vumo {

struct Preferences {
  // `capturesMenuBar` is not a preference of this desktop and is neither read nor written.
  RecordingOptions recording;
  std::string startStopShortcut = "Ctrl+Shift+R";  // in Qt's portable key sequence text
  std::string pauseShortcut = "Ctrl+Shift+P";
  std::filesystem::path exportFolder;  // defaultExportFolder() when the file names none

  friend bool operator==(const Preferences&, const Preferences&) = default;
};

class PreferencesStore {
 public:
  static constexpr std::string_view fileName = "preferences.json";
  static constexpr std::string_view damagedSuffix = ".bad";
  // Far above any real file: a dozen short keys.
  static constexpr std::size_t maximumFileBytes = 64 * 1024;

  // The dotted keys, in the order the file lists them.
  static const std::vector<std::string_view>& keys();

  // $XDG_CONFIG_HOME when set to an absolute path, otherwise ~/.config.
  static std::filesystem::path configurationHome();
  static std::filesystem::path defaultFilePath();  // configurationHome()/Vumo/preferences.json
  // $XDG_DATA_HOME/Vumo/Exports.
  static std::filesystem::path defaultExportFolder();
  static Preferences defaults();

  explicit PreferencesStore(std::optional<std::filesystem::path> file = std::nullopt);
  PreferencesStore(const PreferencesStore&) = delete;
  PreferencesStore& operator=(const PreferencesStore&) = delete;

  const std::filesystem::path& filePath() const noexcept { return file_; }

  // The stored preferences; the defaults for keys the file lacks, and for a file that does not
  // exist. A damaged file (not JSON, not an object, a known key of the wrong type or out of range,
  // not a regular file, too large) is moved aside and the defaults returned; loadProblem() then
  // says so. Keys this version does not know are kept for the next save.
  Preferences load();

  // The sentence about the last load's damaged file, none when it was fine.
  const std::optional<std::string>& loadProblem() const noexcept { return loadProblem_; }

  // Replaces the file atomically (creating its folder); throws FileError.
  void save(const Preferences& preferences);

  // The file's object of `preferences`: every key of keys(), an unset device as null.
  static Json encode(const Preferences& preferences);
  // Reads the known keys of `object` over the defaults; throws DecodingError naming the first key
  // that is wrong.
  static Preferences decode(const Json& object);

 private:
  std::filesystem::path file_;
  std::optional<std::string> loadProblem_;
  std::string unknownKeys_;  // the JSON object of keys kept for the next save
};

}  // namespace vumo
