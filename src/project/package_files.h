#pragma once

// What the store's parts share about packages on disk: how their folders are named, how a path is
// judged, and how a document is read so that its digest and its content come from the same bytes.
// Internal to the project area; callers go through ProjectStore.

#include <cstddef>
#include <filesystem>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>

#include "captions/caption_document.h"
#include "project/project_manifest.h"
#include "project/project_package.h"
#include "shared/project_time.h"
#include "timeline/edit_timeline.h"

namespace vumo::package_files {

// SHA-256 of no bytes: the digest of a document that has no file.
inline constexpr const char* zeroByteDigest = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

inline constexpr std::string_view finishedSuffix = ".vumo";
inline constexpr std::string_view unfinishedSuffix = ".vumo.tmp";
inline constexpr std::string_view discardingSuffix = ".vumo.discarding";

bool endsWith(std::string_view text, std::string_view suffix);

// Absolute, without "." and ".." components and without a trailing separator. Symbolic links
// are left alone: a link is judged by where it stands, not by where it points.
std::filesystem::path standardized(const std::filesystem::path& path);
// The folder with its links resolved where it exists, else standardized.
std::filesystem::path resolvedFolder(const std::filesystem::path& folder);
bool isDirectory(const std::filesystem::path& path);

void removeAllOrThrow(const std::filesystem::path& path);
void renameOrThrow(const std::filesystem::path& from, const std::filesystem::path& to);

// The file's bytes (a regular file of at most `maximumBytes`), or none when nothing is at the
// path. Any other failure is a FileError.
std::optional<std::string> readIfExists(const std::filesystem::path& path, std::size_t maximumBytes);
// Of the bytes, or zeroByteDigest without them.
std::string digestOf(const std::optional<std::string>& bytes);

ProjectManifest readManifest(const ProjectPackage& package);

// A document read once: the bytes, their digest, and (for captions) what they decode to. Whoever
// reports a digest next to content takes both from one of these, never from two reads.
struct TimelineFile {
  std::optional<std::string> bytes;
  std::string digest;
};
struct CaptionsFile {
  std::optional<std::string> bytes;
  std::optional<CaptionDocument> document;  // decoded, not validated
  std::string digest;
};

TimelineFile readTimelineFile(const ProjectPackage& package);
// `stop` is checked before the document is decoded; an existing file must decode.
CaptionsFile readCaptionsFile(const ProjectPackage& package, const std::stop_token& stop = {});

// Decoded (the default timeline without bytes), normalised and validated. `stop` is checked
// before decoding.
EditTimeline acceptedTimeline(const std::optional<std::string>& bytes, ProjectTime sourceDuration, bool hasWebcam,
                              const std::stop_token& stop = {});

}  // namespace vumo::package_files
