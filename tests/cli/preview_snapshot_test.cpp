// Answers computed while another process commits. Every digest an answer reports must be the
// digest of the document that answer was computed from: an agent that confirms a preview with
// its digest must get exactly the result it was shown, or a conflict.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "cli/project_command_service.h"
#include "project/project_fixtures.h"
#include "project/project_store.h"
#include "shared/files.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using project_testing::captionsWithCue;
using project_testing::StoreFixture;

ProjectTime ms(std::int64_t milliseconds) { return ProjectTime::fromMilliseconds(milliseconds); }

// A hundred and eighty clips, so that reading one takes a while; the last one's length (and so
// the film's) tells the commits apart.
EditTimeline timelineNumber(std::int64_t n) {
  EditTimeline timeline = EditTimeline::empty();
  for (std::int64_t i = 0; i < 180; ++i) {
    std::int64_t length = i < 179 ? 40 : 40 + n % 1000;
    timeline.segments.push_back({Uuid::random(), ProjectTimeRange::fromStartEnd(ms(i * 50), ms(i * 50 + length)),
                                 TimelinePlaybackRate::normal()});
  }
  return timeline;
}
std::int64_t filmMilliseconds(std::int64_t n) { return 179 * 40 + 40 + n % 1000; }

bool stopRequested(int fd) {
  pollfd p{fd, POLLIN, 0};
  return ::poll(&p, 1, 0) > 0;
}

// Commits timeline and captions in turn until told to stop, then writes what each digest it
// committed holds: "T <digest> <film milliseconds>" and "C <digest> <cue text>" lines.
[[noreturn]] void committer(const fs::path& root, const ProjectPackage& package, int stop, const fs::path& log) {
  int status = 0;
  try {
    ProjectStore store(root);
    std::string timelineDigest = store.timelineDigest(package);
    std::string captionsDigest = store.captionsDigest(package);
    std::ostringstream lines;
    for (std::int64_t n = 1; !stopRequested(stop); ++n) {
      timelineDigest = store.commitTimeline(timelineNumber(n), timelineDigest, std::nullopt, package).digest;
      lines << "T " << timelineDigest << ' ' << filmMilliseconds(n) << '\n';
      captionsDigest =
          store.commitCaptions(captionsWithCue("cue" + std::to_string(n)), captionsDigest, timelineDigest, package);
      lines << "C " << captionsDigest << ' ' << "cue" << n << '\n';
    }
    writeFileAtomically(log, lines.str());
  } catch (...) {
    status = 1;
  }
  ::_exit(status);
}

TEST(PreviewSnapshotTest, EveryAnswerReportsTheDigestsOfTheDocumentsItWasComputedFrom) {
  StoreFixture f;
  ProjectPackage package = f.finishedProject();
  const std::string id = f.store.readManifest(package).id.string();
  // What the documents hold before the first commit.
  std::map<std::string, std::int64_t> films{{f.store.timelineDigest(package), 10'000}};
  std::map<std::string, std::string> cues{{ProjectStore::zeroByteDigest, ""}};

  int stop[2];
  ASSERT_EQ(::pipe(stop), 0);
  const fs::path log = f.folder.path() / "committed.txt";
  pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ::close(stop[1]);
    committer(f.store.projectsDirectoryPath(), package, stop[0], log);
  }
  ::close(stop[0]);

  struct Seen {
    std::string digest;
    std::string content;
    const char* answer;
  };
  std::vector<Seen> timelines, captions;
  ProjectCommandService service(f.store);
  CLIMutationRequest preview{id, CLIMutation{CLIMutation::ZoomRemove{std::nullopt, true}}, false, {}};
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (std::chrono::steady_clock::now() < end) {
    auto mutation = service.mutate(preview);
    timelines.push_back(
        {mutation.timelineDigest, std::to_string(mutation.before.sequenceDurationMilliseconds), "zoom-rm"});
    auto description = service.describe(id);
    timelines.push_back(
        {description.timelineDigest, std::to_string(description.sequenceDurationMilliseconds), "describe"});
    auto read = service.readCaptions(id);
    captions.push_back({read.captionsDigest, read.cues.empty() ? "" : read.cues[0].text, "captions-read"});
  }
  ASSERT_EQ(::write(stop[1], "q", 1), 1);
  int status = 0;
  ::waitpid(pid, &status, 0);
  ::close(stop[1]);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

  std::istringstream lines(readFile(log, SIZE_MAX));
  std::string kind, digest, content;
  while (lines >> kind >> digest >> content) {
    if (kind == "T") films[digest] = std::stoll(content);
    if (kind == "C") cues[digest] = content;
  }
  ASSERT_GT(films.size(), 3u) << "the committer hardly ran";

  std::map<std::string, int> distinct;
  for (const auto& seen : timelines) {
    ASSERT_TRUE(films.count(seen.digest)) << seen.answer << " reported a digest nobody committed";
    EXPECT_EQ(std::to_string(films[seen.digest]), seen.content) << seen.answer << " " << seen.digest;
    ++distinct[seen.digest];
  }
  for (const auto& seen : captions) {
    ASSERT_TRUE(cues.count(seen.digest)) << seen.answer << " reported a digest nobody committed";
    EXPECT_EQ(cues[seen.digest], seen.content) << seen.answer << " " << seen.digest;
  }
  EXPECT_GT(distinct.size(), 1u) << "the answers never met a commit";
}

}  // namespace
}  // namespace vumo
