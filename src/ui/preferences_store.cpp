#include "ui/preferences_store.h"

#include <fmt/format.h>

#include <cstdlib>
#include <system_error>

#include "cli/output_destination.h"
#include "shared/error.h"
#include "shared/files.h"
#include "shared/json.h"

namespace vumo {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view systemAudioKey = "recording.capturesSystemAudio";
constexpr std::string_view microphoneKey = "recording.capturesMicrophone";
constexpr std::string_view webcamKey = "recording.capturesWebcam";
constexpr std::string_view microphoneDeviceKey = "recording.microphoneDeviceID";
constexpr std::string_view webcamDeviceKey = "recording.webcamDeviceID";
constexpr std::string_view framesPerSecondKey = "recording.framesPerSecond";
constexpr std::string_view startStopKey = "shortcuts.startStop";
constexpr std::string_view pauseKey = "shortcuts.pause";
constexpr std::string_view exportFolderKey = "export.folder";

// What `vumo record --fps` accepts.
constexpr std::int64_t minimumFramesPerSecond = 1;
constexpr std::int64_t maximumFramesPerSecond = 240;

[[noreturn]] void wrong(std::string_view key) { throw DecodingError(fmt::format("Invalid value for key {}", key)); }

const Json* member(const Json& object, std::string_view key) {
  auto found = object.find(std::string(key));
  return found == object.end() ? nullptr : &*found;
}

void readFlag(const Json& object, std::string_view key, bool& into) {
  if (const Json* value = member(object, key)) {
    if (!value->is_boolean()) wrong(key);
    into = value->get<bool>();
  }
}

void readText(const Json& object, std::string_view key, std::string& into) {
  if (const Json* value = member(object, key)) {
    if (!value->is_string() || value->get_ref<const std::string&>().empty()) wrong(key);
    into = value->get<std::string>();
  }
}

void readDevice(const Json& object, std::string_view key, std::optional<std::string>& into) {
  if (const Json* value = member(object, key)) {
    if (value->is_null()) {
      into.reset();
      return;
    }
    if (!value->is_string() || value->get_ref<const std::string&>().empty()) wrong(key);
    into = value->get<std::string>();
  }
}

}  // namespace

const std::vector<std::string_view>& PreferencesStore::keys() {
  static const std::vector<std::string_view> all = {systemAudioKey,      microphoneKey,   webcamKey,
                                                    microphoneDeviceKey, webcamDeviceKey, framesPerSecondKey,
                                                    startStopKey,        pauseKey,        exportFolderKey};
  return all;
}

fs::path PreferencesStore::configurationHome() {
  const char* xdg = std::getenv("XDG_CONFIG_HOME");
  if (xdg != nullptr && xdg[0] == '/') return fs::path(xdg);
  const char* home = std::getenv("HOME");
  fs::path base = (home != nullptr && home[0] != 0) ? home : "/";
  return base / ".config";
}

fs::path PreferencesStore::defaultFilePath() { return configurationHome() / "Vumo" / fileName; }

fs::path PreferencesStore::defaultExportFolder() { return defaultExportsDirectory(); }

Preferences PreferencesStore::defaults() {
  Preferences preferences;
  preferences.exportFolder = defaultExportFolder();
  return preferences;
}

PreferencesStore::PreferencesStore(std::optional<fs::path> file) : file_(file ? *file : defaultFilePath()) {}

Json PreferencesStore::encode(const Preferences& preferences) {
  const RecordingOptions& recording = preferences.recording;
  auto device = [](const std::optional<std::string>& id) { return id ? Json(*id) : Json(nullptr); };
  Json object = Json::object();
  object[std::string(systemAudioKey)] = recording.capturesSystemAudio;
  object[std::string(microphoneKey)] = recording.capturesMicrophone;
  object[std::string(webcamKey)] = recording.capturesWebcam;
  object[std::string(microphoneDeviceKey)] = device(recording.microphoneDeviceID);
  object[std::string(webcamDeviceKey)] = device(recording.webcamDeviceID);
  object[std::string(framesPerSecondKey)] = recording.framesPerSecond;
  object[std::string(startStopKey)] = preferences.startStopShortcut;
  object[std::string(pauseKey)] = preferences.pauseShortcut;
  object[std::string(exportFolderKey)] = preferences.exportFolder.string();
  return object;
}

Preferences PreferencesStore::decode(const Json& object) {
  if (!object.is_object()) throw DecodingError("The preferences are not a JSON object");
  Preferences preferences = defaults();
  RecordingOptions& recording = preferences.recording;
  readFlag(object, systemAudioKey, recording.capturesSystemAudio);
  readFlag(object, microphoneKey, recording.capturesMicrophone);
  readFlag(object, webcamKey, recording.capturesWebcam);
  readDevice(object, microphoneDeviceKey, recording.microphoneDeviceID);
  readDevice(object, webcamDeviceKey, recording.webcamDeviceID);
  if (const Json* value = member(object, framesPerSecondKey)) {
    if (!value->is_number_integer()) wrong(framesPerSecondKey);
    const auto rate = value->get<std::int64_t>();
    if (rate < minimumFramesPerSecond || rate > maximumFramesPerSecond) wrong(framesPerSecondKey);
    recording.framesPerSecond = rate;
  }
  readText(object, startStopKey, preferences.startStopShortcut);
  readText(object, pauseKey, preferences.pauseShortcut);
  std::string folder;
  readText(object, exportFolderKey, folder);
  if (!folder.empty()) {
    if (folder.front() != '/') wrong(exportFolderKey);
    preferences.exportFolder = folder;
  }
  return preferences;
}

Preferences PreferencesStore::load() {
  loadProblem_.reset();
  unknownKeys_.clear();
  std::error_code error;
  if (!fs::exists(fs::symlink_status(file_, error))) return defaults();
  try {
    const std::string bytes = readFile(file_, maximumFileBytes);
    const Json object = parseJson(bytes);
    Preferences preferences = decode(object);
    Json unknown = Json::object();
    for (const auto& [key, value] : object.items()) {
      bool known = false;
      for (std::string_view name : keys()) known = known || key == name;
      if (!known) unknown[key] = value;
    }
    if (!unknown.empty()) unknownKeys_ = unknown.dump();
    return preferences;
  } catch (const SystemFileError&) {
    // The file may be fine: it is left where it is and read again next time.
    throw;
  } catch (const std::exception& failure) {
    fs::path aside = file_;
    aside += damagedSuffix;
    fs::remove_all(aside, error);
    fs::rename(file_, aside, error);
    const std::string reason = failure.what();
    loadProblem_ = error ? fmt::format("Your preferences could not be read ({}) and the defaults are used.", reason)
                         : fmt::format(
                               "Your preferences could not be read ({}) and the defaults are used. The old "
                               "file is kept as {}.",
                               reason, aside.string());
    return defaults();
  }
}

void PreferencesStore::save(const Preferences& preferences) {
  Json object = unknownKeys_.empty() ? Json::object() : parseJson(unknownKeys_);
  object.update(encode(preferences));
  createDirectories(file_.parent_path());
  writeFileAtomically(file_, encodeDocument(object) + "\n");
}

}  // namespace vumo
