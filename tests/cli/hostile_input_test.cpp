// The real executable on a package that neighbours have tampered with, under resource limits,
// with an unwritable standard output and interrupted while it waits. Agents run it unattended:
// whatever happens, it must end in bounded time with the documented status and envelope, and
// change nothing it did not mean to.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <thread>

#include "project/project_history_files.h"
#include "sample_project.h"
#include "shared/digest.h"
#include "shared/files.h"
#include "shared/json.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

using Outcome = testing::ProcessResult;
using Launch = testing::ProcessLaunch;
using testing::run;

// ---- What a package holds ------------------------------------------------------------------------

// Every entry under the root by relative path: its kind and permissions, and for a regular file
// the digest of its bytes. Special files are described, never opened.
std::map<std::string, std::string> fingerprint(const fs::path& root) {
  std::map<std::string, std::string> entries;
  for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator(); ++it) {
    struct stat status {};
    ::lstat(it->path().c_str(), &status);
    std::string description = std::to_string(status.st_mode);
    if (S_ISREG(status.st_mode)) description += " " + sha256Hex(readFile(it->path(), SIZE_MAX));
    if (S_ISLNK(status.st_mode)) description += " -> " + fs::read_symlink(it->path()).string();
    entries[fs::relative(it->path(), root).string()] = description;
  }
  return entries;
}

// ---- Hostile things to plant ---------------------------------------------------------------------

enum class Plant { fifo, socket, linkToDevZero, characterDevice, oversize };

const char* name(Plant plant) {
  switch (plant) {
    case Plant::fifo: return "Fifo";
    case Plant::socket: return "Socket";
    case Plant::linkToDevZero: return "LinkToDevZero";
    case Plant::characterDevice: return "CharacterDevice";
    case Plant::oversize: return "Oversize";
  }
  return "?";
}

// Replaces whatever is at `path` with the hostile thing. Returns false when this system does not
// let the test make it (a device node needs the privilege to make one).
bool plant(Plant kind, const fs::path& path) {
  fs::remove_all(path);
  fs::create_directories(path.parent_path());
  switch (kind) {
    case Plant::fifo: return ::mkfifo(path.c_str(), 0644) == 0;
    case Plant::socket: {
      // Bound through a descriptor of the folder: a package path is longer than a socket address.
      int folder = ::open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      int previous = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      std::string file = path.filename().string();
      std::memcpy(address.sun_path, file.c_str(), file.size());
      bool bound = ::fchdir(folder) == 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
      EXPECT_EQ(::fchdir(previous), 0);
      ::close(fd);
      ::close(folder);
      ::close(previous);
      return bound;
    }
    case Plant::linkToDevZero: fs::create_symlink("/dev/zero", path); return true;
    case Plant::characterDevice: return ::mknod(path.c_str(), S_IFCHR | 0644, makedev(1, 5)) == 0;
    case Plant::oversize: {
      // Sparse: larger than any document limit without taking the space.
      int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      bool grown = fd >= 0 && ::ftruncate(fd, 64 * (1 << 20) + 1) == 0;
      ::close(fd);
      return grown;
    }
  }
  return false;
}

// ---- The fixture -------------------------------------------------------------------------------

class HostileInputTest : public ::testing::Test {
 protected:
  // One generated recording for the whole suite; every test gets its own copy of it.
  static void SetUpTestSuite() {
    templateHome_ = new testing::TemporaryDirectory();
    ProjectStore store(templateHome_->path() / "Vumo" / "Projects");
    ProjectPackage package = makeSampleProject(store);
    id_ = store.readManifest(package).id.string();
    packageName_ = package.rootPath.filename().string();
    // As after any earlier commit, so that a commit that changes nothing leaves the tree alike.
    for (const fs::path& lock : {package.timelineLockPath(), package.captionsLockPath()}) std::ofstream(lock.string());
  }
  static void TearDownTestSuite() { delete templateHome_; }

  void SetUp() override {
    fs::create_directories(projects());
    fs::copy(templateHome_->path() / "Vumo" / "Projects" / packageName_, package().rootPath,
             fs::copy_options::recursive);
    pristineDigest_ = sha256Hex(readFile(package().timelinePath(), SIZE_MAX));
  }

