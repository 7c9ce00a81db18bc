#include "agent/edit_plan_exchange.h"

#include <gtest/gtest.h>

#include <string>

#include "shared/json.h"
#include "support/builders.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using namespace vumo::testing;
using Case = EditPlanValidationError::Case;

const ProjectTime kSource = ms(60'000);
const char* kJob = "6F1B2E2C-3C4B-4D8E-9F00-112233445566";
const char* kProject = "0A1B2C3D-4E5F-4061-8273-94A5B6C7D8E9";

Json documentWith(std::int64_t schema, Json operations) {
  return Json{{"protocolVersion", schema},
              {"jobID", kJob},
              {"projectID", kProject},
              {"timelineDigest", std::string(64, 'a')},
              {"captionsDigest", std::string(64, 'b')},
              {"timeDomain", "source milliseconds"},
              {"operations", std::move(operations)}};
}

Json rangeJson(std::int64_t start, std::int64_t end) {
  return Json{{"startMilliseconds", start}, {"endMilliseconds", end}};
}

EditPlanExchangeDocument decoded(const Json& document) { return decodeEditPlanDocument(encodeDocument(document)); }

// ---------------------------------------------------------------------------------------------
// Decoding

TEST(EditPlanExchangeDocument, DecodesEveryFieldAndEncodesBackToTheSameJSON) {
  Json document = documentWith(3, Json::array({
                                      Json{{"type", "cut"}, {"range", rangeJson(1'000, 2'000)}, {"reason", "pause"}},
                                      Json{{"type", "speed"}, {"range", rangeJson(3'000, 4'000)}, {"rate", 1.5}},
                                      Json{{"type", "zoom-reconcile"}},
                                      Json{{"type", "zoom-add"},
                                           {"range", rangeJson(5'000, 7'000)},
                                           {"level", 1.8},
                                           {"focusX", 0.25},
                                           {"focusY", 0.75}},
                                      Json{{"type", "settings"}, {"values", {{"canvas.aspect", "9:16"}}}},
                                  }));
  EditPlanExchangeDocument plan = decoded(document);
  EXPECT_EQ(plan.protocolVersion, 3);
  EXPECT_EQ(plan.jobID.string(), kJob);
  EXPECT_EQ(plan.projectID.string(), kProject);
  ASSERT_EQ(plan.operations.size(), 5u);
  EXPECT_EQ(plan.operations[0].type, EditPlanOperationType::cut);
  EXPECT_EQ(plan.operations[0].reason, "pause");
  EXPECT_EQ(plan.operations[2].type, EditPlanOperationType::zoomReconcile);
  EXPECT_EQ(plan.operations[3].focusY, 0.75);
  EXPECT_EQ(Json(plan), document);
}

TEST(EditPlanExchangeDocument, EveryTopLevelKeyIsRequired) {
  Json complete = documentWith(3, Json::array({Json{{"type", "zoom-clear"}}}));
  for (const char* key :
       {"protocolVersion", "jobID", "projectID", "timelineDigest", "captionsDigest", "timeDomain", "operations"}) {
    Json document = complete;
    document.erase(key);
    EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { decoded(document); }), Case::invalidDocument) << key;
  }
}

TEST(EditPlanExchangeDocument, MalformedDocumentsAreInvalidDocuments) {
  const std::vector<std::string> texts = {
      "",
      "not json",
      "[]",
      R"({"protocolVersion": "3"})",
      encodeDocument(documentWith(3, Json::array({Json{{"type", "trim"}}}))),
      encodeDocument(documentWith(
          3, Json::array({Json{{"type", "cut"}, {"range", {{"startMilliseconds", 1.5}, {"endMilliseconds", 9}}}}}))),
      encodeDocument(documentWith(3, Json::array({Json{{"type", "settings"}, {"values", {{"cursor.scale", 2}}}}}))),
      encodeDocument(documentWith(3, Json::array({Json{{"type", "settings"}, {"values", Json::array({"a", "b"})}}}))),
      encodeDocument(documentWith(3, Json::object())),
  };
  for (const std::string& text : texts)
    EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { decodeEditPlanDocument(text); }),
              Case::invalidDocument)
        << text;
}

// ---------------------------------------------------------------------------------------------
// The domain plan

