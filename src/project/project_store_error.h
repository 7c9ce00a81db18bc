#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "shared/error.h"

namespace vumo {

// Failures of the project store that callers tell apart: a missing or ambiguous project, a stale
// digest (someone else committed first), a bad location, a lock that could not be taken.
class ProjectStoreError : public Error {
 public:
  enum class Case {
    projectNotFound,
    ambiguousProjectPrefix,
    timelineDigestConflict,
    historyNotFound,
    captionsDigestConflict,
    invalidProjectLocation,
    timelineLockUnavailable,
  };

  static ProjectStoreError projectNotFound(const std::string& text);
  static ProjectStoreError ambiguousProjectPrefix(const std::string& text);
  static ProjectStoreError timelineDigestConflict(const std::string& expected, const std::string& actual);
  static ProjectStoreError historyNotFound(std::int64_t index);
  static ProjectStoreError captionsDigestConflict(const std::string& expected, const std::string& actual);
  static ProjectStoreError invalidProjectLocation();
  static ProjectStoreError timelineLockUnavailable();

  Case kind() const noexcept { return kind_; }
  // The prefix or text of projectNotFound / ambiguousProjectPrefix.
  const std::string& text() const noexcept { return text_; }
  // The digests of the two conflict cases.
  const std::string& expectedDigest() const noexcept { return expected_; }
  const std::string& actualDigest() const noexcept { return actual_; }
  std::int64_t historyIndex() const noexcept { return index_; }

  static const ErrorCatalogue<Case>& catalogue();

 private:
  explicit ProjectStoreError(Case kind, std::string_view payload = {});

  Case kind_;
  std::string text_;
  std::string expected_;
  std::string actual_;
  std::int64_t index_ = 0;
};

}  // namespace vumo
