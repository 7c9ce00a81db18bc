#pragma once

// The user's named sets of requirements, kept in AgentEditingTemplates.json in the support
// folder. The file is the user's, but any program of theirs may have written it: it is read only
// as a regular file of bounded size and accepted only within the limits a save enforces.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/agent_editing_capability.h"
#include "shared/date.h"
#include "shared/error.h"
#include "shared/json_fwd.h"
#include "shared/uuid.h"

namespace vumo {

struct ProjectSnapshot;

// What the editor says around templates: before the names of skipped capabilities, and before the
// error of a load or a save that failed.
inline constexpr std::string_view agentEditingTemplateSkippedText = "Skipped features unavailable in this interface: ";
inline constexpr std::string_view agentEditingTemplateLoadFailedText = "Templates could not be loaded: ";
inline constexpr std::string_view agentEditingTemplateSaveFailedText = "Templates could not be saved: ";

// Capabilities are kept as their words, not as cases: a template saved by a later version may
// name a capability this one does not know, and applying it must report that, not fail.
struct AgentEditingTemplate {
  Uuid id;
  std::string name;
  std::optional<AgentEditingPreset> preset;
  std::vector<std::string> capabilityIDs;
  std::map<std::string, std::string> capabilityInstructions;
  AgentEditingRequirementOptions options;
  std::string additionalInstructions;
  Timestamp createdAt;
  Timestamp updatedAt;

  // A new template (fresh id, both dates `now`) holding what `draft` asks for.
  static AgentEditingTemplate from(const AgentEditingRequirementDraft& draft, std::string name, Timestamp now);

  friend bool operator==(const AgentEditingTemplate&, const AgentEditingTemplate&) = default;
};
void to_json(Json& j, const AgentEditingTemplate& t);
void from_json(const Json& j, AgentEditingTemplate& t);

struct AgentEditingTemplateDocument {
  static constexpr std::int64_t currentSchemaVersion = 1;
  std::int64_t schemaVersion = currentSchemaVersion;
  std::vector<AgentEditingTemplate> templates;
};

// A template made into a draft for one recording. Capabilities it names that this program does
// not know, or that the recording cannot offer, are left out and named (by title, or by their
// word when unknown) so the user can be told.
struct AgentEditingTemplateApplication {
  AgentEditingRequirementDraft draft;
  std::vector<std::string> skippedCapabilityNames;

  static AgentEditingTemplateApplication make(const AgentEditingTemplate& editingTemplate,
                                              const ProjectSnapshot& snapshot);
};

class AgentEditingTemplateStoreError : public Error {
 public:
  enum class Case {
    unsupportedSchema,
    tooManyTemplates,
    invalidName,
    instructionsTooLong,
    capabilityInstructionTooLong
  };

  static AgentEditingTemplateStoreError unsupportedSchema(std::int64_t version);
  explicit AgentEditingTemplateStoreError(Case kind);
  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  AgentEditingTemplateStoreError(Case kind, std::string_view payload);
  Case kind_;
};

// One owner of the file; each call runs alone within the process, and every save replaces the
// file atomically, so between processes the file always holds one whole saved set.
class AgentEditingTemplateStore {
 public:
  static constexpr std::string_view defaultFileName = "AgentEditingTemplates.json";
  static constexpr std::size_t maximumTemplates = 50;
  // Counted in user-perceived characters (grapheme clusters), as every character limit is; the
  // name after trimming.
  static constexpr std::size_t maximumNameCharacters = 40;
  static constexpr std::size_t maximumAdditionalInstructionCharacters = 4'000;
  static constexpr std::size_t maximumCapabilityInstructionCharacters = 500;
  // Far above 50 templates at their limits; a file this large was not written by this store.
  static constexpr std::size_t maximumFileBytes = 16 * (std::size_t{1} << 20);

  // Without a path the file is vumoSupportDirectory()/"AgentEditingTemplates.json".
  explicit AgentEditingTemplateStore(std::optional<std::filesystem::path> file = std::nullopt);
  AgentEditingTemplateStore(const AgentEditingTemplateStore&) = delete;
  AgentEditingTemplateStore& operator=(const AgentEditingTemplateStore&) = delete;

  const std::filesystem::path& filePath() const noexcept { return file_; }

  // The saved templates, most recently updated first; none without a file. A file that is not a
  // regular file or too large is a FileError; one that does not decode (a corrupt file) a
  // DecodingError; a schema other than 1 `unsupportedSchema`; a document beyond the limits of
  // `save` the error `save` would give. The file is left as it is in every case, so a corrupt
  // file is replaced only by the user's next save.
  std::vector<AgentEditingTemplate> load() const;

  // Replaces the whole set. Names are stored trimmed. Over 50 templates is `tooManyTemplates`; a
  // name empty or over 40 characters `invalidName`; overall instructions over 4,000 characters
  // `instructionsTooLong`; any capability's over 500 `capabilityInstructionTooLong`. Nothing is
  // written then.
  void save(const std::vector<AgentEditingTemplate>& templates) const;

 private:
  std::filesystem::path file_;
  mutable std::mutex mutex_;
};

}  // namespace vumo