TEST(EditPlanExchangeDocument, DomainPlanFillsListsInDocumentOrderInNanoseconds) {
  Json document = documentWith(2, Json::array({
                                      Json{{"type", "cut"}, {"range", rangeJson(9'000, 9'500)}},
                                      Json{{"type", "zoom-add"}, {"range", rangeJson(20'000, 22'000)}, {"level", 9.0}},
                                      Json{{"type", "cut"}, {"range", rangeJson(1'000, 1'017)}, {"reason", "um"}},
                                      Json{{"type", "speed"}, {"range", rangeJson(30'000, 40'000)}, {"rate", 2}},
                                      Json{{"type", "zoom-clear"}},
                                      Json{{"type", "settings"}, {"values", {{"b", "2"}, {"a", "1"}}}},
                                  }));
  TimelineEditPlan plan = decoded(document).domainPlan(kSource);
  EXPECT_EQ(plan.cuts, (std::vector<ProjectTimeRange>{rangeMs(9'000, 9'500), rangeMs(1'000, 1'017)}));
  EXPECT_EQ(plan.speedChanges,
            (std::vector<TimelineSpeedChange>{{rangeMs(30'000, 40'000), TimelinePlaybackRate{2000}}}));
  ASSERT_EQ(plan.zooms.size(), 1u);
  EXPECT_EQ(plan.zooms[0].scale, 9.0);  // the engine clamps, not the reader
  EXPECT_FALSE(plan.zooms[0].focus.has_value());
  EXPECT_TRUE(plan.clearsZooms);
  EXPECT_FALSE(plan.reconcilesZooms);
  EXPECT_EQ(plan.settings, (std::map<std::string, std::string>{{"a", "1"}, {"b", "2"}}));
  EXPECT_EQ(plan.operationCount(), 6u);
}

TEST(EditPlanExchangeDocument, UnknownSchemaOrTimeDomainIsAnInvalidDocument) {
  Json operations = Json::array({Json{{"type", "zoom-clear"}}});
  for (std::int64_t schema : {0, 4, -1})
    EXPECT_EQ(testing::thrownCase<EditPlanValidationError>(
                  [&] { decoded(documentWith(schema, operations)).domainPlan(kSource); }),
              Case::invalidDocument);
  Json document = documentWith(3, operations);
  document["timeDomain"] = "sequence milliseconds";
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { decoded(document).domainPlan(kSource); }),
            Case::invalidDocument);
}

TEST(EditPlanExchangeDocument, OperationCountLimitsComeFromThePlanEngine) {
  EXPECT_THROW(decoded(documentWith(3, Json::array())).domainPlan(kSource), TimelinePlanError);
  Json many = Json::array();
  for (int i = 0; i < 501; ++i) many.push_back(Json{{"type", "cut"}, {"range", rangeJson(i * 100, i * 100 + 50)}});
  EXPECT_ERROR_CASE(decoded(documentWith(3, many)).domainPlan(kSource), TimelinePlanError,
                    TimelinePlanError::Case::tooManyOperations);
}

struct OperationCase {
  const char* name;
  std::int64_t schema;
  Json operations;
  bool accepted;
};

void PrintTo(const OperationCase& c, std::ostream* out) { *out << c.name; }

class EditPlanOperationRules : public ::testing::TestWithParam<OperationCase> {};

TEST_P(EditPlanOperationRules, AcceptOrRefuse) {
  const OperationCase& c = GetParam();
  EditPlanExchangeDocument document = decoded(documentWith(c.schema, c.operations));
  if (c.accepted) {
    EXPECT_NO_THROW(document.domainPlan(kSource));
  } else {
    EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { document.domainPlan(kSource); }),
              Case::invalidOperation);
  }
}

Json op(Json fields) { return Json::array({std::move(fields)}); }
Json cut(std::int64_t start, std::int64_t end) { return Json{{"type", "cut"}, {"range", rangeJson(start, end)}}; }
Json withField(Json operation, const char* key, Json value) {
  operation[key] = std::move(value);
  return operation;
}
Json settingsWith(int pairs) {
  Json values = Json::object();
  for (int i = 0; i < pairs; ++i) values["key" + std::to_string(i)] = "1";
  return Json{{"type", "settings"}, {"values", values}};
}
Json speed(double rate) { return Json{{"type", "speed"}, {"range", rangeJson(1'000, 2'000)}, {"rate", rate}}; }
Json zoomAdd() { return Json{{"type", "zoom-add"}, {"range", rangeJson(1'000, 3'000)}, {"level", 1.8}}; }

