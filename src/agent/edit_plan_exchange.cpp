#include "agent/edit_plan_exchange.h"

#include <cmath>

#include "shared/json.h"
#include "shared/name_table.h"
#include "timeline/edit_timeline.h"
#include "timeline/grapheme_clusters.h"

namespace vumo {

namespace {

using Case = EditPlanValidationError::Case;

constexpr ErrorCase<Case> errorCases[] = {
    {Case::invalidDocument, "invalidDocument", "editPlan.error.invalidDocument", "Edit Plan Schema 1/2/3文档无效。",
     "validation", ErrorKind::validation},
    {Case::invalidOperation, "invalidOperation", "editPlan.error.invalidOperation",
     "Edit Plan包含无效或互相冲突的操作。", "validation", ErrorKind::validation},
    {Case::staleJob, "staleJob", "editPlan.error.staleJob", "Edit Plan任务与当前项目或Timeline不一致，请重新准备。",
     "edit_plan_conflict", ErrorKind::conflict},
    {Case::staleCaptions, "staleCaptions", "editPlan.error.staleCaptions", "字幕内容已变化，请重新生成剪辑计划。",
     "edit_plan_conflict", ErrorKind::conflict},
    {Case::stalePlan, "stalePlan", "editPlan.error.stalePlan", "Edit Plan文件已变化，请重新预演。",
     "edit_plan_conflict", ErrorKind::conflict},
    {Case::documentTooLarge, "documentTooLarge", "editPlan.error.documentTooLarge", "Edit Plan文件超过1MB安全上限。",
     "validation", ErrorKind::validation},
};
static_assert(inCaseOrder(errorCases));

[[noreturn]] void fail(Case kind) { throw EditPlanValidationError(kind); }

constexpr std::int64_t nanosecondsPerMillisecond = 1'000'000;
// The shortest range an operation may name: one 60 fps frame, rounded up to whole milliseconds.
constexpr std::int64_t minimumRangeMilliseconds = 17;

std::map<std::string, std::string> decodeStringDictionary(const Json& value) {
  json::requireObject(value, "values");
  std::map<std::string, std::string> values;
  for (auto item = value.begin(); item != value.end(); ++item)
    values[item.key()] = json::asString(item.value(), item.key());
  return values;
}

// Checks one operation of a document against its type's rules; every breach is invalidOperation.
class OperationReader {
 public:
  OperationReader(std::int64_t schema, ProjectTime sourceDuration)
      : schema_(schema), sourceMilliseconds_(sourceDuration.nanoseconds / nanosecondsPerMillisecond) {}

  void read(const EditPlanOperation& operation, TimelineEditPlan& plan) {
    if (operation.reason &&
        GraphemeClusterCounter().exceeds(*operation.reason, EditPlanExchangeDocument::maximumReasonCharacters))
      fail(Case::invalidOperation);
    switch (operation.type) {
      case EditPlanOperationType::cut:
        requireAbsent(operation.level, operation.rate, operation.focusX, operation.focusY, operation.values);
        plan.cuts.push_back(sourceRange(operation));
        return;
      case EditPlanOperationType::speed: {
        requireSchema(2);
        requireAbsent(operation.level, operation.focusX, operation.focusY, operation.values);
        if (!operation.rate) fail(Case::invalidOperation);
        auto rate = TimelinePlaybackRate::fromMultiplier(*operation.rate);
        if (!rate) fail(Case::invalidOperation);
        plan.speedChanges.push_back({sourceRange(operation), *rate});
        return;
      }
      case EditPlanOperationType::zoomClear:
        requireNoFields(operation);
        if (plan.clearsZooms || plan.reconcilesZooms) fail(Case::invalidOperation);
        plan.clearsZooms = true;
        return;
      case EditPlanOperationType::zoomReconcile:
        requireSchema(3);
        requireNoFields(operation);
        if (plan.clearsZooms || plan.reconcilesZooms) fail(Case::invalidOperation);
        plan.reconcilesZooms = true;
        return;
      case EditPlanOperationType::zoomAdd: {
        requireAbsent(operation.rate, operation.values);
        if (!operation.level || !std::isfinite(*operation.level)) fail(Case::invalidOperation);
        if (operation.focusX.has_value() != operation.focusY.has_value()) fail(Case::invalidOperation);
        PlannedZoom zoom{sourceRange(operation), *operation.level, std::nullopt};
        if (operation.focusX)
          zoom.focus = PointValue{unitCoordinate(*operation.focusX), unitCoordinate(*operation.focusY)};
        plan.zooms.push_back(zoom);
        return;
      }
      case EditPlanOperationType::settings:
        if (sawSettings_) fail(Case::invalidOperation);
        sawSettings_ = true;
        requireAbsent(operation.range, operation.level, operation.rate, operation.focusX, operation.focusY);
        if (!operation.values || operation.values->empty() ||
            operation.values->size() > EditPlanExchangeDocument::maximumSettingsPairs)
          fail(Case::invalidOperation);
        plan.settings.insert(operation.values->begin(), operation.values->end());
        return;
    }
    fail(Case::invalidOperation);
  }

