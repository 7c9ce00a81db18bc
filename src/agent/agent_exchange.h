#pragma once

// The folder through which agents hand documents to the program, outside every project package:
// $XDG_DATA_HOME/Vumo/AgentExchange/<job UUID>/. An agent writes into it, so everything read back
// is treated as hostile: only regular files directly inside a job folder directly inside the root,
// reached without following any symbolic link, and of bounded size.

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "agent/edit_plan_exchange.h"
#include "shared/json_fwd.h"
#include "shared/uuid.h"

namespace vumo {

inline constexpr std::string_view exchangeJobFileName = "job.json";
inline constexpr std::string_view editPlanFileName = "edit-plan.json";
inline constexpr std::uint64_t exchangeJobMaximumBytes = 65'536;
inline constexpr std::uint64_t editPlanMaximumBytes = 1'048'576;

// vumoSupportDirectory()/"AgentExchange". Not created here.
std::filesystem::path exchangeRootDirectory();

// Creates the root if it is missing (with its parents), then the job's folder, named by the job
// UUID in upper case, and returns its path. The root must be a real directory, not a symbolic
// link, and the job folder must not exist yet; otherwise invalidDocument. Operating system
// failures while creating are FileError.
// Edit plan and caption jobs share the root and these rules.
std::filesystem::path createExchangeJobDirectory(const Uuid& jobID);
inline std::filesystem::path createEditPlanDirectory(const Uuid& jobID) { return createExchangeJobDirectory(jobID); }

// The bytes of `path`, which must name a regular file (no symbolic link, no second hard link)
// in a folder that is a direct child of the exchange root, with neither the root nor the folder
// a symbolic link. Every component is opened relative to the one before without following links,
// and the size is checked on the opened file, so swapping a component for a link between check
// and read cannot lead outside the folder. A path or file of the wrong kind is invalidDocument;
// a file over `maximumBytes`, by its metadata or by the bytes actually read, is `oversize`.
std::string readExchangeData(const std::filesystem::path& path, std::uint64_t maximumBytes,
                             EditPlanValidationError::Case oversize = EditPlanValidationError::Case::invalidDocument);

// `edit-plan.json` of a job folder: over 1 MiB is documentTooLarge.
std::string readEditPlanData(const std::filesystem::path& path);
// `job.json` of a job folder: over 64 KiB is invalidDocument.
std::string readEditPlanJobData(const std::filesystem::path& path);

// Writes a document into the exchange with the store's encoder settings, atomically.
void writeExchange(const Json& document, const std::filesystem::path& path);

}  // namespace vumo
