// The sound-reading commands and the settings verb through the real executable, on the generated
// sample recording: a microphone that speaks in [0.4, 3.8), [6.2, 8.4) and [10.4, 11.6) s over a
// faint hiss, and a pointer that moves every 50 ms in [0, 3.5) and [6.5, 8) s.

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "sample_project.h"
#include "sample_project_suite.h"
#include "shared/digest.h"
#include "shared/files.h"
#include "shared/json.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::uint32_t littleEndian32(const std::string& bytes, std::size_t at) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i)
    value |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
  return value;
}
std::uint16_t littleEndian16(const std::string& bytes, std::size_t at) {
  return static_cast<std::uint16_t>(static_cast<unsigned char>(bytes[at]) |
                                    (static_cast<unsigned char>(bytes[at + 1]) << 8));
}

class MediaCommandsEndToEndTest : public testing::SampleProjectSuite {
 protected:
  testing::ProcessLaunch launch(std::vector<std::string> words,
                                std::map<std::string, std::optional<std::string>> env = {}) {
    testing::ProcessLaunch l;
    l.words = {testing::vumoBinary().string()};
    l.words.insert(l.words.end(), words.begin(), words.end());
    l.environment = {{"XDG_DATA_HOME", home_->path().string()},
                     {"TMPDIR", temporary_.path().string()},
                     {"DASHSCOPE_API_KEY", std::nullopt},
                     {"VUMO_BAILIAN_ENDPOINT", std::nullopt}};
    for (auto& [k, v] : env) l.environment[k] = v;
    l.timeout = 60s;
    return l;
  }
  Json ok(std::vector<std::string> words) {
    auto result = testing::run(launch(std::move(words)));
    EXPECT_EQ(result.status, 0) << result.standardError;
    return Json::parse(result.standardOutput);
  }
  bool temporaryFoldersLeft() const {
    fs::path captions = temporary_.path() / "Vumo-Captions";
    return fs::exists(captions) && !fs::is_empty(captions);
  }

  testing::TemporaryDirectory temporary_;
};

TEST_F(MediaCommandsEndToEndTest, EveryProjectCommandLooksTheProjectUpFirst) {
  for (std::vector<std::string> words :
       {std::vector<std::string>{"idle", "FFFFFFFF"},
        {"captions-prepare", "FFFFFFFF"},
        {"captions-generate", "FFFFFFFF"},
        {"captions-import", "FFFFFFFF", "--job", "8A7C1F7E-4C2B-4B8E-9E57-7A2D3F1C0B11"}}) {
    words.insert(words.begin(), "cli");
    auto result = testing::run(launch(words));
    EXPECT_EQ(result.status, 3) << words[1] << ": " << result.standardError;
    EXPECT_EQ(Json::parse(result.standardError)["error"], "project_not_found") << words[1];
  }
}

