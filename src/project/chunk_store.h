#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "project/serial_work_queue.h"
#include "shared/files.h"
#include "shared/json.h"
#include "shared/project_time.h"

namespace vumo {

// The file side of chunk stores, shared by every record type.
struct ChunkFiles {
  // "000000.json", "000001.json", ...; past six digits the number simply grows.
  static std::string fileName(std::uint64_t index);
  // The visible `.json` files of a folder sorted by name. A missing folder is empty; one that
  // cannot be listed is a FileError.
  static std::vector<std::filesystem::path> existingChunkPaths(const std::filesystem::path& directory);
  // One past the highest numbered chunk in the folder, so a store reopened on a folder continues
  // the numbering instead of overwriting.
  static std::uint64_t nextIndex(const std::filesystem::path& directory);
  // Writes `active.tmp` atomically and renames it to the chunk's name. A crash in between leaves
  // `active.tmp`, which no reader looks at.
  static void write(const std::filesystem::path& directory, std::uint64_t index, std::string_view bytes);
};

// Spills a high-rate stream of records (pointer events, geometry, cursor shapes) to small
// numbered JSON files as it arrives, so that a crash loses at most one chunk's worth: a chunk is
// closed at `maximumCount` records or once the stream has advanced `maximumSpan` past the
// chunk's first record (record time, not wall time). `append` never touches the disk: encoding
// and writing happen on the store's own serial I/O thread, which also keeps chunks in index order.
// The first failed write is latched; from then on `append` and `flush` throw it.
template <class Record>
class ChunkStore {
 public:
  using TimeProvider = std::function<ProjectTime(const Record&)>;

  ChunkStore(std::filesystem::path directory, std::size_t maximumCount, ProjectTime maximumSpan,
             TimeProvider timeProvider)
      : directory_(std::move(directory)),
        maximumCount_(maximumCount == 0 ? 1 : maximumCount),
        maximumSpanNanoseconds_(maximumSpan.nanoseconds),
        timeProvider_(std::move(timeProvider)) {
    createDirectories(directory_);
    nextIndex_ = ChunkFiles::nextIndex(directory_);
    buffer_.reserve(maximumCount_);
  }

  // Records still buffered when the store is dropped without `flush` are lost, as in a crash;
  // chunks already handed to the I/O thread are written before the destructor returns.
  ~ChunkStore() = default;
  ChunkStore(const ChunkStore&) = delete;
  ChunkStore& operator=(const ChunkStore&) = delete;

  void append(Record record) {
    std::lock_guard guard(lock_);
    if (writeError_) std::rethrow_exception(writeError_);
    ProjectTime time = timeProvider_(record);
    if (!firstTime_) firstTime_ = time;
    buffer_.push_back(std::move(record));
    std::int64_t span = 0;
    bool spanReached = !trySub(time.nanoseconds, firstTime_->nanoseconds, span) || span >= maximumSpanNanoseconds_;
    if (buffer_.size() >= maximumCount_ || spanReached) scheduleCommitLocked();
  }

  // Called as a recording's clock advances, so that a quiet stream still reaches the disk: raises
  // a latched write failure, and hands the buffered records to the I/O thread once `now` is
  // `maximumSpan` past the first of them. Never waits for the disk.
  void commitIfDue(ProjectTime now) {
    std::lock_guard guard(lock_);
    if (writeError_) std::rethrow_exception(writeError_);
    if (!firstTime_) return;
    std::int64_t age = 0;
    if (!trySub(now.nanoseconds, firstTime_->nanoseconds, age) || age >= maximumSpanNanoseconds_)
      scheduleCommitLocked();
  }

  // Writes out what is buffered and waits until every chunk so far is on disk.
  void flush() {
    {
      std::lock_guard guard(lock_);
      if (writeError_) std::rethrow_exception(writeError_);
      scheduleCommitLocked();
    }
    ioQueue_.waitUntilIdle();
    std::lock_guard guard(lock_);
    if (writeError_) std::rethrow_exception(writeError_);
  }

  const std::filesystem::path& directory() const { return directory_; }

  static std::vector<std::filesystem::path> existingChunkPaths(const std::filesystem::path& directory) {
    return ChunkFiles::existingChunkPaths(directory);
  }

 private:
  void scheduleCommitLocked() {
    if (buffer_.empty()) return;
    std::uint64_t index = nextIndex_++;
    std::vector<Record> batch;
    batch.reserve(maximumCount_);
    batch.swap(buffer_);  // the buffer keeps a full-size allocation for the next chunk
    firstTime_.reset();
    ioQueue_.enqueue([this, index, records = std::move(batch)]() noexcept { writeChunk(index, records); });
  }

  void writeChunk(std::uint64_t index, const std::vector<Record>& records) noexcept {
    try {
      Json array = Json::array();
      for (const Record& r : records) array.push_back(r);
      ChunkFiles::write(directory_, index, encodeCompact(array));
    } catch (...) {
      std::lock_guard guard(lock_);
      if (!writeError_) writeError_ = std::current_exception();
    }
  }

  std::mutex lock_;
  std::filesystem::path directory_;
  std::size_t maximumCount_;
  std::int64_t maximumSpanNanoseconds_;
  TimeProvider timeProvider_;
  std::vector<Record> buffer_;
  std::optional<ProjectTime> firstTime_;
  std::uint64_t nextIndex_ = 0;
  std::exception_ptr writeError_;
  // Last member: destroyed first, so queued writes finish while the rest is still alive.
  SerialWorkQueue ioQueue_;
};

// The recording's standard limits: 500 records or two seconds per chunk.
inline constexpr std::size_t standardChunkMaximumCount = 500;
inline constexpr ProjectTime standardChunkMaximumSpan{2'000'000'000};

}  // namespace vumo
