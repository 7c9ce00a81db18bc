// The user's saved sets of requirements: what a save accepts, what a load gives back, and that
// two programs saving at once never leave a mixture behind.

#include "agent/agent_editing_template_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "project/project_snapshot.h"
#include "shared/files.h"
#include "shared/json.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using ID = AgentEditingCapabilityID;
using Case = AgentEditingTemplateStoreError::Case;

Timestamp at(std::string_view iso) { return *Timestamp::parseISO8601(iso); }

AgentEditingTemplate named(std::string name, std::string_view updated = "2026-03-01T10:00:00Z") {
  AgentEditingTemplate editingTemplate;
  editingTemplate.id = Uuid::random();
  editingTemplate.name = std::move(name);
  editingTemplate.createdAt = at("2026-01-01T00:00:00Z");
  editingTemplate.updatedAt = at(updated);
  return editingTemplate;
}

std::string repeated(std::string_view unit, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += unit;
  return text;
}

TEST(AgentEditingTemplateStore, SavesAndLoadsNewestFirstWithTrimmedNames) {
  testing::ScopedDataHome home;
  AgentEditingTemplateStore store;
  EXPECT_EQ(store.filePath(), home.path() / "Vumo" / "AgentEditingTemplates.json");
  EXPECT_TRUE(store.load().empty());  // no file yet

  AgentEditingTemplate older = named("  Talks \n", "2026-02-01T08:00:00Z");
  older.preset = AgentEditingPreset::talkingHead;
  older.capabilityIDs = {"remove-pauses", "future-capability"};
  older.capabilityInstructions = {{"remove-pauses", "Only over 2 s"}};
  older.options = {AgentEditingAspectRatio::portrait, AgentEditingClickStyle::ring, AgentEditingWebcamShape::circle};
  older.additionalInstructions = "简体中文说明";
  AgentEditingTemplate newer = named("Tutorials", "2026-03-05T09:30:00Z");
  store.save({older, newer});

  std::vector<AgentEditingTemplate> loaded = store.load();
  older.name = "Talks";
  EXPECT_EQ(loaded, (std::vector<AgentEditingTemplate>{newer, older}));

  // The document as written: schema 1, keys sorted, dates in ISO 8601, no preset key without one.
  Json document = parseJson(readFile(store.filePath(), 1 << 20));
  EXPECT_EQ(document.at("schemaVersion"), 1);
  EXPECT_EQ(document.at("templates").at(0).at("updatedAt"), "2026-02-01T08:00:00Z");
  EXPECT_EQ(document.at("templates").at(0).at("options").at("clickStyle"), "ring");
  EXPECT_FALSE(document.at("templates").at(1).contains("preset"));
}

