#include "cli/project_command_service.h"

#include <fmt/format.h>

#include <algorithm>

#include "agent/agent_exchange.h"
#include "captions/caption_coverage.h"
#include "cli/project_descriptions.h"
#include "shared/digest.h"
#include "shared/json.h"
#include "timeline/auto_zoom_engine.h"
#include "timeline/timeline_edit_engine.h"
#include "timeline/timeline_effect_engine.h"
#include "timeline/timeline_mapper.h"
#include "timeline/timeline_settings_engine.h"
#include "timeline/timeline_speed_engine.h"
#include "timeline/timeline_validator.h"

namespace vumo {

namespace {

// The shortest text that reads back as the same number: "2" for 2.0, "1.5", "0.25".
std::string shortestDecimal(double value) { return fmt::format("{}", value); }

std::string rangeText(const CLIRange& range) {
  return fmt::format("{},{}", range.startMilliseconds, range.endMilliseconds);
}

std::vector<CLIRange> millisecondRanges(const std::vector<ProjectTimeRange>& ranges) {
  std::vector<CLIRange> out;
  out.reserve(ranges.size());
  for (const auto& r : ranges) out.push_back(CLIRange::from(r));
  return out;
}

std::vector<CLIZoomReconciliationDescription> describeReconciliations(
    const std::vector<ZoomReconciliation>& reconciliations) {
  std::vector<CLIZoomReconciliationDescription> out;
  for (const auto& r : reconciliations)
    out.push_back({r.zoomID.string(), CLIRange::from(r.originalRange), std::string(nameOf(r.action)),
                   millisecondRanges(r.resultingRanges)});
  return out;
}

// The source content that a command-line range names. In the sequence domain it is what plays
// during that stretch of the film, one range per clip it touches.
std::vector<ProjectTimeRange> sourceRanges(const CLIRange& range, CLITimeDomain domain, const TimelineMapper& mapper) {
  if (domain == CLITimeDomain::source) return {range.projectTimeRange()};
  auto ranges = mapper.sourceRanges(range.projectTimeRange());
  if (ranges.empty()) throw TimelineEditError(TimelineEditError::Case::invalidRange);
  return ranges;
}

// A zoom is one contiguous stretch of source. From the sequence domain it runs from the source
// frame shown at the range's start to the source boundary at its end; if a cut lies between, the
// plan engine reports the zoom as outside retained content.
ProjectTimeRange zoomSourceRange(const CLIRange& range, CLITimeDomain domain, const TimelineMapper& mapper) {
  if (domain == CLITimeDomain::source) return range.projectTimeRange();
  auto sequence = range.projectTimeRange();
  auto start = mapper.mappedTimeForSequenceTime(sequence.start);
  auto end = mapper.sourceTimeForSequenceBoundary(sequence.end());
  if (!start || !end || end->nanoseconds <= start->sourceTime.nanoseconds)
    throw TimelineEditError(TimelineEditError::Case::invalidRange);
  return ProjectTimeRange::fromStartEnd(start->sourceTime, *end);
}

std::string segmentNamespace(const EditTimeline& timeline) {
  std::string ids;
  for (const auto& segment : timeline.segments) {
    if (!ids.empty()) ids += ':';
    ids += segment.id.string();
  }
  return ids;
}

const std::vector<std::string>& editPlanInstructions() {
  static const std::vector<std::string> instructions = {
      "把完整Edit Plan Schema 3写入planPath；所有时间为Source milliseconds，范围按describe返回的Source Time填写。",
      "最多500项，只能包含cut、speed、zoom-clear、zoom-reconcile、zoom-add和一组settings；speed倍率为0.50至4.00，步进0."
      "01。",
      "写入后执行edit-plan-"
      "preview预演，向用户报告整批影响并等待明确确认；提交时只执行预演返回的confirmationArguments。",
  };
  return instructions;
}

}  // namespace

ProjectCommandService::LoadedProject ProjectCommandService::load(const std::string& projectID) {
  ProjectPackage package = store_.project(projectID);
  // The snapshot's timeline comes normalised and fully validated (effects included), so a project
  // whose timeline is not acceptable ends here with the validator's error.
  ProjectSnapshot snapshot = store_.loadSnapshot(package);
  return {std::move(package), std::move(snapshot)};
}

std::vector<CLIProjectSummary> ProjectCommandService::list() {
  std::vector<CLIProjectSummary> summaries;
  for (const auto& recent : store_.recentProjects()) {
    ProjectPackage package{recent.packagePath};
    summaries.push_back(ProjectInspector::summary(store_.readManifest(package), package));
  }
  return summaries;
}

CLIProjectDescription ProjectCommandService::describe(const std::string& projectID) {
  auto project = load(projectID);
  return ProjectInspector::describe(project.snapshot, project.snapshot.timelineDigest);
}

CLIHistoryResponse ProjectCommandService::history(const std::string& projectID) {
  ProjectPackage package = store_.project(projectID);
  CLIHistoryResponse response;
  response.projectID = store_.readManifest(package).id.string();
  std::int64_t index = 0;
  for (const auto& entry : store_.timelineHistory(package))
    response.entries.push_back({index++, entry.path.filename().string(), entry.digest});
  return response;
}

CLICaptionReadResponse ProjectCommandService::readCaptions(const std::string& projectID) {
  auto project = load(projectID);
  const auto& snapshot = project.snapshot;
  TimelineMapper mapper(snapshot.timeline, snapshot.manifest.duration);
  CLICaptionReadResponse response;
  response.projectID = snapshot.manifest.id.string();
  response.timelineDigest = snapshot.timelineDigest;
  response.captionsDigest = snapshot.captionsDigest;
  if (!snapshot.captions) {
    response.hint = "当前项目没有字幕，请先执行captions-prepare。";
    return response;
  }
  response.language = snapshot.captions->language;
  response.sourceTrack = std::string(nameOf(snapshot.captions->sourceTrack));
  for (const auto& cue : snapshot.captions->cues)
    response.cues.push_back(ProjectInspector::cueDescription(cue, mapper));
  return response;
}

ProjectCommandService::MutationResult ProjectCommandService::compute(const CLIMutation& mutation,
                                                                     const LoadedProject& project) {
  const ProjectSnapshot& snapshot = project.snapshot;
  const EditTimeline& timeline = snapshot.timeline;
  const ProjectTime duration = snapshot.manifest.duration;
  const bool hasWebcam = snapshot.manifest.webcam.has_value();
  const PixelSize sourceSize = snapshot.manifest.encodedPixelSize;
  TimelineMapper mapper(timeline, duration);

  // Cuts and added zooms go through the plan engine, which reconciles the zooms a cut runs
  // through, picks an added zoom's focus from the clicks, and gives new clips and zooms stable
  // ids, so that a commit repeats its preview exactly.
  auto viaPlan = [&](TimelineEditPlan plan) {
    TimelinePlanResult result =
        TimelinePlanEngine::apply(plan, timeline, duration, hasWebcam, sourceSize, snapshot.mouseEvents);
    return MutationResult{std::move(result.timeline), std::move(result.normalizedCutRanges),
                          std::move(result.zoomReconciliations)};
  };

  return std::visit(
      [&](const auto& m) -> MutationResult {
        using T = std::decay_t<decltype(m)>;
        if constexpr (std::is_same_v<T, CLIMutation::Cut>) {
          TimelineEditPlan plan;
          plan.cuts = sourceRanges(m.range, m.domain, mapper);
          return viaPlan(std::move(plan));
        } else if constexpr (std::is_same_v<T, CLIMutation::Speed>) {
          // Straight to the speed engine: a plan would also insist that every existing zoom lies in
          // retained content, which a speed change does not touch.
          std::vector<TimelineSpeedChange> changes;
          for (const auto& range : sourceRanges(m.range, m.domain, mapper)) changes.push_back({range, m.rate});
          EditTimeline result = TimelineSpeedEngine::applying(changes, timeline, duration).timeline;
          return {TimelinePlanEngine::canonicalSegmentIDs(result, timeline), {}, {}};
        } else if constexpr (std::is_same_v<T, CLIMutation::ZoomAdd>) {
          TimelineEditPlan plan;
          plan.zooms.push_back({zoomSourceRange(m.range, m.domain, mapper), m.level, m.focus});
          return viaPlan(std::move(plan));
        } else if constexpr (std::is_same_v<T, CLIMutation::Settings>) {
          return {TimelineSettingsEngine::applying(m.values, timeline, hasWebcam, sourceSize), {}, {}};
        } else if constexpr (std::is_same_v<T, CLIMutation::ZoomRemove>) {
          if (m.all) return {TimelineEffectEngine::replaceZooms(timeline, {}, duration), {}, {}};
          auto zooms = ProjectInspector::zoomsByStart(timeline);
          if (*m.index >= static_cast<std::int64_t>(zooms.size()))
            throw TimelineEffectError(TimelineEffectError::Case::zoomIndexInvalid);
          return {TimelineEffectEngine::removeZoom(timeline, zooms[static_cast<std::size_t>(*m.index)].id, duration),
                  {},
                  {}};
        } else if constexpr (std::is_same_v<T, CLIMutation::RestoreHistory>) {
          return {store_.historyTimeline(m.index, project.package, duration, hasWebcam), {}, {}};
        } else {
          static_assert(std::is_same_v<T, CLIMutation::ZoomRegenerate>);
          // The project's events as recorded: only a recording session, which saw where each
          // press landed, leaves out the ones outside the source.
          auto zooms = AutoZoomEngine::standard().makeSegments(snapshot.mouseEvents, duration);
          EditTimeline result = TimelineEffectEngine::replaceZooms(timeline, std::move(zooms), duration);
          return {TimelinePlanEngine::canonicalZoomIDs(result, timeline, segmentNamespace(result)), {}, {}};
        }
      },
      mutation.value);
}

CLIMutationResponse ProjectCommandService::mutate(const CLIMutationRequest& request) {
  auto project = load(request.projectID);
  const ProjectTime duration = project.snapshot.manifest.duration;
  MutationResult result = compute(request.mutation, project);
  TimelineValidator::validate(result.timeline, duration);

  CLIMutationResponse response;
  response.projectID = project.snapshot.manifest.id.string();
  response.timelineDigest = project.snapshot.timelineDigest;
  response.before = ProjectInspector::timelineSummary(project.snapshot.timeline, duration);
  response.after = ProjectInspector::timelineSummary(result.timeline, duration);
  response.normalizedCuts = millisecondRanges(result.normalizedCuts);
  response.zoomReconciliations = describeReconciliations(result.zoomReconciliations);

  if (!request.appliesChanges) {
    response.confirmationArguments =
        confirmationArguments(request.mutation, request.projectID, project.snapshot.timelineDigest);
    return response;
  }
  TimelineCommit commit =
      store_.commitTimeline(result.timeline, request.expectedDigest.value_or(""), std::nullopt, project.package);
  response.warnings = std::move(commit.warnings);
  response.applied = true;
  response.resultingDigest = std::move(commit.digest);
  return response;
}

std::vector<std::string> ProjectCommandService::confirmationArguments(const CLIMutation& mutation,
                                                                      const std::string& projectID,
                                                                      const std::string& digest) {
  std::vector<std::string> words = std::visit(
      [&](const auto& m) -> std::vector<std::string> {
        using T = std::decay_t<decltype(m)>;
        if constexpr (std::is_same_v<T, CLIMutation::Cut>) {
          std::vector<std::string> w{"cut", projectID, "--range", rangeText(m.range)};
          if (m.domain == CLITimeDomain::source) w.push_back("--source");
          return w;
        } else if constexpr (std::is_same_v<T, CLIMutation::Speed>) {
          std::vector<std::string> w{"speed-set",        projectID, "--range",
                                     rangeText(m.range), "--rate",  shortestDecimal(m.rate.permille / 1000.0)};
          if (m.domain == CLITimeDomain::source) w.push_back("--source");
          return w;
        } else if constexpr (std::is_same_v<T, CLIMutation::ZoomAdd>) {
          std::vector<std::string> w{"zoom-add",         projectID, "--range",
                                     rangeText(m.range), "--level", shortestDecimal(m.level)};
          if (m.domain == CLITimeDomain::source) w.push_back("--source");
          if (m.focus) {
            w.push_back("--at");
            w.push_back(shortestDecimal(m.focus->x) + "," + shortestDecimal(m.focus->y));
          }
          return w;
        } else if constexpr (std::is_same_v<T, CLIMutation::ZoomRemove>) {
          if (m.all) return {"zoom-rm", projectID, "--all"};
          return {"zoom-rm", projectID, "--index", std::to_string(*m.index)};
        } else if constexpr (std::is_same_v<T, CLIMutation::Settings>) {
          std::vector<std::string> w{"set", projectID};
          for (const auto& [key, value] : m.values) w.push_back(key + "=" + value);  // a std::map is sorted by key
          return w;
        } else if constexpr (std::is_same_v<T, CLIMutation::RestoreHistory>) {
          return {"restore", projectID, "--index", std::to_string(m.index)};
        } else {
          return {"zoom-regen", projectID};
        }
      },
      mutation.value);
  words.insert(words.end(), {"--apply", "--expect", digest});
  return words;
}

CLIEditPlanPreparationResponse ProjectCommandService::prepareEditPlan(const std::string& projectID) {
  auto project = load(projectID);
  const std::string& timelineDigest = project.snapshot.timelineDigest;
  const std::string& captionsDigest = project.snapshot.captionsDigest;
  const Uuid jobID = Uuid::random();
  const auto folder = createEditPlanDirectory(jobID);

  EditPlanJob job;
  job.protocolVersion = EditPlanExchangeDocument::currentProtocolVersion;
  job.id = jobID;
  job.projectID = project.snapshot.manifest.id;
  job.timelineDigest = timelineDigest;
  job.captionsDigest = captionsDigest;
  job.createdAt = Timestamp::now();
  writeExchange(job, folder / "job.json");

  EditPlanExchangeDocument example;
  example.jobID = jobID;
  example.projectID = job.projectID;
  example.timelineDigest = timelineDigest;
  example.captionsDigest = captionsDigest;
  EditPlanOperation cut;
  cut.type = EditPlanOperationType::cut;
  cut.range = EditPlanRange{1000, 2000};
  cut.reason = "删除停顿";
  EditPlanOperation speed;
  speed.type = EditPlanOperationType::speed;
  speed.range = EditPlanRange{3000, 5000};
  speed.rate = 1.5;
  EditPlanOperation zoom;
  zoom.type = EditPlanOperationType::zoomAdd;
  zoom.range = EditPlanRange{6000, 8500};
  zoom.level = 1.8;
  zoom.focusX = 0.4;
  zoom.focusY = 0.5;
  example.operations = {cut, speed, zoom};

  CLIEditPlanPreparationResponse response;
  response.projectID = job.projectID.string();
  response.jobID = jobID.string();
  response.planPath = (folder / "edit-plan.json").string();
  response.timelineDigest = timelineDigest;
  response.captionsDigest = captionsDigest;
  response.example = example;
  response.instructions = editPlanInstructions();
  return response;
}

CLIEditPlanResponse ProjectCommandService::executeEditPlan(const CLIEditPlanRequest& request) {
  auto project = load(request.projectID);
  const ProjectSnapshot& snapshot = project.snapshot;
  const ProjectTime duration = snapshot.manifest.duration;
  const std::string& timelineDigest = snapshot.timelineDigest;
  const std::string& captionsDigest = snapshot.captionsDigest;

  const auto folder = exchangeRootDirectory() / request.jobID.string();
  EditPlanJob job = decodeEditPlanJob(readEditPlanJobData(folder / "job.json"));
  job.verifyCurrent(request.jobID, snapshot.manifest.id, timelineDigest, captionsDigest);

  const std::string planBytes = readEditPlanData(folder / "edit-plan.json");
  const std::string planDigest = sha256Hex(planBytes);
  EditPlanExchangeDocument document = decodeEditPlanDocument(planBytes);
  document.verifyMatches(job);
  if (request.appliesChanges)
    verifyEditPlanConfirmation(request.expectedTimelineDigest.value_or(""), request.expectedCaptionsDigest.value_or(""),
                               request.expectedPlanDigest.value_or(""), timelineDigest, captionsDigest, planDigest);

  TimelineEditPlan plan = document.domainPlan(duration);
  TimelinePlanResult result =
      TimelinePlanEngine::apply(plan, snapshot.timeline, duration, snapshot.manifest.webcam.has_value(),
                                snapshot.manifest.encodedPixelSize, snapshot.mouseEvents);

  CLIEditPlanResponse response;
  response.projectID = snapshot.manifest.id.string();
  response.jobID = request.jobID.string();
  response.timelineDigest = timelineDigest;
  response.captionsDigest = captionsDigest;
  response.planDigest = planDigest;
  response.before = ProjectInspector::timelineSummary(snapshot.timeline, duration);
  response.after = ProjectInspector::timelineSummary(result.timeline, duration);
  std::int64_t index = 0;
  for (const auto& operation : document.operations) response.operations.push_back({index++, operation});
  response.normalizedCuts = millisecondRanges(result.normalizedCutRanges);
  for (const auto& change : result.normalizedSpeedChanges)
    response.normalizedSpeedChanges.push_back(
        {change.range.start.cliMilliseconds(), change.range.end().cliMilliseconds(), change.rate.multiplier()});
  response.zoomReconciliations = describeReconciliations(result.zoomReconciliations);
  CaptionImpact impact =
      captionImpact(snapshot.captions, snapshot.timeline, result.timeline, result.normalizedCutRanges, duration);
  for (const auto& cue : impact.impacts)
    response.captionImpacts.push_back({cue.cueID.string(), std::string(nameOf(cue.kind)),
                                       millisecondRanges(cue.affectedCutRanges), cue.hasWordTimings});
  for (const auto& id : impact.removed) response.fullyRemovedCaptionIDs.push_back(id.string());
  for (const auto& id : impact.split) response.splitCaptionIDs.push_back(id.string());

  if (!request.appliesChanges) {
    response.confirmationArguments =
        std::vector<std::string>{"edit-plan-preview", request.projectID,   "--job",        request.jobID.string(),
                                 "--apply",           "--expect-timeline", timelineDigest, "--expect-captions",
                                 captionsDigest,      "--expect-plan",     planDigest};
    return response;
  }
  // One write, however many operations the plan holds.
  TimelineCommit commit = store_.commitTimeline(result.timeline, *request.expectedTimelineDigest,
                                                request.expectedCaptionsDigest, project.package);
  response.warnings = std::move(commit.warnings);
  response.applied = true;
  response.resultingDigest = std::move(commit.digest);
  return response;
}

}  // namespace vumo
