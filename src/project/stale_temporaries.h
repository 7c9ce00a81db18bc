#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <string_view>

namespace vumo {

// A writer killed before its rename leaves its temporary (shared/files.h, atomicWriteTarget)
// behind for good, so the writers that own a document clear up after the ones that died.

// How long a temporary of a document that someone may write without holding its lock is left
// alone: far longer than any write takes, so a writer still at work never loses its file.
inline constexpr std::chrono::minutes unguardedWriteGrace{10};

// Removes from `folder` the temporaries (regular files only) of the documents `owns` accepts that
// were last modified at least `minimumAge` ago. Best effort: what cannot be removed stays, and a
// missing folder has none. Returns how many were removed.
std::size_t removeStaleTemporaries(const std::filesystem::path& folder,
                                   const std::function<bool(std::string_view document)>& owns,
                                   std::chrono::seconds minimumAge = std::chrono::seconds{0});

}  // namespace vumo
