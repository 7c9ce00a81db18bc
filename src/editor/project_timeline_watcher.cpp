#include "editor/project_timeline_watcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

namespace vumo {

namespace {

constexpr ErrorCase<ProjectTimelineWatcherError::Case> watcherCases[] = {
    {ProjectTimelineWatcherError::Case::watchDirectory, "watchDirectory", "editor.external.watchDirectory",
     "The project editing folder could not be monitored.", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(watcherCases));

// Only a document landing or going counts: the store's atomic writes create and close hidden
// temporaries before renaming them over the document, and its lock files are opened and closed for
// every commit.
constexpr std::uint32_t documentEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM;
// The folder itself removed or renamed (the watch is gone after IN_IGNORED), or events lost to an
// overflowing queue: the documents may have changed, so these count too.
constexpr std::uint32_t folderEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_Q_OVERFLOW;

bool namesDocument(const inotify_event& event) {
  if (event.len == 0) return false;
  const std::string_view name(event.name, ::strnlen(event.name, event.len));
  return name == "timeline.json" || name == "captions.json";
}

// Reads every event now queued; whether any of them counts.
bool drainEvents(int inotifyDescriptor) {
  alignas(inotify_event) char buffer[16 * 1024];
  bool counts = false;
  for (;;) {
    const ssize_t length = ::read(inotifyDescriptor, buffer, sizeof buffer);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return counts;  // EAGAIN: the queue is empty
    for (ssize_t offset = 0; offset + static_cast<ssize_t>(sizeof(inotify_event)) <= length;) {
      // The kernel pads each name so that the next event is aligned again.
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
      if ((event->mask & folderEvents) != 0 || ((event->mask & documentEvents) != 0 && namesDocument(*event)))
        counts = true;
      offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
}

void closeDescriptor(int& descriptor) {
  if (descriptor >= 0) ::close(descriptor);
  descriptor = -1;
}

}  // namespace

const ErrorCatalogue<ProjectTimelineWatcherError::Case>& ProjectTimelineWatcherError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"ProjectTimelineWatcherError", "Editor", watcherCases};
  return catalogue;
}

ProjectTimelineWatcher::ProjectTimelineWatcher(MainLoop& loop) : loop_(loop) {}

ProjectTimelineWatcher::~ProjectTimelineWatcher() { stop(); }

void ProjectTimelineWatcher::start(const std::filesystem::path& directory, std::function<void()> onChange) {
  stop();
  int inotifyDescriptor = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (inotifyDescriptor < 0) throw ProjectTimelineWatcherError();
  // Only a real folder is watched: a planted link or file in its place is refused.
  if (::inotify_add_watch(inotifyDescriptor, directory.c_str(),
                          documentEvents | folderEvents | IN_ONLYDIR | IN_DONT_FOLLOW) < 0) {
    closeDescriptor(inotifyDescriptor);
    throw ProjectTimelineWatcherError();
  }
  int stopDescriptor = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (stopDescriptor < 0) {
    closeDescriptor(inotifyDescriptor);
    throw ProjectTimelineWatcherError();
  }

  inotifyDescriptor_ = inotifyDescriptor;
  stopDescriptor_ = stopDescriptor;
  onChange_ = std::move(onChange);
  watchToken_ = std::make_shared<int>(0);
  std::weak_ptr<int> token = watchToken_;
  try {
    reader_ = std::thread(
        [this, token, inotifyDescriptor, stopDescriptor] { readEvents(token, inotifyDescriptor, stopDescriptor); });
  } catch (const std::system_error&) {
    stop();
    throw ProjectTimelineWatcherError();
  }
}

void ProjectTimelineWatcher::readEvents(const std::weak_ptr<int>& token, int inotifyDescriptor, int stopDescriptor) {
  pollfd descriptors[2] = {{stopDescriptor, POLLIN, 0}, {inotifyDescriptor, POLLIN, 0}};
  for (;;) {
    // No time-out: the stop descriptor wakes the thread the moment `stop` wants it gone.
    if (::poll(descriptors, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (descriptors[0].revents != 0) return;
    if ((descriptors[1].revents & (POLLERR | POLLNVAL)) != 0) return;
    if (drainEvents(inotifyDescriptor))
      loop_.post([this, token] {
        if (token.lock()) eventArrived();
      });
  }
}

void ProjectTimelineWatcher::stop() {
  if (reloadTimer_) loop_.cancel(*reloadTimer_);
  reloadTimer_.reset();
  watchToken_.reset();
  if (reader_.joinable()) {
    const std::uint64_t one = 1;
    while (::write(stopDescriptor_, &one, sizeof one) < 0 && errno == EINTR) {
    }
    reader_.join();
  }
  closeDescriptor(inotifyDescriptor_);
  closeDescriptor(stopDescriptor_);
  onChange_ = nullptr;
}

void ProjectTimelineWatcher::eventArrived() {
  // Debounce by cancellation: each event starts the wait again, so a burst gives one reload after
  // its last event.
  if (reloadTimer_) loop_.cancel(*reloadTimer_);
  reloadTimer_ = loop_.schedule(debounce, [this] {
    reloadTimer_.reset();
    // A copy: the action may stop or restart this watcher.
    auto onChange = onChange_;
    if (onChange) onChange();
  });
}

}  // namespace vumo
