#include "agent/agent_editing_template_store.h"

#include <fmt/format.h>

#include <algorithm>
#include <system_error>

#include "captions/caption_text.h"
#include "project/project_snapshot.h"
#include "shared/files.h"
#include "shared/json.h"
#include "timeline/grapheme_clusters.h"

namespace fs = std::filesystem;

namespace vumo {

namespace {

using StoreCase = AgentEditingTemplateStoreError::Case;

constexpr std::string_view agentLocalizationTable = "EditorAgent";

constexpr ErrorCase<StoreCase> storeCases[] = {
    {StoreCase::unsupportedSchema, "unsupportedSchema", "agent.template.error.schema",
     "Unsupported template file version: {}", "validation", ErrorKind::validation},
    {StoreCase::tooManyTemplates, "tooManyTemplates", "agent.template.error.limit",
     "You can save up to 50 AI editing templates.", "validation", ErrorKind::validation},
    {StoreCase::invalidName, "invalidName", "agent.template.error.name",
     "Template names must contain between 1 and 40 characters.", "validation", ErrorKind::validation},
    {StoreCase::instructionsTooLong, "instructionsTooLong", "agent.template.error.additional",
     "Additional template instructions cannot exceed 4,000 characters.", "validation", ErrorKind::validation},
    {StoreCase::capabilityInstructionTooLong, "capabilityInstructionTooLong", "agent.template.error.capability",
     "Instructions for each feature cannot exceed 500 characters.", "validation", ErrorKind::validation},
};
static_assert(inCaseOrder(storeCases));

// The checks of a save, on a set whose names are already trimmed.
void validate(const std::vector<AgentEditingTemplate>& templates) {
  using Store = AgentEditingTemplateStore;
  if (templates.size() > Store::maximumTemplates) throw AgentEditingTemplateStoreError(StoreCase::tooManyTemplates);
  GraphemeClusterCounter counter;
  for (const auto& editingTemplate : templates) {
    if (editingTemplate.name.empty() || counter.exceeds(editingTemplate.name, Store::maximumNameCharacters))
      throw AgentEditingTemplateStoreError(StoreCase::invalidName);
    if (counter.exceeds(editingTemplate.additionalInstructions, Store::maximumAdditionalInstructionCharacters))
      throw AgentEditingTemplateStoreError(StoreCase::instructionsTooLong);
    for (const auto& [capability, text] : editingTemplate.capabilityInstructions)
      if (counter.exceeds(text, Store::maximumCapabilityInstructionCharacters))
        throw AgentEditingTemplateStoreError(StoreCase::capabilityInstructionTooLong);
  }
}

std::string trimmedName(std::string_view name) { return std::string(trimmedWhitespaceAndNewlines(name)); }

}  // namespace

AgentEditingTemplateStoreError AgentEditingTemplateStoreError::unsupportedSchema(std::int64_t version) {
  return {Case::unsupportedSchema, std::to_string(version)};
}

AgentEditingTemplateStoreError::AgentEditingTemplateStoreError(Case kind) : AgentEditingTemplateStoreError(kind, {}) {}

AgentEditingTemplateStoreError::AgentEditingTemplateStoreError(Case kind, std::string_view payload)
    : Error(catalogue(), kind, payload), kind_(kind) {}

const ErrorCatalogue<StoreCase>& AgentEditingTemplateStoreError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"AgentEditingTemplateStoreError", agentLocalizationTable, storeCases};
  return catalogue;
}

AgentEditingTemplate AgentEditingTemplate::from(const AgentEditingRequirementDraft& draft, std::string name,
                                                Timestamp now) {
  AgentEditingTemplate editingTemplate;
  editingTemplate.id = Uuid::random();
  editingTemplate.name = std::move(name);
  editingTemplate.preset = draft.preset;
  // In catalogue order, so that a template reads the way its briefing does.
  for (const auto& definition : AgentEditingCapabilityCatalog::definitions) {
    if (!draft.selectedCapabilities.contains(definition.id)) continue;
    editingTemplate.capabilityIDs.emplace_back(nameOf(definition.id));
  }
  for (const auto& [id, text] : draft.capabilityInstructions)
    if (!trimmedWhitespaceAndNewlines(text).empty())
      editingTemplate.capabilityInstructions[std::string(nameOf(id))] = text;
  editingTemplate.options = draft.options;
  editingTemplate.additionalInstructions = draft.additionalInstructions;
  editingTemplate.createdAt = now;
  editingTemplate.updatedAt = now;
  return editingTemplate;
}

void to_json(Json& j, const AgentEditingTemplate& t) {
  j = Json::object();
  j["id"] = t.id;
  j["name"] = t.name;
  json::setOptional(j, "preset", t.preset);
  j["capabilityIDs"] = t.capabilityIDs;
  j["capabilityInstructions"] = t.capabilityInstructions;
  j["options"] = {{"aspectRatio", t.options.aspectRatio},
                  {"clickStyle", t.options.clickStyle},
                  {"webcamShape", t.options.webcamShape}};
  j["additionalInstructions"] = t.additionalInstructions;
  j["createdAt"] = t.createdAt;
  j["updatedAt"] = t.updatedAt;
}

