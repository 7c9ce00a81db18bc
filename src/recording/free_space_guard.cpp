#include "recording/free_space_guard.h"

#include <sys/statvfs.h>

namespace vumo {

namespace {

using Storage = RecordingStorageError::Case;
constexpr ErrorCase<Storage> storageCases[] = {
    {Storage::insufficientFreeSpace, "insufficientFreeSpace", "recording.error.insufficientFreeSpace",
     "Not enough free disk space to record. At least 1 GiB must be free in the projects folder ({}).", "execution",
     ErrorKind::failure},
};
static_assert(inCaseOrder(storageCases));

}  // namespace

RecordingStorageError::RecordingStorageError(Case kind, std::string_view folder)
    : Error(catalogue(), kind, folder), kind_(kind) {}

const ErrorCatalogue<RecordingStorageError::Case>& RecordingStorageError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"RecordingStorageError", "RecordingErrors", storageCases};
  return catalogue;
}

std::optional<std::uint64_t> availableBytes(const std::filesystem::path& folder) {
  struct statvfs info {};
  if (::statvfs(folder.c_str(), &info) != 0) return std::nullopt;
  return std::uint64_t(info.f_bavail) * std::uint64_t(info.f_frsize);
}

FreeSpaceGuard::FreeSpaceGuard(std::filesystem::path folder, Settings settings)
    : folder_(std::move(folder)), settings_(std::move(settings)) {
  if (!settings_.probe) settings_.probe = availableBytes;
}

bool FreeSpaceGuard::short_() const {
  const std::optional<std::uint64_t> available = settings_.probe(folder_);
  return available && *available < settings_.minimumBytes;
}

void FreeSpaceGuard::requireRoomToStart() const {
  if (short_()) throw RecordingStorageError(RecordingStorageError::Case::insufficientFreeSpace, folder_.string());
}

bool FreeSpaceGuard::ranShort(Clock::time_point now) {
  if (ranShort_) return true;
  if (lastCheck_ && now - *lastCheck_ < settings_.checkInterval) return false;
  lastCheck_ = now;
  ranShort_ = short_();
  return ranShort_;
}

}  // namespace vumo