  fs::path projects() const { return home_.path() / "Vumo" / "Projects"; }
  ProjectPackage package() const { return ProjectPackage{projects() / packageName_}; }
  static std::string prefix() { return id_.substr(0, 8); }

  Launch vumo(std::vector<std::string> words) const {
    words.insert(words.begin(), {testing::vumoBinary().string(), "cli"});
    Launch launch;
    launch.words = std::move(words);
    launch.environment = {{"XDG_DATA_HOME", home_.path().string()}};
    return launch;
  }
  // Through a shell that lowers the descriptor limit first.
  Launch vumoWithDescriptorLimit(int limit, const std::vector<std::string>& words) const {
    std::string command = "ulimit -n " + std::to_string(limit) + " && exec \"$0\" cli";
    for (std::size_t i = 0; i < words.size(); ++i) command += " \"${" + std::to_string(i + 1) + "}\"";
    std::vector<std::string> all{"/bin/sh", "-c", command, testing::vumoBinary().string()};
    all.insert(all.end(), words.begin(), words.end());
    Launch launch;
    launch.words = std::move(all);
    launch.environment = {{"XDG_DATA_HOME", home_.path().string()}};
    return launch;
  }

  // Status and envelope of a refused command; standard output stays empty.
  static void expectRefusal(const Outcome& outcome, int status, const std::string& code) {
    EXPECT_FALSE(outcome.timedOut);
    EXPECT_EQ(outcome.status, status) << outcome.standardError;
    EXPECT_EQ(outcome.standardOutput, "");
    ASSERT_TRUE(Json::accept(outcome.standardError)) << outcome.standardError;
    Json envelope = Json::parse(outcome.standardError);
    EXPECT_EQ(envelope["error"], code);
    EXPECT_EQ(envelope["protocolVersion"], 1);
  }

  testing::TemporaryDirectory home_;
  std::string pristineDigest_;
  static inline testing::TemporaryDirectory* templateHome_ = nullptr;
  static inline std::string id_;
  static inline std::string packageName_;
};

// ---- Planted files, table-driven ---------------------------------------------------------------

struct HostileCase {
  const char* where;  // a name for the test
  std::function<fs::path(const ProjectPackage&)> path;
  std::vector<std::vector<std::string>> commands;  // "<prefix>" and "<digest>" are filled in
  int status;
  const char* code;
  const char* fileName;  // named in the message; empty when the package is passed over instead
};

const std::string historyEntryName = "2024-01-01T00-00-00.000Z-00000000-0000-4000-8000-000000000000.json";

const HostileCase hostileCases[] = {
    {"Timeline",
     [](const ProjectPackage& p) { return p.timelinePath(); },
     {{"describe", "<prefix>"}, {"cut", "<prefix>", "--range", "100,200", "--apply", "--expect", "<digest>"}},
     6,
     "execution",
     "timeline.json"},
    // A package whose manifest cannot be read is not a project: passed over, not an error.
    {"Manifest",
     [](const ProjectPackage& p) { return p.manifestPath(); },
     {{"describe", "<prefix>"}, {"history", "<prefix>"}},
     3,
     "project_not_found",
     ""},
    {"Captions",
     [](const ProjectPackage& p) { return p.captionsPath(); },
     {{"describe", "<prefix>"}, {"captions-read", "<prefix>"}, {"edit-plan-prepare", "<prefix>"}},
     6,
     "execution",
     "captions.json"},
    {"HistoryEntry",
     [](const ProjectPackage& p) { return p.timelineHistoryDirectory() / historyEntryName; },
     {{"history", "<prefix>"}, {"restore", "<prefix>", "--index", "0"}},
     6,
     "execution",
     historyEntryName.c_str()},
    {"ChunkFile",
     [](const ProjectPackage& p) { return p.mouseEventsDirectory() / "000000.json"; },
     {{"describe", "<prefix>"}, {"cut", "<prefix>", "--range", "100,200"}},
     6,
     "execution",
     "000000.json"},
};

void PrintTo(const HostileCase& c, std::ostream* os) { *os << c.where; }
void PrintTo(Plant plant, std::ostream* os) { *os << name(plant); }

class PlantedFileTest : public HostileInputTest,
                        public ::testing::WithParamInterface<std::tuple<HostileCase, Plant>> {};

