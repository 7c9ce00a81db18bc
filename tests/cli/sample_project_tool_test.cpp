// The sample-project tool as the demo and a newcomer run it: it writes only where it is told.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>

#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;

// Runs the tool with HOME and XDG_DATA_HOME as given (an empty value unsets the variable).
testing::ProcessResult runTool(const std::vector<std::string>& arguments,
                               const std::map<std::string, std::string>& overrides) {
  std::map<std::string, std::optional<std::string>> environment;
  for (const auto& [key, value] : overrides)
    environment[key] = value.empty() ? std::nullopt : std::optional<std::string>(value);
  return testing::runProgram(VUMO_SAMPLE_PROJECT_TOOL, arguments, environment);
}

// The package folders directly in a projects folder.
std::vector<std::string> packagesIn(const fs::path& folder) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(folder, ignored)) names.push_back(entry.path().filename().string());
  return names;
}

TEST(SampleProjectToolTest, WritesWhereItIsToldAndNowhereElse) {
  testing::TemporaryDirectory home, dataHome, output;
  struct Case {
    const char* name;
    std::vector<std::string> arguments;
    std::map<std::string, std::string> environment;
    fs::path expectedProjects;
  };
  const Case cases[] = {
      {"data home", {}, {{"XDG_DATA_HOME", dataHome.path()}}, dataHome.path() / "Vumo" / "Projects"},
      {"output folder",
       {"--output", (output.path() / "made").string()},
       {{"XDG_DATA_HOME", dataHome.path()}},
       output.path() / "made"},
      {"home without a data home", {}, {{"XDG_DATA_HOME", ""}}, home.path() / ".local" / "share" / "Vumo" / "Projects"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::map<std::string, std::string> environment = c.environment;
    environment["HOME"] = home.path();
    const auto before = packagesIn(c.expectedProjects).size();
    auto run = runTool(c.arguments, environment);
    ASSERT_EQ(run.status, 0);
    auto packages = packagesIn(c.expectedProjects);
    ASSERT_EQ(packages.size(), before + 1);
    // The id it prints names the package it made.
    ASSERT_EQ(run.standardOutput.size(), 37u);
    EXPECT_TRUE(fs::exists(c.expectedProjects / (run.standardOutput.substr(0, 36) + ".vumo")));
  }
  // The data home got the first project only; the output folder was not created inside it.
  EXPECT_EQ(packagesIn(dataHome.path() / "Vumo" / "Projects").size(), 1u);
}

TEST(SampleProjectToolTest, HelpAndUnknownArgumentsMakeNothing) {
  testing::TemporaryDirectory home, dataHome;
  const std::map<std::string, std::string> environment{{"HOME", home.path()}, {"XDG_DATA_HOME", dataHome.path()}};
  auto help = runTool({"--help"}, environment);
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(help.standardOutput.starts_with("usage: vumo-sample-project [--output <folder>]")) << help.standardOutput;
  for (const auto& arguments : std::vector<std::vector<std::string>>{{"--outputs", "x"}, {"--output"}, {"extra"}}) {
    EXPECT_EQ(runTool(arguments, environment).status, 2);
  }
  EXPECT_TRUE(fs::is_empty(home.path()));
  EXPECT_TRUE(fs::is_empty(dataHome.path()));
}

// The samples of a 16-bit mono WAV file at 48 kHz, the only kind the tool writes.
std::vector<std::int16_t> wavSamples(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(in), {}};
  auto number = [&](std::size_t at, int size) {
    std::uint32_t value = 0;
    for (int i = size - 1; i >= 0; --i) value = value << 8 | static_cast<unsigned char>(bytes.at(at + i));
    return value;
  };
  EXPECT_EQ(bytes.substr(0, 4), "RIFF");
  EXPECT_EQ(bytes.substr(8, 4), "WAVE");
  std::vector<std::int16_t> samples;
  for (std::size_t chunk = 12; chunk + 8 <= bytes.size(); chunk += 8 + ((number(chunk + 4, 4) + 1) & ~1u)) {
    const std::string name = bytes.substr(chunk, 4);
    if (name == "fmt ") {
      EXPECT_EQ(number(chunk + 8, 2), 1u);       // integer samples
      EXPECT_EQ(number(chunk + 10, 2), 1u);      // one channel
      EXPECT_EQ(number(chunk + 12, 4), 48000u);  // per second
      EXPECT_EQ(number(chunk + 22, 2), 16u);     // bits
    } else if (name == "data") {
      const std::size_t size = std::min<std::size_t>(number(chunk + 4, 4), bytes.size() - chunk - 8);
      samples.resize(size / 2);
      std::memcpy(samples.data(), bytes.data() + chunk + 8, samples.size() * 2);
      break;
    }
  }
  return samples;
}

