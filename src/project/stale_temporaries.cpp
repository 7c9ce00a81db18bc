#include "project/stale_temporaries.h"

#include <algorithm>
#include <cctype>
#include <string>
#include <system_error>

namespace vumo {

namespace fs = std::filesystem;

std::optional<std::string_view> atomicWriteTarget(std::string_view fileName) {
  constexpr std::size_t suffixLength = 7;  // ".XXXXXX"
  if (fileName.size() < 1 + 1 + suffixLength || fileName.front() != '.') return std::nullopt;
  std::string_view suffix = fileName.substr(fileName.size() - suffixLength);
  bool random = suffix.front() == '.' && std::all_of(suffix.begin() + 1, suffix.end(), [](char c) {
                  return std::isalnum(static_cast<unsigned char>(c)) != 0;
                });
  if (!random) return std::nullopt;
  return fileName.substr(1, fileName.size() - 1 - suffixLength);
}

std::size_t removeStaleTemporaries(const fs::path& folder, const std::function<bool(std::string_view)>& owns,
                                   std::chrono::seconds minimumAge) {
  std::size_t removed = 0;
  std::error_code error;
  fs::directory_iterator it(folder, error);
  const auto now = fs::file_time_type::clock::now();
  for (; !error && it != fs::directory_iterator(); it.increment(error)) {
    std::string name = it->path().filename().string();
    auto target = atomicWriteTarget(name);
    if (!target || !owns(*target)) continue;
    std::error_code ignored;
    if (!it->is_regular_file(ignored) || it->is_symlink(ignored)) continue;
    auto modified = fs::last_write_time(it->path(), ignored);
    if (ignored || now - modified < minimumAge) continue;
    if (fs::remove(it->path(), ignored)) ++removed;
  }
  return removed;
}

}  // namespace vumo
