#include "ui/application.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QCoreApplication>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <thread>

#include "project/file_lock.h"
#include "project/project_fixtures.h"
#include "project/project_store.h"
#include "shared/resources.h"
#include "support/desktop_servers.h"
#include "support/test_support.h"
#include "widget_test_support.h"

namespace vumo {
namespace {

using widget_testing::turnUntil;

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::TemporaryDirectory;

QCoreApplication& application() {
  static int argc = 1;
  static char name[] = "ui_tests";
  static char* argv[] = {name, nullptr};
  if (QCoreApplication::instance() == nullptr) new QCoreApplication(argc, argv);
  return *QCoreApplication::instance();
}

TEST(SingleInstance, ASecondInstanceRaisesTheFirstAndStartsNothing) {
  application();
  TemporaryDirectory runtime;
  const QString path = QString::fromStdString((runtime.path() / "vumo-1000.socket").string());
  SingleInstance first(path);
  int raised = 0;
  QObject::connect(&first, &SingleInstance::raiseRequested, [&] { ++raised; });
  ASSERT_TRUE(first.claim());
  EXPECT_TRUE(first.isListening());

  // The second instance is another process in life; here it is another thread, so the first can
  // answer on this one.
  std::atomic<int> secondClaimed = -1;
  std::chrono::steady_clock::duration took{};
  std::thread second([&] {
    const auto start = std::chrono::steady_clock::now();
    SingleInstance later(path);
    secondClaimed = later.claim() ? 1 : 0;
    took = std::chrono::steady_clock::now() - start;
  });
  turnUntil([&] { return secondClaimed != -1; });
  second.join();
  turnUntil([&] { return raised > 0; }, 500ms);
  EXPECT_EQ(secondClaimed, 0);
  EXPECT_EQ(raised, 1);
  EXPECT_LT(took, 2s) << "the first answered; the second did not wait out its limit";
  EXPECT_TRUE(first.isListening());
}

TEST(SingleInstance, ASocketLeftByACrashIsTakenOver) {
  application();
  TemporaryDirectory runtime;
  const fs::path socketPath = runtime.path() / "vumo-1000.socket";
  // Bound and never listened on: what a killed instance leaves behind.
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath.c_str());
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(fd);
  ASSERT_TRUE(fs::exists(socketPath));

