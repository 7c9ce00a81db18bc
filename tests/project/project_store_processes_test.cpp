// Several processes committing to one project at once, and processes killed mid-commit. These are
// the situations the lock files and digests exist for: an editor and an agent's command line
// sharing a project.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>

#include "project/project_store.h"
#include "project/stale_temporaries.h"
#include "project_fixtures.h"
#include "shared/files.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using project_testing::StoreFixture;

const ProjectTime duration = ProjectTime::fromMilliseconds(10'000);

// The commit counter lives in the motion blur (n / 1000) and the committer's mark in the clip's
// id, both of which any valid timeline may carry.
std::int64_t counterOf(const EditTimeline& t) { return std::llround(t.motionBlurAmount * 1000); }

EditTimeline nextTimeline(const EditTimeline& current, const Uuid& mark) {
  EditTimeline next = current;
  next.motionBlurAmount = static_cast<double>(counterOf(current) + 1) / 1000.0;
  next.segments.at(0).id = mark;
  return next;
}

bool writeAll(int fd, const void* data, std::size_t size) {
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t n = ::write(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool readAll(int fd, void* data, std::size_t size) {
  char* p = static_cast<char*>(data);
  while (size > 0) {
    ssize_t n = ::read(fd, p, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

struct CommitReport {
  char outcome = 'E';  // 'W' committed, 'C' digest conflict, 'E' anything else
  std::uint8_t mark[16] = {};
};

// A committer process: on 'r' it reads the project, on 'c' it commits the next counter from what
// it read, on 'q' it leaves. Its store is its own, as in separate programs.
[[noreturn]] void committer(const fs::path& root, const ProjectPackage& package, int commands, int reports) {
  int status = 0;
  try {
    ProjectStore store(root);
    TimelineState state;
    char command;
    while (readAll(commands, &command, 1) && command != 'q') {
      if (command == 'r') {
        state = store.readTimelineState(package, duration, false);
        writeAll(reports, "k", 1);
        continue;
      }
      CommitReport report;
      Uuid mark = Uuid::random();
      std::memcpy(report.mark, mark.bytes.data(), 16);
      try {
        store.commitTimeline(nextTimeline(state.timeline, mark), state.digest, std::nullopt, package);
        report.outcome = 'W';
      } catch (const ProjectStoreError& e) {
        report.outcome = e.kind() == ProjectStoreError::Case::timelineDigestConflict ? 'C' : 'E';
      } catch (...) {
        report.outcome = 'E';
      }
      writeAll(reports, &report, sizeof report);
    }
  } catch (...) {
    status = 1;
  }
  ::_exit(status);
}

TEST(ProjectStoreProcesses, EightProcessesCommittingFromOneDigestNeverLoseAnUpdate) {
  constexpr int processes = 8;
  constexpr int rounds = 25;
  StoreFixture f;
  ProjectPackage package = f.finishedProject(duration);

  struct Child {
    pid_t pid;
    int commands;
    int reports;
  };
  std::vector<Child> children;
  for (int i = 0; i < processes; ++i) {
    int down[2], up[2];
    ASSERT_EQ(::pipe(down), 0);
    ASSERT_EQ(::pipe(up), 0);
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      ::close(down[1]);
      ::close(up[0]);
      committer(f.store.projectsDirectoryPath(), package, down[0], up[1]);
    }
    ::close(down[0]);
    ::close(up[1]);
    children.push_back({pid, down[1], up[0]});
  }

  const std::int64_t initialCounter = counterOf(f.store.readTimeline(package, duration, false));
  std::vector<Uuid> winners;
  for (int round = 1; round <= rounds; ++round) {
    for (auto& c : children) ASSERT_TRUE(writeAll(c.commands, "r", 1));
    for (auto& c : children) {
      char ok;
      ASSERT_TRUE(readAll(c.reports, &ok, 1));
    }
    // Everyone read the same digest; now all commit at once.
    for (auto& c : children) ASSERT_TRUE(writeAll(c.commands, "c", 1));
    int wins = 0, conflicts = 0;
    for (auto& c : children) {
      CommitReport report;
      ASSERT_TRUE(readAll(c.reports, &report, sizeof report));
      if (report.outcome == 'W') {
        ++wins;
        Uuid mark;
        std::memcpy(mark.bytes.data(), report.mark, 16);
        winners.push_back(mark);
      } else if (report.outcome == 'C') {
        ++conflicts;
      }
    }
    ASSERT_EQ(wins, 1) << "round " << round;
    ASSERT_EQ(conflicts, processes - 1) << "round " << round;
    EditTimeline now = f.store.readTimeline(package, duration, false);
    ASSERT_EQ(counterOf(now), initialCounter + round);
    ASSERT_EQ(now.segments[0].id, winners.back());
  }
  for (auto& c : children) {
    writeAll(c.commands, "q", 1);
    ::close(c.commands);
    ::close(c.reports);
    int status = 0;
    ::waitpid(c.pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }

  // The history holds each replaced winner's document, newest first.
  auto history = f.store.timelineHistory(package);
  ASSERT_EQ(history.size(), 20u);
  for (std::size_t i = 0; i < history.size(); ++i) {
    EditTimeline replaced = decodeEditTimeline(readFile(history[i].path, SIZE_MAX));
    EXPECT_EQ(replaced.segments.at(0).id, winners[winners.size() - 2 - i]) << i;
    EXPECT_EQ(counterOf(replaced), initialCounter + rounds - 1 - static_cast<std::int64_t>(i));
  }
}

TEST(ProjectStoreProcesses, AProcessKilledMidCommitNeverLeavesATimelineThatFailsToDecode) {
  StoreFixture f;
  ProjectPackage package = f.finishedProject(duration);
  std::mt19937 random(20261121);
  std::uniform_int_distribution<int> delayMicroseconds(200, 40'000);

  for (int attempt = 0; attempt < 40; ++attempt) {
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      try {
        ProjectStore store(f.store.projectsDirectoryPath());
        for (;;) {
          auto state = store.readTimelineState(package, duration, false);
          EditTimeline next = nextTimeline(state.timeline, Uuid::random());
          if (counterOf(next) > 900) next.motionBlurAmount = 0;
          store.commitTimeline(next, state.digest, std::nullopt, package);
        }
      } catch (...) {
      }
      ::_exit(1);
    }
    ::usleep(static_cast<useconds_t>(delayMicroseconds(random)));
    ::kill(pid, SIGKILL);
    int status = 0;
    ::waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the committer stopped by itself at attempt " << attempt;

    // Whole, valid, and not locked: the next writer goes straight through.
    auto state = f.store.readTimelineState(package, duration, false);
    ASSERT_NO_THROW(decodeEditTimeline(readFile(package.timelinePath(), SIZE_MAX)));
    // A kill between keeping the history file and trimming leaves one extra, which the next
    // commit trims.
    ASSERT_LE(f.store.timelineHistory(package).size(), 21u);
    ASSERT_NO_THROW(
        f.store.commitTimeline(nextTimeline(state.timeline, Uuid::random()), state.digest, std::nullopt, package));
    ASSERT_LE(f.store.timelineHistory(package).size(), 20u);
    // History entries are written only under the lock, so that commit removed whatever the kill
    // left half-written there: nothing hidden is left.
    for (const auto& entry : fs::directory_iterator(package.timelineHistoryDirectory()))
      ASSERT_NE(entry.path().filename().string().front(), '.') << entry.path();
  }
  for (const auto& entry : fs::directory_iterator(package.editsDirectory())) {
    std::string name = entry.path().filename().string();
    EXPECT_TRUE(name[0] == '.' || name == "timeline.json" || name == "history") << name;
  }
}

}  // namespace
}  // namespace vumo
