#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <fstream>
#include <thread>

#include "scripted_service.h"
#include "shared/digest.h"
#include "shared/json.h"
#include "support/test_support.h"
#include "transcription/bailian_response.h"
#include "transcription/caption_transcription_service.h"
#include "transcription/transcription_errors.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::ReceivedConversation;
using testing::ScopedDataHome;
using testing::ScopedEnvironmentVariable;
using testing::ScriptedService;
using testing::ServiceScript;
using testing::TemporaryDirectory;
using TranscriptionCase = CaptionTranscriptionError::Case;

constexpr const char* testKey = "sk-test-secret-0123";

std::string wavOf(std::size_t sampleBytes) {
  std::string wav(44, 'H');
  for (std::size_t i = 0; i < sampleBytes; ++i) wav.push_back(static_cast<char>(i % 251));
  return wav;
}

std::string event(std::string_view name, const Json& payload = Json::object()) {
  return encodeCompact(Json{{"header", {{"event", name}, {"task_id", "T"}}}, {"payload", payload}});
}

std::string sentence(double begin, double end, std::string_view text, Json words = nullptr) {
  Json sentence = {{"begin_time", begin}, {"end_time", end}, {"text", text}};
  if (!words.is_null()) sentence["words"] = std::move(words);
  return event("result-generated", {{"output", {{"sentence", sentence}}}});
}