TEST(AgentEditingTemplateStore, SaveRefusesWhatIsOverTheLimitsAndWritesNothing) {
  testing::ScopedDataHome home;
  AgentEditingTemplateStore store;
  const auto withAdditional = [](std::string text) {
    AgentEditingTemplate t = named("Fine");
    t.additionalInstructions = std::move(text);
    return t;
  };
  const auto withInstruction = [](std::string text) {
    AgentEditingTemplate t = named("Fine");
    t.capabilityIDs = {"add-zooms"};
    t.capabilityInstructions = {{"add-zooms", std::move(text)}};
    return t;
  };
  struct Row {
    const char* name;
    std::vector<AgentEditingTemplate> templates;
    std::optional<Case> expected;
  };
  const std::vector<Row> rows = {
      {"50 templates", std::vector<AgentEditingTemplate>(50, named("Same")), std::nullopt},
      {"51 templates", std::vector<AgentEditingTemplate>(51, named("Same")), Case::tooManyTemplates},
      {"a name of 40 characters", {named(std::string(40, 'n'))}, std::nullopt},
      {"40 flags, each one character", {named(repeated("🇨🇳", 40))}, std::nullopt},
      {"a name of 41 characters", {named(std::string(41, 'n'))}, Case::invalidName},
      {"41 characters after trimming", {named("  " + std::string(41, 'n') + "  ")}, Case::invalidName},
      {"a blank name", {named(" \t\n")}, Case::invalidName},
      {"4,000 characters overall", {withAdditional(repeated("字", 4'000))}, std::nullopt},
      {"4,001 characters overall", {withAdditional(std::string(4'001, 'a'))}, Case::instructionsTooLong},
      {"500 for a capability", {withInstruction(std::string(500, 'a'))}, std::nullopt},
      {"501 for a capability", {withInstruction(std::string(501, 'a'))}, Case::capabilityInstructionTooLong},
  };
  for (const auto& row : rows) {
    std::filesystem::remove(store.filePath());
    EXPECT_EQ(testing::thrownCase<AgentEditingTemplateStoreError>([&] { store.save(row.templates); }), row.expected)
        << row.name;
    EXPECT_EQ(std::filesystem::exists(store.filePath()), !row.expected) << row.name;
  }
  EXPECT_EQ(AgentEditingTemplateStoreError(Case::tooManyTemplates).message(),
            "You can save up to 50 AI editing templates.");
}

TEST(AgentEditingTemplateStore, AFileItCannotUseIsAnErrorAndStaysAsItIs) {
  testing::ScopedDataHome home;
  AgentEditingTemplateStore store;
  std::filesystem::create_directories(store.filePath().parent_path());
  const auto write = [&](const std::string& bytes) { std::ofstream(store.filePath(), std::ios::binary) << bytes; };

  write("{\"schemaVersion\":1,\"templates\":[{\"id\":");
  EXPECT_THROW(store.load(), DecodingError);
  EXPECT_EQ(readFile(store.filePath(), 1 << 20), "{\"schemaVersion\":1,\"templates\":[{\"id\":");

  write(R"({"schemaVersion":1,"templates":[{"name":"No id"}]})");
  EXPECT_THROW(store.load(), DecodingError);

  write(R"({"schemaVersion":2,"templates":[]})");
  try {
    store.load();
    ADD_FAILURE() << "a later schema was read";
  } catch (const AgentEditingTemplateStoreError& error) {
    EXPECT_EQ(error.kind(), Case::unsupportedSchema);
    EXPECT_STREQ(error.what(), "Unsupported template file version: 2");
  }

  // A hand-edited file is held to the limits of a save.
  Json tooLong = {{"schemaVersion", 1}, {"templates", Json::array({named(std::string(41, 'x'))})}};
  write(tooLong.dump());
  EXPECT_ERROR_CASE(store.load(), AgentEditingTemplateStoreError, Case::invalidName);

  // Not a regular file: refused without reading, so a FIFO cannot hang the editor.
  std::filesystem::remove(store.filePath());
  ASSERT_EQ(::mkfifo(store.filePath().c_str(), 0600), 0);
  EXPECT_THROW(store.load(), FileError);
  std::filesystem::remove(store.filePath());
  std::filesystem::create_symlink("/etc/hostname", store.filePath());
  EXPECT_THROW(store.load(), FileError);

  // A save replaces whatever was there with a good file.
  store.save({named("Fresh")});
  ASSERT_EQ(store.load().size(), 1u);
  EXPECT_EQ(store.load()[0].name, "Fresh");
}

TEST(AgentEditingTemplateStore, TwoProcessesSavingAtOnceLeaveOneWholeSet) {
  testing::ScopedDataHome home;
  AgentEditingTemplateStore store;
  const auto set = [](const std::string& prefix) {
    std::vector<AgentEditingTemplate> templates;
    for (int i = 0; i < 30; ++i) {
      AgentEditingTemplate t = named(prefix + std::to_string(i));
      t.additionalInstructions = std::string(2'000, prefix[0]);  // large enough for writes to take a while
      templates.push_back(std::move(t));
    }
    return templates;
  };
  const std::vector<AgentEditingTemplate> first = set("A"), second = set("B");

  std::vector<pid_t> children;
  for (const auto* templates : {&first, &second}) {
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      int status = 0;
      try {
        AgentEditingTemplateStore own;
        for (int round = 0; round < 150; ++round) own.save(*templates);
      } catch (...) {
        status = 1;
      }
      ::_exit(status);
    }
    children.push_back(pid);
  }
  // Read while they write: every read sees nothing yet or one whole set.
  int whole = 0;
  for (;;) {
    bool running = false;
    // Polled with WNOWAIT, so that the children are reaped once, below, with their statuses.
    for (pid_t pid : children) {
      siginfo_t info{};
      running = running || (::waitid(P_PID, pid, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0);
    }
    std::vector<AgentEditingTemplate> seen = store.load();
    if (!seen.empty()) {
      EXPECT_TRUE(seen == first || seen == second) << "a mixture of two saves";
      ++whole;
    }
    if (!running) break;
  }
  for (pid_t pid : children) {
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  std::vector<AgentEditingTemplate> last = store.load();
  EXPECT_TRUE(last == first || last == second);
  EXPECT_GT(whole, 0);
  // No staging file left behind.
  for (const auto& entry : std::filesystem::directory_iterator(store.filePath().parent_path()))
    EXPECT_EQ(entry.path().filename(), "AgentEditingTemplates.json");
}

TEST(AgentEditingTemplateApplication, SkipsWhatTheRecordingOrThisProgramCannotOffer) {
  ProjectSnapshot noCamera;
  noCamera.manifest.media.tracks = {{MediaTrackKind::screen, 0}, {MediaTrackKind::microphone, 1}};
  AgentEditingTemplate editingTemplate = named("Mixed");
  editingTemplate.preset = AgentEditingPreset::tutorial;
  editingTemplate.capabilityIDs = {"style-webcam", "remove-pauses", "teleport-cursor", "prepare-captions"};
  editingTemplate.capabilityInstructions = {{"remove-pauses", "Over 2 s"}, {"style-webcam", "Round"}};
  editingTemplate.additionalInstructions = "Overall";

  auto application = AgentEditingTemplateApplication::make(editingTemplate, noCamera);
  EXPECT_EQ(application.skippedCapabilityNames, (std::vector<std::string>{"Style the Camera", "teleport-cursor"}));
  EXPECT_EQ(application.draft.selectedCapabilities, (std::set<ID>{ID::removePauses, ID::prepareCaptions}));
  EXPECT_EQ(application.draft.capabilityInstructions, (std::map<ID, std::string>{{ID::removePauses, "Over 2 s"}}));
  EXPECT_EQ(application.draft.preset, AgentEditingPreset::tutorial);
  EXPECT_EQ(application.draft.additionalInstructions, "Overall");

  // A template made from a draft gives that draft back.
  AgentEditingRequirementDraft draft = application.draft;
  auto made = AgentEditingTemplate::from(draft, "Again", at("2026-04-01T00:00:00Z"));
  EXPECT_EQ(made.capabilityIDs, (std::vector<std::string>{"remove-pauses", "prepare-captions"}));
  EXPECT_EQ(AgentEditingTemplateApplication::make(made, noCamera).draft, draft);
}

}  // namespace
}  // namespace vumo
