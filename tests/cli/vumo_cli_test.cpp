#include "cli/vumo_cli.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <csignal>
#include <cstdint>
#include <thread>

#include "cli/agent_help_catalog.h"
#include "cli/cli_errors.h"
#include "cli/signal_cancellation.h"
#include "project/project_store.h"
#include "project/project_store_error.h"
#include "shared/files.h"
#include "shared/json.h"
#include "support/test_support.h"

namespace vumo {
namespace {

struct Captured {
  std::string out;
  std::string err;
  int writesToOut = 0;
  int writesToErr = 0;
  VumoCLI::Streams streams() {
    return {[this](std::string_view s) { out += s, ++writesToOut; },
            [this](std::string_view s) { err += s, ++writesToErr; }};
  }
};

class DriverTest : public ::testing::Test {
 protected:
  int run(std::vector<std::string> arguments, std::stop_token token = {}) {
    VumoCLI cli(token, captured.streams());
    return cli.run(arguments);
  }
  testing::ScopedDataHome home;
  Captured captured;
};

TEST_F(DriverTest, HelpPrintsPlainTextAndCreatesNothing) {
  EXPECT_EQ(run({}), 0);
  EXPECT_EQ(captured.out, VumoCLI::usageText() + "\n");
  EXPECT_TRUE(captured.err.empty());
  EXPECT_EQ(run({"help", "output"}), 0);
  EXPECT_NE(captured.out.find("# Vumo 检查与输出\n\n- CLI只提供单帧图片检查"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(home.path() / "Vumo"));
}

TEST_F(DriverTest, ParseFailureIsOneEnvelopeOnStandardErrorAndWritesNothing) {
  EXPECT_EQ(run({"cut", "abc", "--range", "5,1"}), 2);
  EXPECT_TRUE(captured.out.empty());
  EXPECT_EQ(captured.writesToErr, 1);
  EXPECT_EQ(
      captured.err,
      "{\n  \"error\": \"invalid_arguments\",\n  \"message\": \"参数无效：--range\",\n  \"protocolVersion\": 1\n}\n");
  EXPECT_FALSE(std::filesystem::exists(home.path() / "Vumo"));
}

TEST_F(DriverTest, SystemInfoAnswersOneDocumentWithoutIdentifyingTheMachine) {
  EXPECT_EQ(run({"system-info"}), 0);
  EXPECT_EQ(captured.writesToOut, 1);
  EXPECT_TRUE(captured.err.empty());
  Json info = Json::parse(captured.out);
  for (const char* key : {"architecture", "chip", "logicalCoreCount", "memoryBytes", "operatingSystemVersion",
                          "supportsMetal", "availableDiskBytes", "privacyNote", "protocolVersion"})
    EXPECT_TRUE(info.contains(key)) << key;
  EXPECT_EQ(info.size(), 9u);
  EXPECT_GT(info["logicalCoreCount"].get<int>(), 0);
  if (const char* user = std::getenv("USER"); user != nullptr && std::string(user).size() > 3) {
    EXPECT_EQ(captured.out.find(user), std::string::npos);
  }
  EXPECT_TRUE(std::filesystem::is_directory(home.path() / "Vumo" / "Projects"));
}

TEST_F(DriverTest, AFrameOfUnreadableMediaFailsAsExecutionAndWritesNothing) {
  // The engine's GPU context writes Mesa's shader cache: into a folder of the test's own.
  testing::TemporaryDirectory cache;
  testing::ScopedEnvironmentVariable cacheHome("XDG_CACHE_HOME", cache.path().string());
  ProjectStore store;
  auto created = store.createProject({}, {}, {640, 360}, std::nullopt, std::nullopt);
  writeFileAtomically(created.package.mediaPath(), "movie");
  created.manifest.duration = ProjectTime::fromMilliseconds(1'000);
  store.finish(created.package, created.manifest);
  const auto out = cache.path() / "f.jpg";
  EXPECT_EQ(run({"frame", created.manifest.id.string().substr(0, 8), "--ms", "0", "--out", out.string()}), 6);
  Json envelope = Json::parse(captured.err);
  EXPECT_EQ(envelope["error"], "execution");
  EXPECT_NE(envelope["message"].get<std::string>().find("The project media could not be opened"), std::string::npos)
      << envelope["message"];
  EXPECT_TRUE(captured.out.empty());
  EXPECT_FALSE(std::filesystem::exists(out));
}

TEST_F(DriverTest, ACancelledCommandAnswersWithStatus130) {
  VumoCLI cli({}, captured.streams());
  EXPECT_EQ(cli.report(CancelledError()), 130);
  EXPECT_EQ(Json::parse(captured.err),
            (Json{{"error", "cancelled"}, {"message", "命令已取消。"}, {"protocolVersion", 1}}));
}

TEST(ClassifyTest, FamiliesDecideCodeAndStatus) {
  EXPECT_EQ(VumoCLI::classify(CLIArgumentError::missingValue("id")).exitCode, CLIExitCode::invalidArguments);
  auto output = VumoCLI::classify(CLIOutputError::outputExists("/x"));
  EXPECT_EQ(output.code, "execution");
  EXPECT_EQ(output.exitCode, CLIExitCode::failure);
  EXPECT_EQ(VumoCLI::classify(FileError("disk full")).code, "execution");
  EXPECT_EQ(VumoCLI::classify(std::runtime_error("boom")).code, "execution");

  auto conflict = VumoCLI::classify(ProjectStoreError::timelineDigestConflict("expected", "actual"));
  EXPECT_EQ(conflict.code, "timeline_conflict");
  EXPECT_EQ(static_cast<int>(conflict.exitCode), 4);
}

TEST(HelpCatalogTest, TopicsAreMarkdownWithOneBlankLineAfterTheTitle) {
  for (auto topic : {CLIAgentHelpTopic::workflow, CLIAgentHelpTopic::editPlan, CLIAgentHelpTopic::captions,
                     CLIAgentHelpTopic::settings, CLIAgentHelpTopic::output}) {
    std::string text = AgentHelpCatalog::text(topic);
    EXPECT_TRUE(text.starts_with("# Vumo")) << nameOf(topic);
    EXPECT_EQ(text.find("\n\n"), text.find('\n')) << nameOf(topic);
    EXPECT_EQ(text.find("\n\n\n"), std::string::npos);
    EXPECT_NE(text.back(), '\n');
    EXPECT_EQ(text.find("Library"), std::string::npos);
    EXPECT_EQ(text.find("macOS"), std::string::npos);
  }
  EXPECT_NE(AgentHelpCatalog::text(CLIAgentHelpTopic::captions).find("`$XDG_DATA_HOME/Vumo/TranscriptionModels/`"),
            std::string::npos);
  EXPECT_NE(AgentHelpCatalog::text(CLIAgentHelpTopic::editPlan).find("\"level\":1.8,\"focusX\":0.4"),
            std::string::npos);
}

TEST(SignalCancellationTest, SignalsBecomeAStopRequestInsteadOfKillingTheProcess) {
  for (int signal : {SIGINT, SIGTERM}) {
    SignalCancellation cancellation;
    EXPECT_FALSE(cancellation.token().stop_requested());
    ::kill(::getpid(), signal);
    for (int i = 0; i < 200 && !cancellation.token().stop_requested(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(cancellation.token().stop_requested());
  }
}

// Puts the signal mask back, and takes any signal the test left pending, so later tests run in a
// process as they found it.
class SignalMaskRestorer {
 public:
  SignalMaskRestorer() { pthread_sigmask(SIG_SETMASK, nullptr, &previous_); }
  ~SignalMaskRestorer() {
    sigset_t pending;
    sigpending(&pending);
    for (int signal : {SIGINT, SIGTERM}) {
      if (sigismember(&pending, signal)) {
        sigset_t one;
        sigemptyset(&one);
        sigaddset(&one, signal);
        int taken;
        sigwait(&one, &taken);
      }
    }
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  }

 private:
  sigset_t previous_;
};

TEST(SignalCancellationTest, ASignalAfterTheEndOfTheCommandStaysBlocked) {
  SignalMaskRestorer restorer;
  std::stop_token token;
  {
    SignalCancellation cancellation;
    token = cancellation.token();
  }
  // Would end the process with its default action, were it not blocked.
  ASSERT_EQ(::kill(::getpid(), SIGINT), 0);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_TRUE(sigismember(&pending, SIGINT));
  EXPECT_FALSE(token.stop_requested());
}

}  // namespace
}  // namespace vumo