void from_json(const Json& j, AgentEditingTemplate& t) {
  json::requireObject(j, "template");
  t.id = json::required<Uuid>(j, "id");
  t.name = json::required<std::string>(j, "name");
  t.preset = json::optional<AgentEditingPreset>(j, "preset");
  const Json& capabilities = json::requireKey(j, "capabilityIDs");
  json::requireArray(capabilities, "capabilityIDs");
  t.capabilityIDs.clear();
  for (const Json& word : capabilities) t.capabilityIDs.push_back(json::as<std::string>(word, "capabilityIDs"));
  const Json& instructions = json::requireKey(j, "capabilityInstructions");
  json::requireObject(instructions, "capabilityInstructions");
  t.capabilityInstructions.clear();
  for (const auto& [word, text] : instructions.items())
    t.capabilityInstructions[word] = json::as<std::string>(text, "capabilityInstructions");
  const Json& options = json::requireKey(j, "options");
  json::requireObject(options, "options");
  t.options.aspectRatio = json::required<AgentEditingAspectRatio>(options, "aspectRatio");
  t.options.clickStyle = json::required<AgentEditingClickStyle>(options, "clickStyle");
  t.options.webcamShape = json::required<AgentEditingWebcamShape>(options, "webcamShape");
  t.additionalInstructions = json::required<std::string>(j, "additionalInstructions");
  t.createdAt = json::required<Timestamp>(j, "createdAt");
  t.updatedAt = json::required<Timestamp>(j, "updatedAt");
}

AgentEditingTemplateApplication AgentEditingTemplateApplication::make(const AgentEditingTemplate& editingTemplate,
                                                                      const ProjectSnapshot& snapshot) {
  AgentEditingTemplateApplication application;
  AgentEditingRequirementDraft& draft = application.draft;
  draft.preset = editingTemplate.preset;
  draft.options = editingTemplate.options;
  draft.additionalInstructions = editingTemplate.additionalInstructions;
  for (const std::string& word : editingTemplate.capabilityIDs) {
    auto id = parseName<AgentEditingCapabilityID>(word);
    if (!id) {
      application.skippedCapabilityNames.push_back(word);
      continue;
    }
    if (!AgentEditingCapabilityCatalog::isAvailable(*id, snapshot)) {
      application.skippedCapabilityNames.emplace_back(AgentEditingCapabilityCatalog::definition(*id).title);
      continue;
    }
    if (!draft.selectedCapabilities.insert(*id).second) continue;
    if (auto found = editingTemplate.capabilityInstructions.find(word);
        found != editingTemplate.capabilityInstructions.end())
      draft.capabilityInstructions[*id] = found->second;
  }
  return application;
}

AgentEditingTemplateStore::AgentEditingTemplateStore(std::optional<fs::path> file)
    : file_(file ? std::move(*file) : vumoSupportDirectory() / defaultFileName) {}

std::vector<AgentEditingTemplate> AgentEditingTemplateStore::load() const {
  std::lock_guard lock(mutex_);
  std::error_code error;
  if (fs::symlink_status(file_, error).type() == fs::file_type::not_found) return {};

  Json document = parseJson(readFile(file_, maximumFileBytes));
  json::requireObject(document, "templates file");
  const auto version = json::required<std::int64_t>(document, "schemaVersion");
  if (version != AgentEditingTemplateDocument::currentSchemaVersion)
    throw AgentEditingTemplateStoreError::unsupportedSchema(version);
  const Json& list = json::requireKey(document, "templates");
  json::requireArray(list, "templates");
  std::vector<AgentEditingTemplate> templates;
  templates.reserve(list.size());
  for (const Json& entry : list) {
    AgentEditingTemplate editingTemplate = entry.get<AgentEditingTemplate>();
    editingTemplate.name = trimmedName(editingTemplate.name);
    templates.push_back(std::move(editingTemplate));
  }
  validate(templates);
  std::stable_sort(templates.begin(), templates.end(),
                   [](const auto& a, const auto& b) { return a.updatedAt > b.updatedAt; });
  return templates;
}

void AgentEditingTemplateStore::save(const std::vector<AgentEditingTemplate>& templates) const {
  std::lock_guard lock(mutex_);
  if (templates.size() > maximumTemplates) throw AgentEditingTemplateStoreError(StoreCase::tooManyTemplates);
  std::vector<AgentEditingTemplate> stored = templates;
  for (auto& editingTemplate : stored) editingTemplate.name = trimmedName(editingTemplate.name);
  validate(stored);

  Json document = {{"schemaVersion", AgentEditingTemplateDocument::currentSchemaVersion}, {"templates", stored}};
  std::string bytes = encodeDocument(document);
  // Characters are limited, bytes are not (a character may be many code points); a file this store
  // could not read back is refused before it replaces a good one.
  if (bytes.size() > maximumFileBytes)
    throw FileError(fmt::format("Could not write {}: the templates exceed {} bytes", file_.string(), maximumFileBytes));
  fs::path folder = file_.parent_path();
  if (!folder.empty()) createDirectories(folder);
  writeFileAtomically(file_, bytes);
}

}  // namespace vumo