 private:
  template <class... Fields>
  static void requireAbsent(const Fields&... fields) {
    if ((fields.has_value() || ...)) fail(Case::invalidOperation);
  }

  static void requireNoFields(const EditPlanOperation& operation) {
    requireAbsent(operation.range, operation.level, operation.rate, operation.focusX, operation.focusY,
                  operation.values);
  }

  void requireSchema(std::int64_t minimum) const {
    if (schema_ < minimum) fail(Case::invalidOperation);
  }

  static double unitCoordinate(double value) {
    if (!std::isfinite(value) || value < 0 || value > 1) fail(Case::invalidOperation);
    return value;
  }

  // The operation's range in source nanoseconds: present, not negative, at least 17 ms and
  // ending within the recording (counted in whole milliseconds).
  ProjectTimeRange sourceRange(const EditPlanOperation& operation) const {
    if (!operation.range) fail(Case::invalidOperation);
    const EditPlanRange& range = *operation.range;
    std::int64_t length;
    if (range.startMilliseconds < 0 || !trySub(range.endMilliseconds, range.startMilliseconds, length) ||
        length < minimumRangeMilliseconds || range.endMilliseconds > sourceMilliseconds_)
      fail(Case::invalidOperation);
    // Bounded by the source duration above, so the products fit.
    return {{range.startMilliseconds * nanosecondsPerMillisecond}, {length * nanosecondsPerMillisecond}};
  }

