#include "project/project_store_error.h"

namespace vumo {

ProjectStoreError::ProjectStoreError(Case kind, const char* key, const std::string& text)
    : Error(key, "Editor", text), kind_(kind) {}

ProjectStoreError ProjectStoreError::projectNotFound(const std::string& text) {
  ProjectStoreError e(Case::projectNotFound, "editor.store.notFound", "Project not found: " + text);
  e.text_ = text;
  return e;
}

ProjectStoreError ProjectStoreError::ambiguousProjectPrefix(const std::string& text) {
  ProjectStoreError e(Case::ambiguousProjectPrefix, "editor.store.ambiguousPrefix",
                      "The project ID prefix is not unique: " + text);
  e.text_ = text;
  return e;
}

ProjectStoreError ProjectStoreError::timelineDigestConflict(const std::string& expected, const std::string& actual) {
  ProjectStoreError e(Case::timelineDigestConflict, "editor.store.timelineConflict",
                      "Another process modified the timeline. Preview the changes again before committing.");
  e.expected_ = expected;
  e.actual_ = actual;
  return e;
}

ProjectStoreError ProjectStoreError::historyNotFound(std::int64_t index) {
  ProjectStoreError e(Case::historyNotFound, "editor.store.historyMissing",
                      "History version not found: " + std::to_string(index));
  e.index_ = index;
  return e;
}

ProjectStoreError ProjectStoreError::captionsDigestConflict(const std::string& expected, const std::string& actual) {
  ProjectStoreError e(Case::captionsDigestConflict, "editor.store.captionsConflict",
                      "Another process modified the captions. Preview the changes again before committing.");
  e.expected_ = expected;
  e.actual_ = actual;
  return e;
}

ProjectStoreError ProjectStoreError::invalidProjectLocation() {
  return ProjectStoreError(Case::invalidProjectLocation, "editor.store.invalidLocation",
                           "Deletion refused: the project is outside the Vumo projects folder.");
}

ProjectStoreError ProjectStoreError::timelineLockUnavailable() {
  return ProjectStoreError(Case::timelineLockUnavailable, "editor.store.lockUnavailable",
                           "The timeline could not be locked for commit.");
}

ErrorClassification ProjectStoreError::classification() const {
  switch (kind_) {
    case Case::projectNotFound:
    case Case::ambiguousProjectPrefix:
      return {"project_not_found", ErrorKind::projectNotFound};
    case Case::timelineDigestConflict:
      return {"timeline_conflict", ErrorKind::conflict};
    case Case::captionsDigestConflict:
      return {"captions_conflict", ErrorKind::conflict};
    case Case::historyNotFound:
      return {"validation", ErrorKind::validation};
    case Case::invalidProjectLocation:
    case Case::timelineLockUnavailable:
      return {"project_store", ErrorKind::failure};
  }
  return Error::classification();
}

}  // namespace vumo
