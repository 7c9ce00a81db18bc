#include "project/project_store_error.h"

namespace vumo {

namespace {

using Case = ProjectStoreError::Case;

constexpr ErrorCase<Case> errorCases[] = {
    {Case::projectNotFound, "projectNotFound", "editor.store.notFound", "Project not found: {}", "project_not_found",
     ErrorKind::projectNotFound},
    {Case::ambiguousProjectPrefix, "ambiguousProjectPrefix", "editor.store.ambiguousPrefix",
     "The project ID prefix is not unique: {}", "project_not_found", ErrorKind::projectNotFound},
    {Case::timelineDigestConflict, "timelineDigestConflict", "editor.store.timelineConflict",
     "Another process modified the timeline. Preview the changes again before committing.", "timeline_conflict",
     ErrorKind::conflict},
    {Case::historyNotFound, "historyNotFound", "editor.store.historyMissing", "History version not found: {}",
     "validation", ErrorKind::validation},
    {Case::captionsDigestConflict, "captionsDigestConflict", "editor.store.captionsConflict",
     "Another process modified the captions. Preview the changes again before committing.", "captions_conflict",
     ErrorKind::conflict},
    {Case::invalidProjectLocation, "invalidProjectLocation", "editor.store.invalidLocation",
     "Deletion refused: the project is outside the Vumo projects folder.", "project_store", ErrorKind::failure},
    {Case::timelineLockUnavailable, "timelineLockUnavailable", "editor.store.lockUnavailable",
     "The timeline could not be locked for commit.", "project_store", ErrorKind::failure},
};
static_assert(inCaseOrder(errorCases));

}  // namespace

ProjectStoreError::ProjectStoreError(Case kind, std::string_view payload)
    : Error(catalogue(), kind, payload), kind_(kind) {}

ProjectStoreError ProjectStoreError::projectNotFound(const std::string& text) {
  ProjectStoreError e(Case::projectNotFound, text);
  e.text_ = text;
  return e;
}

ProjectStoreError ProjectStoreError::ambiguousProjectPrefix(const std::string& text) {
  ProjectStoreError e(Case::ambiguousProjectPrefix, text);
  e.text_ = text;
  return e;
}

ProjectStoreError ProjectStoreError::timelineDigestConflict(const std::string& expected, const std::string& actual) {
  ProjectStoreError e(Case::timelineDigestConflict);
  e.expected_ = expected;
  e.actual_ = actual;
  return e;
}

ProjectStoreError ProjectStoreError::historyNotFound(std::int64_t index) {
  ProjectStoreError e(Case::historyNotFound, std::to_string(index));
  e.index_ = index;
  return e;
}

ProjectStoreError ProjectStoreError::captionsDigestConflict(const std::string& expected, const std::string& actual) {
  ProjectStoreError e(Case::captionsDigestConflict);
  e.expected_ = expected;
  e.actual_ = actual;
  return e;
}

ProjectStoreError ProjectStoreError::invalidProjectLocation() {
  return ProjectStoreError(Case::invalidProjectLocation);
}

ProjectStoreError ProjectStoreError::timelineLockUnavailable() {
  return ProjectStoreError(Case::timelineLockUnavailable);
}

const ErrorCatalogue<Case>& ProjectStoreError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"ProjectStoreError", "Editor", errorCases};
  return catalogue;
}

}  // namespace vumo