TEST_P(PlantedFileTest, EndsWithItsStatusAndChangesNothing) {
  const auto& [where, kind] = GetParam();
  if (!plant(kind, where.path(package()))) GTEST_SKIP() << "this system does not let the test make a " << name(kind);
  const auto before = fingerprint(package().rootPath);
  for (auto words : where.commands) {
    for (auto& word : words) {
      if (word == "<prefix>") word = prefix();
      if (word == "<digest>") word = pristineDigest_;
    }
    SCOPED_TRACE(words.front());
    Outcome outcome = run(vumo(words));
    expectRefusal(outcome, where.status, where.code);
    std::string message = Json::parse(outcome.standardError).value("message", "");
    if (*where.fileName != 0) {
      EXPECT_NE(message.find(where.fileName), std::string::npos) << message;
    }
  }
  EXPECT_EQ(fingerprint(package().rootPath), before);
  // Passed over, the package is missing from the list too, and the list still answers.
  if (where.status == 3) {
    Outcome list = run(vumo({"list"}));
    EXPECT_EQ(list.status, 0);
    EXPECT_EQ(Json::parse(list.standardOutput), Json::array());
  }
}

INSTANTIATE_TEST_SUITE_P(Planted, PlantedFileTest,
                         ::testing::Combine(::testing::ValuesIn(hostileCases),
                                            ::testing::Values(Plant::fifo, Plant::socket, Plant::linkToDevZero,
                                                              Plant::characterDevice, Plant::oversize)),
                         [](const auto& info) {
                           return std::string(std::get<0>(info.param).where) + name(std::get<1>(info.param));
                         });

// ---- Single cases --------------------------------------------------------------------------------

TEST_F(HostileInputTest, DescribeWithAFifoTimelineEndsUnderTimeoutWithTheUnreadablePackageError) {
  ASSERT_TRUE(plant(Plant::fifo, package().timelinePath()));
  Launch launch = vumo({"describe", prefix()});
  launch.words.insert(launch.words.begin(), {"/usr/bin/timeout", "5"});
  Outcome outcome = run(launch);
  expectRefusal(outcome, 6, "execution");
  EXPECT_NE(outcome.standardError.find("timeline.json: not a regular file"), std::string::npos)
      << outcome.standardError;
}

TEST_F(HostileInputTest, ASymlinkedLockFileIsNeitherFollowedNorCommittedThrough) {
  const fs::path outside = home_.path() / "planted-lock";
  for (const bool targetExists : {false, true}) {
    SCOPED_TRACE(targetExists ? "link to a file" : "dangling link");
    fs::remove(outside);
    if (targetExists) std::ofstream(outside.string()) << "";
    fs::remove(package().timelineLockPath());
    fs::create_symlink(outside, package().timelineLockPath());
    const auto before = fingerprint(package().rootPath);
    Outcome outcome = run(vumo({"cut", prefix(), "--range", "100,200", "--apply", "--expect", pristineDigest_}));
    expectRefusal(outcome, 6, "project_store");
    EXPECT_EQ(fingerprint(package().rootPath), before);
    EXPECT_EQ(fs::exists(outside), targetExists);
    if (targetExists) {
      EXPECT_EQ(fs::file_size(outside), 0u);
    }
  }
}

