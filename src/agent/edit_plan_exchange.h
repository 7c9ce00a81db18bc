#pragma once

// The edit plan an agent writes into its job folder, and the job record the program writes beside
// it. An agent never edits a project directly: its document is decoded, checked against the job
// and the project, turned into a TimelineEditPlan and previewed; only the preview's confirmation
// arguments commit it.

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/timeline_plan_engine.h"
#include "shared/date.h"
#include "shared/error.h"
#include "shared/json_fwd.h"
#include "shared/project_time.h"
#include "shared/uuid.h"

namespace vumo {

// Why an edit plan or its job cannot be used. The stale cases mean the project, its captions or
// the plan file changed since the job or the preview; the agent prepares or previews again.
class EditPlanValidationError : public Error {
 public:
  enum class Case {
    invalidDocument,
    invalidOperation,
    staleJob,
    staleCaptions,
    stalePlan,
    documentTooLarge,
  };

  explicit EditPlanValidationError(Case kind);
  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

// A range as the exchange writes it: whole source milliseconds, end excluded.
struct EditPlanRange {
  std::int64_t startMilliseconds = 0;
  std::int64_t endMilliseconds = 0;

  friend bool operator==(const EditPlanRange&, const EditPlanRange&) = default;
};

void to_json(Json& j, const EditPlanRange& range);
void from_json(const Json& j, EditPlanRange& range);

enum class EditPlanOperationType { cut, speed, zoomClear, zoomReconcile, zoomAdd, settings };

template <>
struct EnumNames<EditPlanOperationType> {
  static constexpr std::string_view typeName = "edit plan operation";
  static constexpr NameTable<EditPlanOperationType, 6> table{{
      {EditPlanOperationType::cut, "cut"},
      {EditPlanOperationType::speed, "speed"},
      {EditPlanOperationType::zoomClear, "zoom-clear"},
      {EditPlanOperationType::zoomReconcile, "zoom-reconcile"},
      {EditPlanOperationType::zoomAdd, "zoom-add"},
      {EditPlanOperationType::settings, "settings"},
  }};
};

// One step of a plan. Which of the optional fields an operation needs, and which it must leave
// out, depends on its type; `domainPlan` checks that.
struct EditPlanOperation {
  EditPlanOperationType type = EditPlanOperationType::cut;
  std::optional<EditPlanRange> range;
  std::optional<double> level;
  std::optional<double> rate;
  std::optional<double> focusX;
  std::optional<double> focusY;
  std::optional<std::map<std::string, std::string>> values;
  // Why the agent wants this step; shown in the preview, no effect on the edit.
  std::optional<std::string> reason;

  friend bool operator==(const EditPlanOperation&, const EditPlanOperation&) = default;
};

void to_json(Json& j, const EditPlanOperation& operation);
void from_json(const Json& j, EditPlanOperation& operation);

struct EditPlanJob;

struct EditPlanExchangeDocument {
  // Edit Plan Schema: 1 has cuts, zoom handling and settings; 2 adds `speed`; 3 adds
  // `zoom-reconcile`.
  static constexpr std::int64_t minimumProtocolVersion = 1;
  static constexpr std::int64_t currentProtocolVersion = 3;
  static constexpr std::string_view sourceMillisecondsTimeDomain = "source milliseconds";
  static constexpr std::size_t maximumReasonCharacters = 500;
  static constexpr std::size_t maximumSettingsPairs = 32;

  std::int64_t protocolVersion = currentProtocolVersion;
  Uuid jobID;
  Uuid projectID;
  std::string timelineDigest;
  std::string captionsDigest;
  std::string timeDomain{sourceMillisecondsTimeDomain};
  std::vector<EditPlanOperation> operations;

  // The plan in the engine's terms, source times in nanoseconds. Throws invalidDocument for a
  // schema or time domain it does not know, TimelinePlanError for no or too many operations, and
  // invalidOperation for any operation that breaks its type's rules or the schema's. `reason`
  // has no effect on the plan.
  TimelineEditPlan domainPlan(ProjectTime sourceDuration) const;

  // The preview's checks against the job: another job, project or timeline is staleJob, other
  // captions staleCaptions.
  void verifyMatches(const EditPlanJob& job) const;

  friend bool operator==(const EditPlanExchangeDocument&, const EditPlanExchangeDocument&) = default;
};

// Every key is required on reading.
void to_json(Json& j, const EditPlanExchangeDocument& document);
void from_json(const Json& j, EditPlanExchangeDocument& document);

// Written by `edit-plan-prepare` into the job folder; binds the plan to one state of the project.
struct EditPlanJob {
  std::int64_t protocolVersion = EditPlanExchangeDocument::currentProtocolVersion;
  Uuid id;
  Uuid projectID;
  std::string timelineDigest;
  std::string captionsDigest;
  Timestamp createdAt;

  // The job must be of a known schema, be the requested job, belong to the project and have
  // been prepared from the current timeline (else staleJob) and captions (else staleCaptions).
  void verifyCurrent(const Uuid& requestedJobID, const Uuid& currentProjectID, std::string_view currentTimelineDigest,
                     std::string_view currentCaptionsDigest) const;

  friend bool operator==(const EditPlanJob&, const EditPlanJob&) = default;
};

void to_json(Json& j, const EditPlanJob& job);
void from_json(const Json& j, EditPlanJob& job);

// Decoders of the exchange files: anything that is not such a document is invalidDocument.
EditPlanExchangeDocument decodeEditPlanDocument(std::string_view bytes);
EditPlanJob decodeEditPlanJob(std::string_view bytes);

// A commit repeats the preview only if nothing moved since: a timeline digest that differs from
// the confirmed one is staleJob, captions staleCaptions, the plan file's digest stalePlan.
void verifyEditPlanConfirmation(std::string_view expectedTimelineDigest, std::string_view expectedCaptionsDigest,
                                std::string_view expectedPlanDigest, std::string_view currentTimelineDigest,
                                std::string_view currentCaptionsDigest, std::string_view planDigest);

}  // namespace vumo
