#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "project/chunk_store.h"
#include "project/folder_listing.h"
#include "shared/error.h"
#include "shared/files.h"

namespace vumo {

std::string ChunkFiles::fileName(std::uint64_t index) { return fmt::format("{:06}.json", index); }

std::vector<std::filesystem::path> ChunkFiles::existingChunkPaths(const std::filesystem::path& directory) {
  return visibleFilesWithExtension(directory, ".json");
}

std::uint64_t ChunkFiles::nextIndex(const std::filesystem::path& directory) {
  std::uint64_t next = 0;
  for (const auto& path : existingChunkPaths(directory)) {
    std::string stem = path.stem().string();
    if (stem.empty() || stem.size() > 19 || stem.find_first_not_of("0123456789") != std::string::npos) continue;
    std::uint64_t index = std::stoull(stem);
    if (index + 1 > next) next = index + 1;
  }
  return next;
}

void ChunkFiles::write(const std::filesystem::path& directory, std::uint64_t index, std::string_view bytes) {
  auto active = directory / "active.tmp";
  auto final = directory / fileName(index);
  writeFileAtomically(active, bytes);
  // rename() replaces an existing chunk of the same name in one step.
  if (std::rename(active.c_str(), final.c_str()) != 0)
    throw FileError(fmt::format("Could not write {}: {}", final.string(), std::strerror(errno)));
}

}  // namespace vumo
