#include "editor/timeline_persistence.h"

#include <algorithm>
#include <exception>
#include <mutex>
#include <utility>

#include "editor/editor_messages.h"
#include "project/project_store_error.h"
#include "shared/error.h"

namespace vumo {

ProjectStoreTimelineWriter::ProjectStoreTimelineWriter(std::optional<std::filesystem::path> projectsDirectory,
                                                       ProjectPackage package)
    : store_(std::move(projectsDirectory)), package_(std::move(package)) {}

std::string ProjectStoreTimelineWriter::replaceTimeline(const EditTimeline& timeline,
                                                        const std::string& expectedDigest) {
  return store_.writeTimeline(timeline, expectedDigest, package_);
}

// Everything the main thread keeps; the answers of saves find it through a weak pointer, so an
// answer that arrives after the project closed is dropped.
struct TimelinePersistence::State {
  TimelinePersistence* owner = nullptr;
  TimelinePersistenceHooks hooks;
  std::string digest;
  std::deque<EditTimeline> waiting;
  bool writing = false;
  bool cancelled = false;
  // The text of the last failure told, until a save lands.
  std::optional<std::string> failureShown;
  // Digests this editor wrote, newest last, recorded by the worker as soon as each file is in
  // place: the watcher may report a save before its answer reaches the main thread, and that echo
  // must not come back as an external edit.
  mutable std::mutex ownMutex;
  std::deque<std::string> ownDigests;
};

namespace {
constexpr std::size_t ownDigestsKept = 64;
}  // namespace

TimelinePersistence::TimelinePersistence(MainLoop& loop, std::unique_ptr<TimelineDocumentWriter> writer,
                                         std::string loadedDigest, TimelinePersistenceHooks hooks)
    : loop_(loop), state_(std::make_shared<State>()), writer_(std::move(writer)) {
  state_->owner = this;
  state_->hooks = std::move(hooks);
  state_->digest = std::move(loadedDigest);
}

TimelinePersistence::~TimelinePersistence() {
  cancel();
  state_->owner = nullptr;
}

void TimelinePersistence::scheduleTimelinePersistence(EditTimeline timeline) {
  if (state_->cancelled) return;
  state_->waiting.push_back(std::move(timeline));
  if (!state_->writing) startNext();
}

const std::string& TimelinePersistence::lastKnownTimelineDigest() const { return state_->digest; }

void TimelinePersistence::adoptLoadedDigest(std::string digest) { state_->digest = std::move(digest); }

bool TimelinePersistence::isOwnSave(const std::string& digest) const {
  std::lock_guard lock(state_->ownMutex);
  return std::find(state_->ownDigests.begin(), state_->ownDigests.end(), digest) != state_->ownDigests.end();
}

std::size_t TimelinePersistence::outstandingSaves() const { return state_->waiting.size() + (state_->writing ? 1 : 0); }

void TimelinePersistence::cancel() {
  state_->cancelled = true;
  state_->waiting.clear();
  stop_.request_stop();
}

void TimelinePersistence::startNext() {
  if (state_->cancelled || state_->waiting.empty()) return;
  // The expected digest is read now, on the main thread, after the answer of the save before has
  // been taken: each save expects what the one before it wrote.
  EditTimeline timeline = std::move(state_->waiting.front());
  state_->waiting.pop_front();
  state_->writing = true;
  MainLoop& loop = loop_;
  TimelineDocumentWriter* writer = writer_.get();
  std::weak_ptr<State> weak = state_;
  worker_.enqueue(
      [&loop, writer, weak, stop = stop_.get_token(), timeline = std::move(timeline), expected = state_->digest] {
        if (stop.stop_requested()) return;
        std::optional<std::string> digest;
        bool conflict = false;
        std::string failure;
        try {
          digest = writer->replaceTimeline(timeline, expected);
          if (auto state = weak.lock()) {
            std::lock_guard lock(state->ownMutex);
            state->ownDigests.push_back(*digest);
            if (state->ownDigests.size() > ownDigestsKept) state->ownDigests.pop_front();
          }
        } catch (const ProjectStoreError& error) {
          conflict = error.kind() == ProjectStoreError::Case::timelineDigestConflict;
          failure = error.what();
        } catch (const std::exception& error) {
          failure = error.what();
        } catch (...) {
          failure = "unknown failure";
        }
        loop.post([weak, digest = std::move(digest), conflict, failure = std::move(failure)]() mutable {
          if (auto state = weak.lock()) finish(state, std::move(digest), conflict, std::move(failure));
        });
      });
}

void TimelinePersistence::finish(const std::shared_ptr<State>& state, std::optional<std::string> digest, bool conflict,
                                 std::string failure) {
  state->writing = false;
  if (state->cancelled || !state->owner) return;
  if (digest) {
    state->digest = *digest;
    state->failureShown.reset();
    if (state->hooks.saved) state->hooks.saved(*digest);
  } else if (conflict) {
    if (state->hooks.reloadExternalTimeline) state->hooks.reloadExternalTimeline();
  } else if (state->failureShown != failure) {
    state->failureShown = failure;
    if (state->hooks.showMessage)
      state->hooks.showMessage(editorMessageText(EditorMessageID::saveTimelineFailed, failure));
  }
  // A hook may have closed the project.
  if (state->owner && !state->writing) state->owner->startNext();
}

}  // namespace vumo
