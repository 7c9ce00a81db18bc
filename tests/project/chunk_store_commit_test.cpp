#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "project/chunk_store.h"
#include "project/cursor_records.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using Store = ChunkStore<CursorShapeSample>;

ProjectTime sampleTime(const CursorShapeSample& sample) { return sample.time; }

std::size_t chunksAfterAWhile(const std::filesystem::path& folder, std::size_t expected) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (Store::existingChunkPaths(folder).size() < expected && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return Store::existingChunkPaths(folder).size();
}

TEST(ChunkStoreCommitIfDue, AQuietStreamReachesTheDiskOnceTheSpanHasPassed) {
  testing::TemporaryDirectory folder;
  Store store(folder.path() / "chunks", 500, ProjectTime{2'000'000'000}, sampleTime);
  store.commitIfDue(ProjectTime{5'000'000'000});  // nothing buffered: nothing to do
  store.append({ProjectTime{1'000'000'000}, "a"});
  store.commitIfDue(ProjectTime{2'999'999'999});
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(Store::existingChunkPaths(folder.path() / "chunks").size(), 0u);
  store.commitIfDue(ProjectTime{3'000'000'000});
  EXPECT_EQ(chunksAfterAWhile(folder.path() / "chunks", 1), 1u);
}

TEST(ChunkStoreCommitIfDue, RaisesALatchedWriteFailure) {
  testing::TemporaryDirectory folder;
  Store store(folder.path() / "chunks", 1, ProjectTime{2'000'000'000}, sampleTime);
  std::filesystem::remove_all(folder.path() / "chunks");
  store.append({ProjectTime{0}, "a"});  // a full chunk: handed to the I/O thread, whose write fails
  EXPECT_ANY_THROW(store.flush());
  EXPECT_ANY_THROW(store.commitIfDue(ProjectTime{0}));
}

}  // namespace
}  // namespace vumo