  std::int64_t schema_;
  std::int64_t sourceMilliseconds_;
  bool sawSettings_ = false;
};

template <class Decode>
auto decodedOrInvalid(std::string_view bytes, Decode decode) {
  try {
    return decode(parseJson(bytes));
  } catch (const DecodingError&) {
    fail(Case::invalidDocument);
  } catch (const nlohmann::json::exception&) {
    fail(Case::invalidDocument);
  }
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Errors

EditPlanValidationError::EditPlanValidationError(Case kind) : Error(catalogue(), kind), kind_(kind) {}

const ErrorCatalogue<Case>& EditPlanValidationError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"EditPlanValidationError", "EditorAgent", errorCases};
  return catalogue;
}

// ---------------------------------------------------------------------------------------------
// JSON

void to_json(Json& j, const EditPlanRange& range) {
  j = Json::object();
  j["startMilliseconds"] = range.startMilliseconds;
  j["endMilliseconds"] = range.endMilliseconds;
}

void from_json(const Json& j, EditPlanRange& range) {
  json::requireObject(j, "range");
  range.startMilliseconds = json::required<std::int64_t>(j, "startMilliseconds");
  range.endMilliseconds = json::required<std::int64_t>(j, "endMilliseconds");
}

void to_json(Json& j, const EditPlanOperation& operation) {
  j = Json::object();
  j["type"] = operation.type;
  json::setOptional(j, "range", operation.range);
  json::setOptional(j, "level", operation.level);
  json::setOptional(j, "rate", operation.rate);
  json::setOptional(j, "focusX", operation.focusX);
  json::setOptional(j, "focusY", operation.focusY);
  json::setOptional(j, "values", operation.values);
  json::setOptional(j, "reason", operation.reason);
}

void from_json(const Json& j, EditPlanOperation& operation) {
  json::requireObject(j, "operations");
  operation.type = json::required<EditPlanOperationType>(j, "type");
  operation.range = json::optional<EditPlanRange>(j, "range");
  operation.level = json::optional<double>(j, "level");
  operation.rate = json::optional<double>(j, "rate");
  operation.focusX = json::optional<double>(j, "focusX");
  operation.focusY = json::optional<double>(j, "focusY");
  operation.values.reset();
  if (const Json* values = json::findKey(j, "values"); values != nullptr && !values->is_null())
    operation.values = decodeStringDictionary(*values);
  operation.reason = json::optional<std::string>(j, "reason");
}

void to_json(Json& j, const EditPlanExchangeDocument& document) {
  j = Json::object();
  j["protocolVersion"] = document.protocolVersion;
  j["jobID"] = document.jobID;
  j["projectID"] = document.projectID;
  j["timelineDigest"] = document.timelineDigest;
  j["captionsDigest"] = document.captionsDigest;
  j["timeDomain"] = document.timeDomain;
  Json operations = Json::array();
  for (const EditPlanOperation& operation : document.operations) operations.push_back(operation);
  j["operations"] = std::move(operations);
}

void from_json(const Json& j, EditPlanExchangeDocument& document) {
  json::requireObject(j, "document");
  document.protocolVersion = json::required<std::int64_t>(j, "protocolVersion");
  document.jobID = json::required<Uuid>(j, "jobID");
  document.projectID = json::required<Uuid>(j, "projectID");
  document.timelineDigest = json::required<std::string>(j, "timelineDigest");
  document.captionsDigest = json::required<std::string>(j, "captionsDigest");
  document.timeDomain = json::required<std::string>(j, "timeDomain");
  const Json& operations = json::requireKey(j, "operations");
  json::requireArray(operations, "operations");
  document.operations.clear();
  document.operations.reserve(operations.size());
  for (const Json& operation : operations) {
    EditPlanOperation decoded;
    from_json(operation, decoded);
    document.operations.push_back(std::move(decoded));
  }
}

void to_json(Json& j, const EditPlanJob& job) {
  j = Json::object();
  j["protocolVersion"] = job.protocolVersion;
  j["id"] = job.id;
  j["projectID"] = job.projectID;
  j["timelineDigest"] = job.timelineDigest;
  j["captionsDigest"] = job.captionsDigest;
  j["createdAt"] = job.createdAt;
}

void from_json(const Json& j, EditPlanJob& job) {
  json::requireObject(j, "job");
  job.protocolVersion = json::required<std::int64_t>(j, "protocolVersion");
  job.id = json::required<Uuid>(j, "id");
  job.projectID = json::required<Uuid>(j, "projectID");
  job.timelineDigest = json::required<std::string>(j, "timelineDigest");
  job.captionsDigest = json::required<std::string>(j, "captionsDigest");
  job.createdAt = json::required<Timestamp>(j, "createdAt");
}

EditPlanExchangeDocument decodeEditPlanDocument(std::string_view bytes) {
  return decodedOrInvalid(bytes, [](const Json& value) { return value.get<EditPlanExchangeDocument>(); });
}

EditPlanJob decodeEditPlanJob(std::string_view bytes) {
  return decodedOrInvalid(bytes, [](const Json& value) { return value.get<EditPlanJob>(); });
}

// ---------------------------------------------------------------------------------------------
// Domain plan and the checks around it

TimelineEditPlan EditPlanExchangeDocument::domainPlan(ProjectTime sourceDuration) const {
  if (protocolVersion < minimumProtocolVersion || protocolVersion > currentProtocolVersion ||
      timeDomain != sourceMillisecondsTimeDomain)
    fail(Case::invalidDocument);
  if (operations.empty()) throw TimelinePlanError::empty();
  if (operations.size() > TimelinePlanEngine::maximumOperations) throw TimelinePlanError::tooManyOperations();

  TimelineEditPlan plan;
  OperationReader reader(protocolVersion, sourceDuration);
  for (const EditPlanOperation& operation : operations) reader.read(operation, plan);
  return plan;
}

void EditPlanExchangeDocument::verifyMatches(const EditPlanJob& job) const {
  if (jobID != job.id || projectID != job.projectID || timelineDigest != job.timelineDigest) fail(Case::staleJob);
  if (captionsDigest != job.captionsDigest) fail(Case::staleCaptions);
}

void EditPlanJob::verifyCurrent(const Uuid& requestedJobID, const Uuid& currentProjectID,
                                std::string_view currentTimelineDigest, std::string_view currentCaptionsDigest) const {
  if (protocolVersion < EditPlanExchangeDocument::minimumProtocolVersion ||
      protocolVersion > EditPlanExchangeDocument::currentProtocolVersion || id != requestedJobID ||
      projectID != currentProjectID || timelineDigest != currentTimelineDigest)
    fail(Case::staleJob);
  if (captionsDigest != currentCaptionsDigest) fail(Case::staleCaptions);
}

void verifyEditPlanConfirmation(std::string_view expectedTimelineDigest, std::string_view expectedCaptionsDigest,
                                std::string_view expectedPlanDigest, std::string_view currentTimelineDigest,
                                std::string_view currentCaptionsDigest, std::string_view planDigest) {
  if (expectedTimelineDigest != currentTimelineDigest) fail(Case::staleJob);
  if (expectedCaptionsDigest != currentCaptionsDigest) fail(Case::staleCaptions);
  if (expectedPlanDigest != planDigest) fail(Case::stalePlan);
}

}  // namespace vumo
