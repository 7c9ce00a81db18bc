#include "ui/preferences_store.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using testing::ScopedDataHome;
using testing::ScopedEnvironmentVariable;
using testing::TemporaryDirectory;

std::string contents(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void write(const fs::path& path, const std::string& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

class PreferencesStoreTest : public ::testing::Test {
 protected:
  ScopedDataHome data;
  TemporaryDirectory config;
  ScopedEnvironmentVariable configHome{"XDG_CONFIG_HOME", config.path().string()};
  fs::path file = config.path() / "Vumo" / "preferences.json";
};

TEST_F(PreferencesStoreTest, WithoutAFileEveryKeyHasItsDefault) {
  PreferencesStore store;
  EXPECT_EQ(store.filePath(), file);
  const Preferences loaded = store.load();
  EXPECT_FALSE(store.loadProblem());
  EXPECT_TRUE(loaded.recording.capturesSystemAudio);
  EXPECT_TRUE(loaded.recording.capturesMicrophone);
  EXPECT_FALSE(loaded.recording.capturesWebcam);
  EXPECT_FALSE(loaded.recording.microphoneDeviceID);
  EXPECT_FALSE(loaded.recording.webcamDeviceID);
  EXPECT_EQ(loaded.recording.framesPerSecond, 60);
  EXPECT_EQ(loaded.startStopShortcut, "Ctrl+Shift+R");
  EXPECT_EQ(loaded.pauseShortcut, "Ctrl+Shift+P");
  EXPECT_EQ(loaded.exportFolder, data.path() / "Vumo" / "Exports");
  EXPECT_FALSE(fs::exists(file)) << "reading writes nothing";
}

TEST_F(PreferencesStoreTest, TheConfigurationFolderFallsBackToTheHomeFolder) {
  TemporaryDirectory home;
  ScopedEnvironmentVariable homeVariable("HOME", home.path().string());
  for (const char* value : {"", "relative/config"}) {
    ScopedEnvironmentVariable variable("XDG_CONFIG_HOME", std::string(value));
    EXPECT_EQ(PreferencesStore::defaultFilePath(), home.path() / ".config" / "Vumo" / "preferences.json") << value;
  }
}

TEST_F(PreferencesStoreTest, SavedPreferencesAreOneFileOfDottedKeysAndReadBack) {
  Preferences chosen = PreferencesStore::defaults();
  chosen.recording.capturesSystemAudio = false;
  chosen.recording.capturesWebcam = true;
  chosen.recording.microphoneDeviceID = "alsa_input.usb-mic";
  chosen.recording.webcamDeviceID = "/dev/video2";
  chosen.recording.framesPerSecond = 30;
  chosen.startStopShortcut = "Ctrl+Alt+F9";
  chosen.exportFolder = "/srv/films";
  PreferencesStore store;
  store.save(chosen);

  EXPECT_EQ(contents(file), R"({
  "export.folder": "/srv/films",
  "recording.capturesMicrophone": true,
  "recording.capturesSystemAudio": false,
  "recording.capturesWebcam": true,
  "recording.framesPerSecond": 30,
  "recording.microphoneDeviceID": "alsa_input.usb-mic",
  "recording.webcamDeviceID": "/dev/video2",
  "shortcuts.pause": "Ctrl+Shift+P",
  "shortcuts.startStop": "Ctrl+Alt+F9"
}
)");
  std::size_t entries = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator(file.parent_path())) ++entries;
  EXPECT_EQ(entries, 1u) << "no temporary is left beside the file";

  PreferencesStore again;
  EXPECT_EQ(again.load(), chosen);
  EXPECT_FALSE(again.loadProblem());
}

TEST_F(PreferencesStoreTest, AFileWithSomeKeysKeepsTheDefaultsOfTheOthersAndKeysOfANewerVersion) {
  write(file, R"({"recording.framesPerSecond": 24, "recording.microphoneDeviceID": null, "editor.sparkle": [1, 2]})");
  PreferencesStore store;
  Preferences loaded = store.load();
  EXPECT_EQ(loaded.recording.framesPerSecond, 24);
  EXPECT_FALSE(loaded.recording.microphoneDeviceID);
  EXPECT_EQ(loaded.pauseShortcut, "Ctrl+Shift+P");
  loaded.pauseShortcut = "F10";
  store.save(loaded);
  const std::string saved = contents(file);
  EXPECT_NE(saved.find(R"("editor.sparkle": [)"), std::string::npos) << saved;
  EXPECT_NE(saved.find(R"("shortcuts.pause": "F10")"), std::string::npos) << saved;
}

TEST_F(PreferencesStoreTest, ADamagedFileIsKeptAsideTheDefaultsAreUsedAndTheLoadSaysSo) {
  struct Case {
    const char* name;
    std::string bytes;
  };
  const Case cases[] = {
      {"not JSON", "{\"recording.capturesWebcam\": tru"},
      {"not an object", "[true]"},
      {"a flag of the wrong type", R"({"recording.capturesWebcam": "yes"})"},
      {"no frames", R"({"recording.framesPerSecond": 0})"},
      {"too many frames", R"({"recording.framesPerSecond": 241})"},
      {"a fractional rate", R"({"recording.framesPerSecond": 29.97})"},
      {"an empty shortcut", R"({"shortcuts.startStop": ""})"},
      {"a relative export folder", R"({"export.folder": "Films"})"},
      {"an empty device", R"({"recording.webcamDeviceID": ""})"},
      {"too large", "{\"x\": \"" + std::string(PreferencesStore::maximumFileBytes, 'a') + "\"}"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove(file.string() + ".bad");
    write(file, c.bytes);
    PreferencesStore store;
    EXPECT_EQ(store.load(), PreferencesStore::defaults());
    ASSERT_TRUE(store.loadProblem());
    EXPECT_NE(store.loadProblem()->find("the defaults are used"), std::string::npos) << *store.loadProblem();
    EXPECT_NE(store.loadProblem()->find(file.string() + ".bad"), std::string::npos) << *store.loadProblem();
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(contents(file.string() + ".bad"), c.bytes) << "the damaged file is kept whole";

    store.save(store.load());
    EXPECT_FALSE(store.loadProblem()) << "a load after the file went aside is fine";
    EXPECT_TRUE(fs::exists(file));
  }
}

TEST_F(PreferencesStoreTest, SomethingOtherThanAFileAtThePathIsMovedAsideToo) {
  fs::create_directories(file);
  PreferencesStore store;
  EXPECT_EQ(store.load(), PreferencesStore::defaults());
  ASSERT_TRUE(store.loadProblem());
  EXPECT_TRUE(fs::is_directory(file.string() + ".bad"));
  store.save(PreferencesStore::defaults());
  EXPECT_TRUE(fs::is_regular_file(file));
}

}  // namespace
}  // namespace vumo