TEST_F(MediaCommandsEndToEndTest, IdleFindsWhereTheVoicePausesAndThePointerRests) {
  Json idle = ok({"cli", "idle", id_.substr(0, 8)});
  EXPECT_EQ(idle["analyzedTrack"], "microphone");
  // The hiss lies some 50 dB down; the voice near full scale.
  EXPECT_LT(idle["estimatedNoiseFloorDecibels"].get<double>(), -45.0);
  EXPECT_GT(idle["estimatedNoiseFloorDecibels"].get<double>(), -70.0);
  // The pointer's last move before the pause is at 3.45 s, its first after at 6.5 s: the quiet
  // span runs from 3.95 s to 6.0 s whatever the encoder did to the edges of the speech. The second
  // starts 500 ms after the last move at 7.95 s and ends where the voice comes back at 10.4 s.
  const Json& quiet = idle["quietSpans"];
  ASSERT_EQ(quiet.size(), 2u) << idle.dump();
  EXPECT_EQ(quiet[0]["sourceStartMilliseconds"], 3'950);
  EXPECT_EQ(quiet[0]["sourceEndMilliseconds"], 6'000);
  EXPECT_EQ(quiet[1]["sourceStartMilliseconds"], 8'450);
  EXPECT_NEAR(quiet[1]["sourceEndMilliseconds"].get<double>(), 10'400, 60);
  // Each cut keeps the last 500 ms of its span and lands on the 60 fps grid.
  const Json& cuts = idle["recommendedCuts"];
  ASSERT_EQ(cuts.size(), 2u);
  EXPECT_EQ(cuts[0], parseJson(R"({"startMilliseconds":3950,"endMilliseconds":5500})"));
  EXPECT_EQ(cuts[1]["startMilliseconds"], 8'450);
  EXPECT_NEAR(cuts[1]["endMilliseconds"].get<double>(), 9'900, 60);
}

TEST_F(MediaCommandsEndToEndTest, PreparedCaptionAudioIsSixteenKilohertzMonoWithTheCanonicalHeader) {
  Json prepared = ok({"cli", "captions-prepare", id_.substr(0, 8)});
  const std::string wav = readFile(prepared["audioPath"].get<std::string>(), 1u << 24);
  ASSERT_GT(wav.size(), 44u);
  EXPECT_EQ(wav.substr(0, 4), "RIFF");
  EXPECT_EQ(littleEndian32(wav, 4), wav.size() - 8);
  EXPECT_EQ(wav.substr(8, 8), "WAVEfmt ");
  EXPECT_EQ(littleEndian32(wav, 16), 16u);      // a plain PCM format chunk
  EXPECT_EQ(littleEndian16(wav, 20), 1);        // integer PCM
  EXPECT_EQ(littleEndian16(wav, 22), 1);        // mono
  EXPECT_EQ(littleEndian32(wav, 24), 16'000u);  // samples a second
  EXPECT_EQ(littleEndian32(wav, 28), 32'000u);  // bytes a second
  EXPECT_EQ(littleEndian16(wav, 32), 2);
  EXPECT_EQ(littleEndian16(wav, 34), 16);
  EXPECT_EQ(wav.substr(36, 4), "data");
  EXPECT_EQ(littleEndian32(wav, 40), wav.size() - 44);
  EXPECT_NEAR(static_cast<double>(wav.size() - 44), 12.0 * 32'000, 32'000 * 0.05);  // twelve seconds
  EXPECT_EQ(prepared["captionFormatExample"]["sourceAudioDigest"], sha256Hex(wav));
}

// A service that takes the connection and never answers.
class SilentListener {
 public:
  SilentListener() {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 || ::listen(fd_, 4) != 0 ||
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
      throw std::runtime_error("listener failed");
    port_ = ntohs(address.sin_port);
  }
  ~SilentListener() { ::close(fd_); }
  int port() const { return port_; }

 private:
  int fd_ = -1;
  int port_ = 0;
};

TEST_F(MediaCommandsEndToEndTest, CloudGenerationFailsCleanlyAndCtrlCEndsItAtOnce) {
  // Without a key nothing is exported or sent.
  auto missing = testing::run(launch({"cli", "captions-generate", id_.substr(0, 8)}));
  EXPECT_EQ(missing.status, 6);
  EXPECT_EQ(Json::parse(missing.standardError)["message"], "Add an Alibaba Cloud Bailian API key first.");
  EXPECT_FALSE(temporaryFoldersLeft());

  // A plain connection only to this machine.
  auto remote = testing::run(launch(
      {"cli", "captions-generate", id_.substr(0, 8)},
      {{"DASHSCOPE_API_KEY", "sk-test-secret"}, {"VUMO_BAILIAN_ENDPOINT", "ws://example.com/api-ws/v1/inference"}}));
  EXPECT_EQ(remote.status, 6);
  EXPECT_EQ(remote.standardError.find("sk-test-secret"), std::string::npos);
  EXPECT_FALSE(temporaryFoldersLeft());

  SilentListener service;
  auto l = launch({"cli", "captions-generate", id_.substr(0, 8)},
                  {{"DASHSCOPE_API_KEY", "sk-test-secret"},
                   {"VUMO_BAILIAN_ENDPOINT", fmt::format("ws://127.0.0.1:{}/api-ws/v1/inference", service.port())}});
  auto started = std::chrono::steady_clock::now();
  l.whileRunning = [&](pid_t pid) {
    // Long enough for the export and the connection; the handshake then waits on the silent peer.
    std::this_thread::sleep_for(1500ms);
    started = std::chrono::steady_clock::now();
    ::kill(pid, SIGINT);
  };
  auto cancelled = testing::run(l);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
  EXPECT_EQ(cancelled.status, 130) << cancelled.standardError;
  EXPECT_EQ(Json::parse(cancelled.standardError)["error"], "cancelled");
  EXPECT_FALSE(temporaryFoldersLeft());
  EXPECT_FALSE(fs::exists(home_->path() / "Vumo" / "AgentExchange") &&
               std::any_of(fs::directory_iterator(home_->path() / "Vumo" / "AgentExchange"), fs::directory_iterator(),
                           [](const auto& entry) { return fs::exists(entry.path() / "captions.json"); }));
}

TEST_F(MediaCommandsEndToEndTest, SettingsSavesTheKeyFromStandardInputOnlyForThisUser) {
  const fs::path file = home_->path() / "Vumo" / "CloudCredentials.json";
  auto save = launch({"settings", "bailian-key"});
  save.standardInput = "  sk-from-stdin  \n";
  auto saved = testing::run(save);
  ASSERT_EQ(saved.status, 0) << saved.standardError;
  Json answer = Json::parse(saved.standardOutput);
  EXPECT_EQ(answer["action"], "saved");
  EXPECT_EQ(answer["path"], file.string());
  EXPECT_EQ(answer["environmentOverrides"], false);
  EXPECT_EQ(saved.standardOutput.find("sk-from-stdin"), std::string::npos);
  EXPECT_EQ(parseJson(readFile(file, 4'096)), parseJson(R"({"bailian":{"apiKey":"sk-from-stdin"}})"));
  struct stat info {};
  ASSERT_EQ(::stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  auto overridden = launch({"settings", "bailian-key", "--remove"}, {{"DASHSCOPE_API_KEY", "sk-env"}});
  auto removed = testing::run(overridden);
  ASSERT_EQ(removed.status, 0) << removed.standardError;
  answer = Json::parse(removed.standardOutput);
  EXPECT_EQ(answer["action"], "removed");
  EXPECT_EQ(answer["environmentOverrides"], true);
  EXPECT_TRUE(answer.contains("note"));
  EXPECT_FALSE(fs::exists(file));

  struct Refusal {
    std::vector<std::string> words;
    std::string input;
    int status;
  };
  for (const auto& refusal : {Refusal{{"settings"}, "", 2}, Refusal{{"settings", "other"}, "", 2},
                              Refusal{{"settings", "bailian-key", "sk-on-the-command-line"}, "", 2},
                              Refusal{{"settings", "bailian-key"}, "   \n", 6}}) {
    auto l = launch(refusal.words);
    l.standardInput = refusal.input;
    auto result = testing::run(l);
    EXPECT_EQ(result.status, refusal.status) << refusal.words.back() << result.standardError;
    EXPECT_EQ(result.standardError.find("sk-on-the-command-line"), std::string::npos);
    EXPECT_TRUE(result.standardOutput.empty());
    EXPECT_FALSE(fs::exists(file));
  }
  auto help = testing::run(launch({"settings", "--help"}));
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(help.standardOutput.starts_with("usage: vumo settings bailian-key")) << help.standardOutput;
}

}  // namespace
}  // namespace vumo