TEST_F(HostileInputTest, NamesThatAreNotUTF8AreShownLossilyAndStayAddressable) {
  // A package folder and a history entry with names no JSON string can hold as they are.
  const fs::path renamed = projects() / "\xff\xfe-project.vumo";
  fs::rename(package().rootPath, renamed);
  ProjectPackage moved{renamed};
  fs::create_directories(moved.timelineHistoryDirectory());
  const std::string oddHistoryName = "2024-01-01T00-00-00.000Z-\xc3\x28.json";
  fs::copy_file(moved.timelinePath(), moved.timelineHistoryDirectory() / oddHistoryName);

  Outcome list = run(vumo({"list"}));
  ASSERT_EQ(list.status, 0) << list.standardError;
  Json projects = Json::parse(list.standardOutput);
  ASSERT_EQ(projects.size(), 1u);
  EXPECT_EQ(projects[0]["id"], id_);
  EXPECT_NE(projects[0]["packagePath"].get<std::string>().find("\xef\xbf\xbd\xef\xbf\xbd-project.vumo"),
            std::string::npos);

  Outcome describe = run(vumo({"describe", prefix()}));
  EXPECT_EQ(describe.status, 0) << describe.standardError;
  EXPECT_EQ(Json::parse(describe.standardOutput)["timelineDigest"], pristineDigest_);

  Outcome history = run(vumo({"history", prefix()}));
  ASSERT_EQ(history.status, 0) << history.standardError;
  Json entries = Json::parse(history.standardOutput)["entries"];
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0]["fileName"], "2024-01-01T00-00-00.000Z-\xef\xbf\xbd(.json");
  EXPECT_EQ(entries[0]["timelineDigest"], pristineDigest_);
  // Reached by its index like any entry.
  Outcome restore = run(vumo({"restore", prefix(), "--index", "0"}));
  EXPECT_EQ(restore.status, 0) << restore.standardError;
}

TEST_F(HostileInputTest, ATimelineWhoseClipsShareAnIdIsRefusedAndLeftAsItIs) {
  // Hand-edited: two clips under one id, which no command could address apart.
  Json timeline = Json::parse(readFile(package().timelinePath(), SIZE_MAX));
  const std::string sharedID = "5D6C3A51-0F4B-4E0A-9C1B-3E2F1A0B9C8D";
  auto clip = [&](std::int64_t startSeconds) {
    return Json{
        {"id", sharedID},
        {"sourceRange",
         {{"start", {{"nanoseconds", startSeconds * 1'000'000'000}}}, {"duration", {{"nanoseconds", 1'000'000'000}}}}}};
  };
  timeline["segments"] = Json::array({clip(0), clip(2)});
  writeFileAtomically(package().timelinePath(), timeline.dump(2));
  const std::string tamperedDigest = sha256Hex(readFile(package().timelinePath(), SIZE_MAX));
  const auto before = fingerprint(package().rootPath);
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"describe", prefix()},
        {"cut", prefix(), "--range", "100,200", "--apply", "--expect", tamperedDigest}}) {
    SCOPED_TRACE(words.front());
    Outcome outcome = run(vumo(words));
    expectRefusal(outcome, 5, "validation");
  }
  EXPECT_EQ(fingerprint(package().rootPath), before);
}

TEST_F(HostileInputTest, ArgumentsThatAreNotUTF8AreUsageErrors) {
  const std::vector<std::vector<std::string>> commands = {
      {"describe", "\xff"},
      {"\xc3\x28"},
      {"cut", prefix(), "--range", "100,200\xe2\x82"},
      {"set", prefix(), "cursor.size=\xed\xa0\x80"},  // an encoded surrogate
      {"history", "\xc0\xaf"},                        // an overlong '/'
  };
  const auto before = fingerprint(package().rootPath);
  for (const auto& words : commands) {
    Outcome outcome = run(vumo(words));
    expectRefusal(outcome, 2, "invalid_arguments");
  }
  EXPECT_EQ(fingerprint(package().rootPath), before);
}

TEST_F(HostileInputTest, RunningOutOfDescriptorsIsAFailureThatNamesItNeverAWrongAnswer) {
#ifdef VUMO_SANITIZED_BUILD
  GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own to check memory";
#endif
  // From the fewest descriptors the program starts with, upwards: at every limit each command
  // either gives the answer it gives without a limit or fails as status 6 saying why; never an
  // empty list, a missing project or an invalid document.
  int floor = 3;
  while (run(vumoWithDescriptorLimit(floor, {"version"})).status != 0) ASSERT_LT(++floor, 64);
  const std::vector<std::vector<std::string>> commands = {{"list"},
                                                          {"describe", prefix()},
                                                          {"history", prefix()},
                                                          {"cut", prefix(), "--range", "100,200"},
                                                          {"edit-plan-prepare", prefix()}};
  std::map<std::string, Json> expected;
  for (const auto& words : commands) {
    if (words.front() == "edit-plan-prepare") continue;  // a new job each time
    Outcome outcome = run(vumo(words));
    ASSERT_EQ(outcome.status, 0) << outcome.standardError;
    expected[words.front()] = Json::parse(outcome.standardOutput);
  }
  const auto before = fingerprint(package().rootPath);
  int failures = 0;
  for (int limit = floor; limit < floor + 12; ++limit) {
    for (const auto& words : commands) {
      SCOPED_TRACE("ulimit -n " + std::to_string(limit) + ": " + words.front());
      Outcome outcome = run(vumoWithDescriptorLimit(limit, words));
      if (outcome.status == 0) {
        if (expected.count(words.front())) {
          EXPECT_EQ(Json::parse(outcome.standardOutput), expected[words.front()]);
        }
        continue;
      }
      ++failures;
      expectRefusal(outcome, 6, "execution");
      EXPECT_NE(outcome.standardError.find(std::strerror(EMFILE)), std::string::npos) << outcome.standardError;
    }
  }
  EXPECT_GT(failures, 0) << "no limit was low enough to make a command fail";
  EXPECT_EQ(fingerprint(package().rootPath), before);
}

