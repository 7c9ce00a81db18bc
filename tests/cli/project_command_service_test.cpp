// The command service in process, on projects built for one question each.

#include "cli/project_command_service.h"

#include <gtest/gtest.h>

#include "project/chunk_store.h"
#include "project/project_fixtures.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using project_testing::StoreFixture;

MouseEvent leftPress(std::int64_t milliseconds, std::optional<bool> insideSource) {
  MouseEvent event;
  event.time = ProjectTime::fromMilliseconds(milliseconds);
  event.normalizedPoint = {0.5, 0.5};
  event.button = MouseButton::left;
  event.phase = MousePhase::down;
  event.isInsideSource = insideSource;
  return event;
}

void writeEvents(const ProjectPackage& package, const std::vector<MouseEvent>& events) {
  ChunkStore<MouseEvent> chunks(package.mouseEventsDirectory(), standardChunkMaximumCount, standardChunkMaximumSpan,
                                [](const MouseEvent& e) { return e.time; });
  for (const auto& event : events) chunks.append(event);
  chunks.flush();
}

TEST(ProjectCommandServiceTest, RegeneratedZoomsCountEveryRecordedPressWhereverItLanded) {
  testing::ScopedDataHome home;
  StoreFixture fixture;
  ProjectPackage package = fixture.finishedProject();
  // Three presses far apart: inside, of unknown place, and outside the recorded source. A recording
  // session leaves the last out when it makes the first zooms; regenerating later works from the
  // project's events as they are.
  writeEvents(package, {leftPress(1'000, true), leftPress(4'000, std::nullopt), leftPress(7'000, false)});
  ProjectCommandService service(fixture.store);
  const std::string id = fixture.store.readManifest(package).id.string();

  CLIMutationRequest request{id, CLIMutation{CLIMutation::ZoomRegenerate{}}, false, std::nullopt};
  CLIMutationResponse preview = service.mutate(request);
  EXPECT_EQ(preview.after.zoomCount, 3);
  EXPECT_FALSE(preview.applied);
}

}  // namespace
}  // namespace vumo