ProjectSnapshot sampleSnapshot() {
  ProjectSnapshot snapshot;
  snapshot.manifest.id = Uuid::random();
  snapshot.manifest.duration = ProjectTime{10'000'400'000};  // truncated to 10,000 ms
  snapshot.manifest.media.tracks = {
      {MediaTrackKind::screen, 0}, {MediaTrackKind::systemAudio, 1}, {MediaTrackKind::microphone, 2}};
  snapshot.timelineDigest = std::string(64, '7');
  return snapshot;
}

// Every case runs the whole service against a stand-in: the audio is "exported", sent, answered,
// and its temporary folder must be gone afterwards, whatever the outcome.
class BailianTranscription : public ::testing::Test {
 protected:
  ScopedDataHome home;
  TemporaryDirectory temporary;
  ScopedEnvironmentVariable temporaryFolder{"TMPDIR", temporary.path().string()};
  ScopedEnvironmentVariable key{"DASHSCOPE_API_KEY", testKey};
  testing::ThrowAwayAuthority authority;
  fs::path authorityFile = temporary.path() / "authority.pem";
  ScopedEnvironmentVariable trust{"SSL_CERT_FILE", authorityFile.string()};
  std::optional<ScopedEnvironmentVariable> endpoint;
  CloudCredentialStore credentials;
  BailianConnectionSettings settings{10s, 2s};
  std::string wav = wavOf(100'000);
  ProjectSnapshot snapshot = sampleSnapshot();
  fs::path exportedTo;

  void SetUp() override { std::ofstream(authorityFile) << authority.certificatePem(); }

  void TearDown() override {
    if (!exportedTo.empty()) {
      EXPECT_FALSE(fs::exists(exportedTo.parent_path())) << "temporary audio left behind";
    }
    fs::path captions = temporary.path() / "Vumo-Captions";
    if (fs::exists(captions)) {
      EXPECT_TRUE(fs::is_empty(captions));
    }
  }

  std::unique_ptr<ScriptedService> serve(ServiceScript script, bool secure = true,
                                         const std::string& names = "DNS:localhost") {
    std::optional<testing::TlsIdentity> identity;
    if (secure) identity = authority.issue(names);
    auto service = std::make_unique<ScriptedService>(std::move(script), identity);
    endpoint.reset();
    endpoint.emplace("VUMO_BAILIAN_ENDPOINT",
                     secure ? fmt::format("wss://localhost:{}/api-ws/v1/inference", service->port())
                            : fmt::format("ws://127.0.0.1:{}/api-ws/v1/inference?x=1", service->port()));
    return service;
  }

  CaptionGenerationResult generate(std::stop_token stop = {}) {
    CaptionTranscriptionService service(
        [this](const ProjectSnapshot&, MediaTrackKind, const fs::path& target, std::stop_token) {
          exportedTo = target;
          std::ofstream(target, std::ios::binary) << wav;
        },
        credentials, settings);
    return service.generateBailian(snapshot, CaptionTrackSelection::automatic, stop);
  }

  std::optional<CaptionTranscriptionError> transcriptionFailure(std::stop_token stop = {}) {
    try {
      generate(stop);
    } catch (const CaptionTranscriptionError& error) {
      EXPECT_EQ(std::string(error.what()).find(testKey), std::string::npos) << "the key leaked into a message";
      return error;
    }
    return std::nullopt;
  }
};

TEST_F(BailianTranscription, SendsTheTaskAndAudioAndBuildsCuesFromTheSentences) {
  Json words = Json::array({{{"begin_time", 1000.4}, {"end_time", 1500}, {"text", "第一"}},
                            {{"begin_time", 2500}, {"end_time", 2600}, {"text", "外"}}});
  auto service = serve({{event("task-started"), sentence(1000.4, 2000.5, "第一句。", words),
                         sentence(1000.4, 2000.5, "第一句。", words), sentence(9500, 12000, "最後"),
                         sentence(10000, 11000, "之后"), sentence(0, 900, "开头"), event("task-finished")}});

  CaptionGenerationResult result = generate();
  const ReceivedConversation& received = service->received();

  EXPECT_EQ(received.authorization, std::string("Bearer ") + testKey);
  EXPECT_EQ(received.target, "/api-ws/v1/inference");
  EXPECT_EQ(received.binarySizes, (std::vector<std::size_t>{32'000, 32'000, 32'000, 4'000}));
  ASSERT_EQ(received.texts.size(), 2u);
  Json runTask = parseJson(received.texts[0]);
  EXPECT_EQ(received.texts[0], encodeCompact(runTask)) << "compact JSON";
  EXPECT_EQ(runTask,
            (Json{{"header", {{"action", "run-task"}, {"task_id", result.job.id.string()}, {"streaming", "duplex"}}},
                  {"payload",
                   {{"task_group", "audio"},
                    {"task", "asr"},
                    {"function", "recognition"},
                    {"model", "paraformer-realtime-v2"},
                    {"parameters", {{"format", "pcm"}, {"sample_rate", 16000}, {"language_hints", {"zh"}}}},
                    {"input", Json::object()}}}}));
  EXPECT_EQ(parseJson(received.texts[1]),
            (Json{{"header", {{"action", "finish-task"}, {"task_id", result.job.id.string()}}},
                  {"payload", {{"input", Json::object()}}}}));
  EXPECT_EQ(received.clientCloseCode, 1000u);

  EXPECT_EQ(result.job.projectID, snapshot.manifest.id);
  EXPECT_EQ(result.job.sourceTrack, MediaTrackKind::microphone);
  EXPECT_EQ(result.job.sourceAudioDigest, sha256Hex(wav));
  EXPECT_EQ(result.job.timelineDigest, snapshot.timelineDigest);
  EXPECT_EQ(result.job.sourceDurationMilliseconds, 10'000);

  // Rounded half away from zero, repeated once, cut at the end, sorted; the word outside its cue
  // is gone.
  using Cue = CaptionExchangeCue;
  EXPECT_EQ(
      result.exchange.cues,
      (std::vector<Cue>{{0, 900, "开头", std::nullopt, std::nullopt},
                        {1000, 2001, "第一句。", std::vector<CaptionExchangeWord>{{1000, 1500, "第一"}}, std::nullopt},
                        {9500, 10000, "最後", std::nullopt, std::nullopt}}));
  EXPECT_EQ(result.exchange.language, "zh-Hans");
  EXPECT_EQ(result.exchange.jobID, result.job.id);
  ASSERT_EQ(result.document.cues.size(), 3u);
  EXPECT_EQ(result.document.cues[1].text, "第一句");
  EXPECT_EQ(result.document.cues[2].text, "最后");
  EXPECT_EQ(result.document.cues[2].end, ProjectTime{10'000'000'000});
}

TEST_F(BailianTranscription, HeaderOnlyAudioGoesStraightToFinishTaskInTheClear) {
  wav = wavOf(0);
  auto service = serve({{sentence(0, 500, "好"), event("task-finished")}}, false);
  CaptionGenerationResult result = generate();
  const ReceivedConversation& received = service->received();
  EXPECT_TRUE(received.binarySizes.empty());
  ASSERT_EQ(received.texts.size(), 2u);
  EXPECT_NE(received.texts[1].find("finish-task"), std::string::npos);
  EXPECT_EQ(received.target, "/api-ws/v1/inference?x=1");
  EXPECT_EQ(result.exchange.cues.size(), 1u);
}

TEST_F(BailianTranscription, AnswersThatEndTheTaskAreTypedFailures) {
  struct Row {
    const char* name;
    std::vector<std::string> replies;
    TranscriptionCase expected;
    std::string inMessage;
  };
  const std::string refused = encodeCompact(Json{
      {"header",
       {{"event", "task-failed"}, {"error_code", "InvalidApiKey"}, {"error_message", "Invalid API-key provided."}}},
      {"payload", Json::object()}});
  const Row rows[] = {
      {"refused key", {event("task-started"), refused}, TranscriptionCase::requestFailed, "Invalid API-key provided."},
      {"top-level error", {R"({"error":""})"}, TranscriptionCase::requestFailed, R"({"error":""})"},
      {"not JSON", {event("task-started"), "not json"}, TranscriptionCase::invalidResponse, "not json"},
      {"not an object", {"[1,2]"}, TranscriptionCase::invalidResponse, "[1,2]"},
      {"no sentences",
       {event("task-started"), event("task-finished")},
       TranscriptionCase::missingTimestamps,
       "task-finished"},
      {"sentence after the end",
       {sentence(10'000, 10'500, "晚"), event("task-finished")},
       TranscriptionCase::missingTimestamps,
       "晚"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    auto service = serve({row.replies});
    auto failure = transcriptionFailure();
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->kind(), row.expected);
    std::string message = failure->what();
    EXPECT_EQ(message.find(CaptionTranscriptionError::catalogue()[row.expected].englishText.substr(0, 20)), 0u);
    EXPECT_NE(message.find("\n\nAPI response:\n"), std::string::npos);
    EXPECT_NE(message.find(row.inMessage), std::string::npos) << message;
    EXPECT_EQ(service->received().clientCloseCode, 1000u);
  }
}

TEST_F(BailianTranscription, TransportFailuresAreFailedRequests) {
  {
    SCOPED_TRACE("certificate for another name");
    auto service = serve({{event("task-finished")}}, true, "DNS:wrong.example");
    auto failure = transcriptionFailure();
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->kind(), TranscriptionCase::requestFailed);
    EXPECT_FALSE(service->received().upgraded);
  }
  {
    SCOPED_TRACE("closed early by the service");
    auto service = serve({{event("task-started")}, ServiceScript::Ending::closeEarly});
    auto failure = transcriptionFailure();
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->kind(), TranscriptionCase::requestFailed);
    EXPECT_NE(std::string(failure->what()).find("1011"), std::string::npos) << failure->what();
  }
  {
    SCOPED_TRACE("nobody listening");
    std::uint16_t closedPort;
    {
      boost::asio::io_context io;
      boost::asio::ip::tcp::acceptor probe(io, {boost::asio::ip::make_address("127.0.0.1"), 0});
      closedPort = probe.local_endpoint().port();
    }
    endpoint.reset();
    endpoint.emplace("VUMO_BAILIAN_ENDPOINT", fmt::format("ws://127.0.0.1:{}/api-ws/v1/inference", closedPort));
    auto started = std::chrono::steady_clock::now();
    auto failure = transcriptionFailure();
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->kind(), TranscriptionCase::requestFailed);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
  }
  {
    SCOPED_TRACE("silence beyond the time-out");
    settings.requestTimeout = 200ms;
    auto service = serve({{event("task-started")}, ServiceScript::Ending::stall});
    auto started = std::chrono::steady_clock::now();
    auto failure = transcriptionFailure();
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->kind(), TranscriptionCase::requestFailed);
    EXPECT_NE(std::string(failure->what()).find("200 ms"), std::string::npos) << failure->what();
    EXPECT_LT(std::chrono::steady_clock::now() - started, 3s);
  }
}

TEST_F(BailianTranscription, StopDuringAWaitEndsAtOnce) {
  settings.requestTimeout = 30s;
  auto service = serve({{event("task-started")}, ServiceScript::Ending::stall});
  std::stop_source stop;
  std::thread stopper([&] {
    std::this_thread::sleep_for(300ms);
    stop.request_stop();
  });
  auto started = std::chrono::steady_clock::now();
  EXPECT_THROW(generate(stop.get_token()), CancelledError);
  stopper.join();
  EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
  EXPECT_EQ(service->received().texts.size(), 2u);
}

TEST_F(BailianTranscription, NothingConnectsWithoutAKeyOrToAPlainRemoteHost) {
  {
    auto service = serve({{event("task-finished")}});
    ScopedEnvironmentVariable noKey("DASHSCOPE_API_KEY", std::nullopt);
    EXPECT_ERROR_CASE(generate(), CloudCredentialError, CloudCredentialError::Case::missing);
    EXPECT_FALSE(service->received().connected);
  }
  endpoint.reset();
  endpoint.emplace("VUMO_BAILIAN_ENDPOINT", "ws://example.com/api-ws/v1/inference");
  EXPECT_ERROR_CASE(generate(), CaptionTranscriptionError, TranscriptionCase::requestFailed);
}

TEST_F(BailianTranscription, TrackMustBeInTheRecording) {
  snapshot.manifest.media.tracks = {{MediaTrackKind::screen, 0}};
  EXPECT_ERROR_CASE(generate(), CaptionTranscriptionError, TranscriptionCase::missingTrack);
}

TEST(BailianTrackResolution, AutomaticPrefersTheMicrophone) {
  ProjectManifest both = sampleSnapshot().manifest;
  ProjectManifest systemOnly = both;
  systemOnly.media.tracks = {{MediaTrackKind::screen, 0}, {MediaTrackKind::systemAudio, 1}};
  EXPECT_EQ(CaptionTranscriptionService::resolvedTrack(both, CaptionTrackSelection::automatic),
            MediaTrackKind::microphone);
  EXPECT_EQ(CaptionTranscriptionService::resolvedTrack(systemOnly, CaptionTrackSelection::automatic),
            MediaTrackKind::systemAudio);
  EXPECT_EQ(CaptionTranscriptionService::resolvedTrack(both, CaptionTrackSelection::systemAudio),
            MediaTrackKind::systemAudio);
  EXPECT_ERROR_CASE(CaptionTranscriptionService::resolvedTrack(systemOnly, CaptionTrackSelection::microphone),
                    CaptionTranscriptionError, TranscriptionCase::missingTrack);
}

TEST(BailianEndpointURL, AcceptsSecureURLsAndPlainOnesOnlyForLoopback) {
  EXPECT_EQ(parseBailianEndpoint(BailianTranscriptionProvider::defaultEndpointURL),
            (BailianEndpoint{true, "dashscope.aliyuncs.com", 443, "/api-ws/v1/inference"}));
  EXPECT_EQ(parseBailianEndpoint("WSS://host.example:8443"), (BailianEndpoint{true, "host.example", 8443, "/"}));
  EXPECT_EQ(parseBailianEndpoint("ws://[::1]:9000/a?b=c#f"), (BailianEndpoint{false, "::1", 9000, "/a?b=c"}));
  EXPECT_EQ(parseBailianEndpoint("ws://LOCALHOST/x"), (BailianEndpoint{false, "LOCALHOST", 80, "/x"}));
  EXPECT_EQ(parseBailianEndpoint("ws://127.8.9.10:1/").host, "127.8.9.10");
  for (const char* refused : {"http://host/x", "dashscope.aliyuncs.com", "ws://example.com/x", "ws://10.0.0.1/x",
                              "wss://user:pw@host/x", "wss://:443/x", "wss://host:0/x", "wss://host:65536/x",
                              "wss://host:/x", "wss://ho st/x", "wss://[::1/x", "wss://host/a b"}) {
    try {
      parseBailianEndpoint(refused);
      ADD_FAILURE() << refused;
    } catch (const CaptionTranscriptionError& error) {
      EXPECT_EQ(error.kind(), TranscriptionCase::requestFailed);
      EXPECT_NE(std::string(error.what()).find(refused), std::string::npos);
    }
  }
}

TEST(BailianResponse, ReadsTheFirstSentenceListAndDropsUnusableSentences) {
  struct Row {
    const char* name;
    Json message;
    std::vector<CaptionExchangeCue> expected;
  };
  using Words = std::vector<CaptionExchangeWord>;
  const Row rows[] = {
      {"sentences wins over output.sentence",
       {{"sentences", {{{"start", 1}, {"end", 2}, {"text", "a"}}}},
        {"output", {{"sentence", {{"start", 5}, {"end", 6}, {"text", "b"}}}}}},
       {{1, 2, "a", std::nullopt, std::nullopt}}},
      {"segments first, other key spellings",
       {{"segments", {{{"start_time", -0.5}, {"end_time", 2.5}, {"sentence", " c "}}}}, {"sentences", Json::array()}},
       {{-1, 3, "c", std::nullopt, std::nullopt}}},
      {"payload.output list",
       {{"payload",
         {{"output",
           {{"sentence",
             {{{"begin_time", 0},
               {"end_time", 10},
               {"text", "d"},
               {"words", Json::array({{{"begin_time", 0}, {"end_time", 4}, {"word", "d1"}},
                                      {{"begin_time", 5}, {"end_time", 5}, {"text", "x"}},
                                      7,
                                      {{"begin_time", 6}, {"end_time", 8}, {"word", 3}, {"text", "d2"}}})}}}}}}}}},
       {{0, 10, "d", Words{{0, 4, "d1"}, {6, 8, "d2"}}, std::nullopt}}},
      {"top-level output when payload.output is no object",
       {{"payload", {{"output", "x"}}}, {"output", {{"sentences", {{{"start", 0}, {"end", 1}, {"text", "e"}}}}}}},
       {{0, 1, "e", std::nullopt, std::nullopt}}},
      {"unusable sentences",
       {{"sentences",
         {{{"start", "0"}, {"end", 1}, {"text", "a"}},
          {{"start", 2}, {"end", 2}, {"text", "b"}},
          {{"start", 0}, {"end", 1}, {"text", " \n"}},
          {{"start", 0}, {"end", 1}, {"text", 5}},
          "not an object"}}},
       {}},
      {"nothing to read", {{"header", {{"event", "task-started"}}}}, {}},
  };
  for (const Row& row : rows) EXPECT_EQ(parseBailianCues(row.message), row.expected) << row.name;
}

TEST(BailianResponse, DetailIsCutToFourThousandCharacters) {
  std::string detail = "  " + std::string(3'999, 'x') + "界界  ";
  std::string message = CaptionTranscriptionError::invalidResponse(detail).what();
  EXPECT_EQ(message,
            "Bailian returned an invalid transcription response.\n\nAPI response:\n" + std::string(3'999, 'x') + "界");
  EXPECT_EQ(std::string(CaptionTranscriptionError::requestFailed(" \n ").what()),
            "Bailian transcription failed. Check your key, network, or account quota.");
  EXPECT_EQ(std::string(CaptionTranscriptionError::missingTrack().what()),
            "No selected audio track is available for captions.");
}

}  // namespace
}  // namespace vumo