TEST_F(HostileInputTest, AnAnswerThatCannotBeWrittenIsAFailure) {
  struct Case {
    const char* name;
    Launch::Output output;
    const char* reason;
  };
  const Case cases[] = {{"full disk", Launch::Output::file, "No space left on device"},
                        {"closed pipe", Launch::Output::closedPipe, "Broken pipe"}};
  for (const Case& c : cases) {
    for (const auto& words : std::vector<std::vector<std::string>>{{"list"}, {"describe", prefix()}, {"version"}, {}}) {
      SCOPED_TRACE(std::string(c.name) + ": " + (words.empty() ? "usage" : words.front()));
      Launch launch = vumo(words);
      launch.output = c.output;
      launch.outputFile = "/dev/full";
      Outcome outcome = run(launch);
      expectRefusal(outcome, 6, "execution");
      EXPECT_NE(outcome.standardError.find(c.reason), std::string::npos) << outcome.standardError;
    }
  }
}

TEST_F(HostileInputTest, ACommitWhoseAnswerIsLostSaysItLandedAndNamesItsDigest) {
  Launch launch = vumo({"cut", prefix(), "--range", "100,200", "--apply", "--expect", pristineDigest_});
  launch.output = Launch::Output::file;
  launch.outputFile = "/dev/full";
  Outcome outcome = run(launch);
  expectRefusal(outcome, 6, "execution");
  const std::string landed = sha256Hex(readFile(package().timelinePath(), SIZE_MAX));
  EXPECT_NE(landed, pristineDigest_);
  EXPECT_NE(outcome.standardError.find("The commit was applied (resulting digest " + landed + ")"), std::string::npos)
      << outcome.standardError;
}

TEST_F(HostileInputTest, SigintWhileACommitWaitsForTheLockCancelsItAndCommitsNothing) {
  const ProjectPackage p = package();
  int holder = ::open(p.timelineLockPath().c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(holder, 0);
  ASSERT_EQ(::flock(holder, LOCK_EX), 0);
  const auto before = fingerprint(p.rootPath);

  Launch launch = vumo({"cut", prefix(), "--range", "100,200", "--apply", "--expect", pristineDigest_});
  bool sawItWait = false;
  launch.whileRunning = [&](pid_t pid) {
    // The command waits once it holds the lock file open; interrupt it then.
    const auto giveUp = std::chrono::steady_clock::now() + 10s;
    while (!sawItWait && std::chrono::steady_clock::now() < giveUp) {
      std::error_code ignored;
      for (const auto& fd : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ignored))
        if (fs::read_symlink(fd.path(), ignored) == p.timelineLockPath()) sawItWait = true;
      if (!sawItWait) std::this_thread::sleep_for(5ms);
    }
    ::kill(pid, SIGINT);
  };
  Outcome outcome = run(launch);
  ::close(holder);

  EXPECT_TRUE(sawItWait);
  expectRefusal(outcome, 130, "cancelled");
  EXPECT_EQ(Json::parse(outcome.standardError)["message"], "命令已取消。");
  EXPECT_EQ(fingerprint(p.rootPath), before);
  EXPECT_FALSE(fs::exists(p.timelineHistoryDirectory()) && !fs::is_empty(p.timelineHistoryDirectory()));
}

}  // namespace
}  // namespace vumo