  SingleInstance instance(QString::fromStdString(socketPath.string()));
  EXPECT_TRUE(instance.claim());
  EXPECT_TRUE(instance.isListening());
}

TEST(SingleInstance, TheSocketIsNamedFromTheUserInTheRuntimeFolder) {
  TemporaryDirectory runtime;
  testing::ScopedEnvironmentVariable variable("XDG_RUNTIME_DIR", runtime.path().string());
  EXPECT_EQ(SingleInstance::defaultServerPath().toStdString(),
            (runtime.path() / ("vumo-" + std::to_string(::getuid()) + ".socket")).string());
}

TEST(TerminationSignals, SIGTERMAndSIGINTArriveOnTheEventLoop) {
  application();
  std::vector<int> received;
  {
    TerminationSignals termination;
    QObject::connect(&termination, &TerminationSignals::terminationRequested,
                     [&](int number) { received.push_back(number); });
    ::raise(SIGTERM);
    ::raise(SIGINT);
    EXPECT_TRUE(received.empty()) << "nothing runs inside the handler";
    turnUntil([&] { return received.size() == 2; });
  }
  EXPECT_EQ(received, (std::vector<int>{SIGTERM, SIGINT}));
}

TEST(StartUpRecovery, InterruptedRecordingsAreRecoveredAndALiveOneIsLeftAlone) {
  testing::ScopedDataHome data;
  ProjectStore store;
  auto start = [&](const std::string& title) {
    CaptureSourceDescriptor source = project_testing::displaySource();
    source.title = title;
    auto created = store.createProject(source, RecordingOptions{}, {1920, 1080}, std::nullopt, std::nullopt);
    writeFileAtomically(created.package.mediaPath(), "movie");
    return created.package;
  };
  start("Crashed");
  const ProjectPackage live = start("Live");
  RecordingPackageLock lock(live.rootPath);
  const ProjectPackage unplayable = start("Unplayable");
  fs::remove(unplayable.mediaPath());

  const MediaProbing probe = [](const fs::path& media) -> std::optional<MediaProbeResult> {
    if (!fs::exists(media)) return std::nullopt;
    return MediaProbeResult{ProjectTime::fromMilliseconds(4'000), true};
  };
  EXPECT_EQ(recoverUnfinishedRecordings(store, probe),
            std::vector<std::string>{"The interrupted recording “Crashed” was recovered."});
  const auto recent = store.recentProjects();
  ASSERT_EQ(recent.size(), 1u);
  EXPECT_EQ(recent[0].sourceTitle, "Crashed");
  EXPECT_EQ(recent[0].state, ProjectState::recovered);
  EXPECT_TRUE(fs::exists(live.rootPath)) << "a recording that still runs is not touched";
  EXPECT_TRUE(recoverUnfinishedRecordings(store, probe).empty()) << "nothing is recovered twice";
}

// ---- The executable ----------------------------------------------------------------------------

std::string neededLibraries(const fs::path& file) {
  std::string text;
  const std::string command = "LC_ALL=C readelf -d '" + file.string() + "' 2>&1";
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return text;
  char buffer[4096];
  while (std::fgets(buffer, sizeof buffer, pipe) != nullptr)
    if (std::string_view(buffer).find("(NEEDED)") != std::string_view::npos) text += buffer;
  ::pclose(pipe);
  return text;
}

TEST(ApplicationEntry, TheExecutableLinksNeitherQtNorFFmpegAndTheModuleNoFFmpeg) {
#if defined(__SANITIZE_ADDRESS__)
  // The sanitizer runtime keeps every library on the link line, needed or not.
  GTEST_SKIP() << "a sanitizer build links every library it is given";
#endif
  testing::requireProgram("readelf", "binutils");
  const std::string program = neededLibraries(testing::vumoBinary());
  ASSERT_NE(program.find("libc.so"), std::string::npos) << program;
  for (const char* library : {"libQt", "libavcodec", "libavformat", "libswscale", "libavutil"})
    EXPECT_EQ(program.find(library), std::string::npos) << library << " in\n" << program;

  const auto modules = ResourceLocator::modulesForExecutable(testing::vumoBinary());
  ASSERT_TRUE(modules);
  const std::string module = neededLibraries(*modules / "vumo-ui.so");
  ASSERT_NE(module.find("libQt6Widgets"), std::string::npos) << module;
  for (const char* library : {"libavcodec", "libavformat", "libswscale", "libavutil"})
    EXPECT_EQ(module.find(library), std::string::npos) << library << " in\n" << module;
}

TEST(ApplicationEntry, WithoutADisplayItPrintsHowToWorkHeadlessAndReturns6) {
  TemporaryDirectory folder;
  std::ofstream(folder.path() / "wayland-9") << "not a socket";
  const std::map<std::string, std::optional<std::string>> noDisplay = {{"DISPLAY", std::nullopt},
                                                                       {"WAYLAND_DISPLAY", std::nullopt},
                                                                       {"XDG_RUNTIME_DIR", folder.path().string()},
                                                                       {"HOME", folder.path().string()}};
  struct Case {
    const char* name;
    std::vector<std::string> arguments;
    std::map<std::string, std::optional<std::string>> environment;
  };
  std::vector<Case> cases = {
      {"no display at all", {}, {}},
      {"an unknown word", {"frobnicate"}, {}},
      {"an X display nobody serves", {}, {{"DISPLAY", ":159"}}},
      {"a Wayland name that is no socket", {}, {{"WAYLAND_DISPLAY", "wayland-9"}}},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto environment = noDisplay;
    for (const auto& [name, value] : c.environment) environment[name] = value;
    const testing::ProcessResult result = testing::runProgram(testing::vumoBinary(), c.arguments, environment);
    EXPECT_EQ(result.status, 6) << result.standardError;
    EXPECT_NE(result.standardError.find("usage: vumo"), std::string::npos) << result.standardError;
    EXPECT_NE(result.standardError.find("without a display, use `vumo cli ...`, `vumo record` and `vumo export`."),
              std::string::npos)
        << result.standardError;
    EXPECT_EQ(result.standardError.find("qt."), std::string::npos) << "Qt was never loaded: " << result.standardError;
  }
}

TEST(ApplicationEntry, UnderXASecondVumoRaisesTheFirstAndTheFirstQuitsCleanlyOnSIGTERM) {
  testing::XvfbServer x;
  TemporaryDirectory home;
  const fs::path runtime = home.path() / "runtime";
  fs::create_directories(runtime);
  fs::permissions(runtime, fs::perms::owner_all);
  std::map<std::string, std::optional<std::string>> environment = {
      {"DISPLAY", x.display()},
      {"QT_QPA_PLATFORM", "xcb"},
      {"WAYLAND_DISPLAY", std::nullopt},
      {"XDG_SESSION_TYPE", std::nullopt},
      {"HOME", home.path().string()},
      {"XDG_DATA_HOME", (home.path() / "data").string()},
      {"XDG_CONFIG_HOME", (home.path() / "config").string()},
      {"XDG_CACHE_HOME", (home.path() / "cache").string()},
      {"XDG_RUNTIME_DIR", runtime.string()},
  };
  const fs::path socket = runtime / ("vumo-" + std::to_string(::getuid()) + ".socket");

  testing::ProcessLaunch first;
  first.words = {testing::vumoBinary().string()};
  first.environment = environment;
  first.timeout = 60s;
  testing::ProcessResult second;
  bool firstAliveAfterSecond = false;
  first.whileRunning = [&](int pid) {
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (!fs::exists(socket) && std::chrono::steady_clock::now() < deadline) std::this_thread::sleep_for(20ms);
    ASSERT_TRUE(fs::exists(socket)) << "the first vumo never listened";
    std::this_thread::sleep_for(200ms);
    second = testing::runProgram(testing::vumoBinary(), {}, environment);
    firstAliveAfterSecond = ::kill(pid, 0) == 0;
    ::kill(pid, SIGTERM);
  };
  const testing::ProcessResult result = testing::run(first);
  EXPECT_EQ(second.status, 0) << second.standardError;
  EXPECT_TRUE(firstAliveAfterSecond);
  EXPECT_FALSE(result.timedOut);
  EXPECT_EQ(result.status, 0) << result.standardError;
}

}  // namespace
}  // namespace vumo