std::string repeated(const std::string& piece, int count) {
  std::string text;
  for (int i = 0; i < count; ++i) text += piece;
  return text;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, EditPlanOperationRules,
    ::testing::Values(
        // Ranges
        OperationCase{"CutOf16msRefused", 1, op(cut(1'000, 1'016)), false},
        OperationCase{"CutOf17msAccepted", 1, op(cut(1'000, 1'017)), true},
        OperationCase{"NegativeStartRefused", 1, op(cut(-10, 1'000)), false},
        OperationCase{"EndBeforeStartRefused", 1, op(cut(2'000, 1'000)), false},
        OperationCase{"EndAtSourceEndAccepted", 1, op(cut(59'000, 60'000)), true},
        OperationCase{"EndPastSourceRefused", 1, op(cut(59'000, 60'001)), false},
        OperationCase{"HugeEndRefused", 1, op(cut(0, INT64_MAX)), false},
        OperationCase{"CutWithoutRangeRefused", 1, op(Json{{"type", "cut"}}), false},
        OperationCase{"CutWithLevelRefused", 1, op(withField(cut(0, 1'000), "level", 2)), false},
        OperationCase{"CutWithValuesRefused", 1, op(withField(cut(0, 1'000), "values", Json::object())), false},
        // Speed and the schema that brought it
        OperationCase{"SpeedInSchema1Refused", 1, op(speed(2.0)), false},
        OperationCase{"SpeedInSchema2Accepted", 2, op(speed(2.0)), true},
        OperationCase{"SpeedRateOffTheStepRefused", 3, op(speed(1.005)), false},
        OperationCase{"SpeedRateAboveFourRefused", 3, op(speed(4.01)), false},
        OperationCase{"SpeedRateHalfAccepted", 3, op(speed(0.5)), true},
        OperationCase{"SpeedWithoutRateRefused", 3, op(Json{{"type", "speed"}, {"range", rangeJson(0, 1'000)}}), false},
        OperationCase{"SpeedWithFocusRefused", 3, op(withField(speed(2.0), "focusX", 0.5)), false},
        // Zoom clearing and reconciling
        OperationCase{"ZoomReconcileInSchema2Refused", 2, op(Json{{"type", "zoom-reconcile"}}), false},
        OperationCase{"ZoomReconcileInSchema3Accepted", 3, op(Json{{"type", "zoom-reconcile"}}), true},
        OperationCase{"ZoomClearTwiceRefused", 3,
                      Json::array({Json{{"type", "zoom-clear"}}, Json{{"type", "zoom-clear"}}}), false},
        OperationCase{"ZoomReconcileTwiceRefused", 3,
                      Json::array({Json{{"type", "zoom-reconcile"}}, Json{{"type", "zoom-reconcile"}}}), false},
        OperationCase{"ClearAfterReconcileRefused", 3,
                      Json::array({Json{{"type", "zoom-reconcile"}}, Json{{"type", "zoom-clear"}}}), false},
        OperationCase{"ReconcileAfterClearRefused", 3,
                      Json::array({Json{{"type", "zoom-clear"}}, Json{{"type", "zoom-reconcile"}}}), false},
        OperationCase{"ZoomClearWithRangeRefused", 3, op(Json{{"type", "zoom-clear"}, {"range", rangeJson(0, 1'000)}}),
                      false},
        // Adding zooms
        OperationCase{"ZoomAddAccepted", 1, op(zoomAdd()), true},
        OperationCase{"ZoomAddWithoutLevelRefused", 1, op(Json{{"type", "zoom-add"}, {"range", rangeJson(0, 1'000)}}),
                      false},
        OperationCase{"FocusXWithoutFocusYRefused", 1, op(withField(zoomAdd(), "focusX", 0.5)), false},
        OperationCase{"FocusYWithoutFocusXRefused", 1, op(withField(zoomAdd(), "focusY", 0.5)), false},
        OperationCase{"FocusAtTheEdgesAccepted", 1, op(withField(withField(zoomAdd(), "focusX", 0.0), "focusY", 1.0)),
                      true},
        OperationCase{"FocusOutsideTheFrameRefused", 1,
                      op(withField(withField(zoomAdd(), "focusX", 1.1), "focusY", 0.5)), false},
        OperationCase{"ZoomAddWithRateRefused", 3, op(withField(zoomAdd(), "rate", 1.0)), false},
        // Settings
        OperationCase{"ThirtyTwoPairsAccepted", 1, op(settingsWith(32)), true},
        OperationCase{"ThirtyThreePairsRefused", 1, op(settingsWith(33)), false},
        OperationCase{"EmptySettingsRefused", 1, op(settingsWith(0)), false},
        OperationCase{"TwoSettingsOperationsRefused", 1, Json::array({settingsWith(1), settingsWith(1)}), false},
        OperationCase{"SettingsWithRangeRefused", 1, op(withField(settingsWith(1), "range", rangeJson(0, 1'000))),
                      false},
        // Reasons count user-perceived characters
        OperationCase{"ReasonOf500CharactersAccepted", 1, op(withField(cut(0, 1'000), "reason", repeated("剪", 500))),
                      true},
        OperationCase{"ReasonOf501CharactersRefused", 1, op(withField(cut(0, 1'000), "reason", repeated("a", 501))),
                      false},
        OperationCase{"ReasonOf500FlagsAccepted", 1,
                      op(withField(cut(0, 1'000), "reason", repeated("\U0001F1E8\U0001F1F3", 500))), true}),
    [](const ::testing::TestParamInfo<OperationCase>& info) { return std::string(info.param.name); });

TEST(EditPlanExchangeDocument, EndLimitIsTheSourceInWholeMilliseconds) {
  ProjectTime source{10'000'900'000};  // 10,000.9 ms
  EXPECT_NO_THROW(decoded(documentWith(1, op(cut(9'000, 10'000)))).domainPlan(source));
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>(
                [&] { decoded(documentWith(1, op(cut(9'000, 10'001)))).domainPlan(source); }),
            Case::invalidOperation);
}

TEST(EditPlanExchangeDocument, ReasonHasNoEffectOnThePlan) {
  Json with = documentWith(1, op(withField(cut(1'000, 2'000), "reason", "silence")));
  Json without = documentWith(1, op(cut(1'000, 2'000)));
  EXPECT_EQ(decoded(with).domainPlan(kSource), decoded(without).domainPlan(kSource));
}

// ---------------------------------------------------------------------------------------------
// Job record and the stale checks

EditPlanJob sampleJob() {
  EditPlanJob job;
  job.id = *Uuid::parse(kJob);
  job.projectID = *Uuid::parse(kProject);
  job.timelineDigest = std::string(64, 'a');
  job.captionsDigest = std::string(64, 'b');
  job.createdAt = *Timestamp::parseISO8601("2026-11-21T23:22:49Z");
  return job;
}

TEST(EditPlanJob, IsWrittenWithSchema3AndAnISO8601DateAndReadsBack) {
  EditPlanJob job = sampleJob();
  Json encoded = job;
  EXPECT_EQ(encoded["protocolVersion"], 3);
  EXPECT_EQ(encoded["createdAt"], "2026-11-21T23:22:49Z");
  EXPECT_EQ(encoded["id"], kJob);
  EXPECT_EQ(encoded.size(), 6u);
  EXPECT_EQ(decodeEditPlanJob(encodeDocument(encoded)), job);

  for (const char* key : {"protocolVersion", "id", "projectID", "timelineDigest", "captionsDigest", "createdAt"}) {
    Json broken = encoded;
    broken.erase(key);
    EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { decodeEditPlanJob(encodeDocument(broken)); }),
              Case::invalidDocument)
        << key;
  }
  encoded["createdAt"] = "yesterday";
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { decodeEditPlanJob(encodeDocument(encoded)); }),
            Case::invalidDocument);
}

TEST(EditPlanJob, StaleChecksNameWhatChanged) {
  EditPlanJob job = sampleJob();
  Uuid id = job.id;
  Uuid project = job.projectID;
  std::string timeline(64, 'a');
  std::string captions(64, 'b');
  EXPECT_NO_THROW(job.verifyCurrent(id, project, timeline, captions));
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>(
                [&] { job.verifyCurrent(Uuid::random(), project, timeline, captions); }),
            Case::staleJob);
  EXPECT_EQ(
      testing::thrownCase<EditPlanValidationError>([&] { job.verifyCurrent(id, Uuid::random(), timeline, captions); }),
      Case::staleJob);
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>(
                [&] { job.verifyCurrent(id, project, std::string(64, 'c'), captions); }),
            Case::staleJob);
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>(
                [&] { job.verifyCurrent(id, project, timeline, std::string(64, 'c')); }),
            Case::staleCaptions);
  EditPlanJob future = job;
  future.protocolVersion = 4;
  EXPECT_EQ(
      testing::thrownCase<EditPlanValidationError>([&] { future.verifyCurrent(id, project, timeline, captions); }),
      Case::staleJob);

  EditPlanExchangeDocument document = decoded(documentWith(3, op(cut(0, 1'000))));
  EXPECT_NO_THROW(document.verifyMatches(job));
  document.captionsDigest = "other";
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { document.verifyMatches(job); }), Case::staleCaptions);
  document.jobID = Uuid::random();
  EXPECT_EQ(testing::thrownCase<EditPlanValidationError>([&] { document.verifyMatches(job); }), Case::staleJob);

  EXPECT_NO_THROW(verifyEditPlanConfirmation("t", "c", "p", "t", "c", "p"));
  EXPECT_EQ(
      testing::thrownCase<EditPlanValidationError>([] { verifyEditPlanConfirmation("t", "c", "p", "t2", "c", "p"); }),
      Case::staleJob);
  EXPECT_EQ(
      testing::thrownCase<EditPlanValidationError>([] { verifyEditPlanConfirmation("t", "c", "p", "t", "c2", "p"); }),
      Case::staleCaptions);
  EXPECT_EQ(
      testing::thrownCase<EditPlanValidationError>([] { verifyEditPlanConfirmation("t", "c", "p", "t", "c", "p2"); }),
      Case::stalePlan);
}

}  // namespace
}  // namespace vumo