// The largest magnitude in [start, end) milliseconds.
int peak(const std::vector<std::int16_t>& samples, std::int64_t start, std::int64_t end) {
  int largest = 0;
  for (std::int64_t i = start * 48; i < std::min<std::int64_t>(end * 48, std::int64_t(samples.size())); ++i)
    largest = std::max(largest, std::abs(int(samples[std::size_t(i)])));
  return largest;
}

TEST(SampleProjectToolTest, WritesTheVoiceAloneWhereItIsToldToSpeak) {
  testing::TemporaryDirectory home, dataHome, output;
  const std::map<std::string, std::string> environment{{"HOME", home.path()}, {"XDG_DATA_HOME", dataHome.path()}};
  struct Case {
    const char* name;
    std::vector<std::string> arguments;
    std::int64_t expectedMilliseconds;
    std::vector<std::pair<std::int64_t, std::int64_t>> speech;
  };
  const Case cases[] = {
      {"the project's own voice", {}, 12'000, {{400, 3'800}, {6'200, 8'400}, {10'400, 11'600}}},
      {"the demo's five seconds",
       {"--duration", "5500", "--speech", "0-1000,3000-4300"},
       5'500,
       {{0, 1'000}, {3'000, 4'300}}},
      {"one word at the very end", {"--duration", "900", "--speech", "600-900"}, 900, {{600, 900}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path file = output.path() / "voice.wav";
    std::vector<std::string> arguments = {"--speech-audio", file.string()};
    arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
    auto run = runTool(arguments, environment);
    ASSERT_EQ(run.status, 0) << run.standardError;
    EXPECT_EQ(run.standardOutput, "");
    const auto samples = wavSamples(file);
    EXPECT_EQ(std::int64_t(samples.size()), c.expectedMilliseconds * 48);
    // Speech peaks at a quarter of full scale or more (8192); the hiss between stays under 0.002 of
    // it (66), with a 20 ms margin at each edge for the gate's rounding.
    std::int64_t quietFrom = 0;
    for (const auto& [start, end] : c.speech) {
      EXPECT_GT(peak(samples, start + 20, end - 20), 8192) << start;
      if (start - quietFrom > 40) {
        EXPECT_LT(peak(samples, quietFrom + 20, start - 20), 80) << quietFrom;
        EXPECT_GT(peak(samples, quietFrom + 20, start - 20), 0) << "the hiss";
      }
      quietFrom = end;
    }
    if (c.expectedMilliseconds - quietFrom > 40) {
      EXPECT_LT(peak(samples, quietFrom + 20, c.expectedMilliseconds), 80);
    }
    fs::remove(file);
  }
  // The sound alone makes no project.
  EXPECT_TRUE(fs::is_empty(home.path()));
  EXPECT_TRUE(fs::is_empty(dataHome.path()));
}

TEST(SampleProjectToolTest, RefusesSpeechThatDoesNotFitTheSound) {
  testing::TemporaryDirectory home, dataHome, output;
  const std::map<std::string, std::string> environment{{"HOME", home.path()}, {"XDG_DATA_HOME", dataHome.path()}};
  const std::string file = (output.path() / "voice.wav").string();
  const std::vector<std::vector<std::string>> refused = {
      {"--speech-audio", file, "--speech", "300-100"},
      {"--speech-audio", file, "--speech", "0-500,400-800"},
      {"--speech-audio", file, "--speech", "0-500,"},
      {"--speech-audio", file, "--speech", "-100-500"},
      {"--speech-audio", file, "--speech", "100"},
      {"--speech-audio", file, "--duration", "1000", "--speech", "0-1001"},
      // The project's default speech runs to 11.6 s.
      {"--speech-audio", file, "--duration", "5000"},
      {"--speech-audio", file, "--duration", "0"},
      {"--speech-audio", file, "--duration", "600001"},
      {"--speech-audio", file, "--duration", "5s"},
      {"--speech-audio", file, "--output", output.path().string()},
      {"--speech", "0-100"},
      {"--duration", "1000"},
      {"--speech-audio"},
  };
  for (const auto& arguments : refused) {
    SCOPED_TRACE(::testing::PrintToString(arguments));
    auto run = runTool(arguments, environment);
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.standardError.find("usage: vumo-sample-project"), std::string::npos);
  }
  EXPECT_TRUE(fs::is_empty(output.path()));
  EXPECT_TRUE(fs::is_empty(home.path()));
  EXPECT_TRUE(fs::is_empty(dataHome.path()));
}

}  // namespace
}  // namespace vumo
