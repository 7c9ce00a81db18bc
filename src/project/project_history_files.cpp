#include "project/project_history_files.h"

#include <fmt/format.h>

#include <system_error>

#include "project/folder_listing.h"
#include "shared/error.h"

namespace vumo {

std::string ProjectHistoryFiles::timelineFileName(std::chrono::system_clock::time_point now, const Uuid& id) {
  using namespace std::chrono;
  auto instant = floor<std::chrono::milliseconds>(now);
  auto day = floor<days>(instant);
  year_month_day ymd{day};
  hh_mm_ss<std::chrono::milliseconds> time{instant - day};
  return fmt::format("{:04}-{:02}-{:02}T{:02}-{:02}-{:02}.{:03}Z-{}.json", static_cast<int>(ymd.year()),
                     static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()), time.hours().count(),
                     time.minutes().count(), time.seconds().count(), time.subseconds().count(), id.string());
}

std::string ProjectHistoryFiles::captionFileName(std::chrono::system_clock::time_point now, const Uuid& id) {
  using namespace std::chrono;
  // Whole microseconds divided once: the double nearest to the decimal value, so the shortest
  // text is that decimal and not a neighbour such as "…045.6780002".
  double seconds = static_cast<double>(duration_cast<microseconds>(now.time_since_epoch()).count()) / 1e6;
  // fmt's "{}" is the shortest text that reads back as the same double.
  return fmt::format("{}-{}.json", seconds, id.string());
}

std::vector<std::filesystem::path> ProjectHistoryFiles::list(const std::filesystem::path& folder) {
  return visibleFilesWithExtension(folder, ".json");
}

void ProjectHistoryFiles::trim(const std::filesystem::path& folder, std::size_t keep) {
  auto files = list(folder);
  if (files.size() <= keep) return;
  std::size_t excess = files.size() - keep;
  for (std::size_t i = 0; i < excess; ++i) {
    std::error_code error;
    std::filesystem::remove(files[i], error);
    if (error) throw FileError(fmt::format("Could not remove {}: {}", files[i].string(), error.message()));
  }
}

}  // namespace vumo
