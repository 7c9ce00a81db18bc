#pragma once
// The words of a headless verb (`vumo prompt`, `vumo export`): one project id prefix anywhere, and
// options, each given once unless it is repeatable, some followed by a value. The verb says what
// each option means; this reads them in order and refuses what no verb accepts.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vumo {

class VerbArguments {
 public:
  explicit VerbArguments(const std::vector<std::string>& words, std::vector<std::string_view> repeatable = {});

  // Advances to the next option and returns it; false at the end. A word that is no option is the
  // project's id prefix: a second one, or an empty one, is refused (CLIArgumentError). So is an
  // option given twice that is not repeatable.
  bool next();
  const std::string& option() const { return words_[index_]; }
  // The word after the current option, consumed; CLIArgumentError::missingValue at the end.
  const std::string& value();
  // The word after the current option when it is no option itself, consumed; none otherwise
  // (`--microphone` alone means the default source, `--microphone NAME` a chosen one).
  std::optional<std::string> optionalValue();
  // The id prefix; CLIArgumentError::missingValue("<id-prefix>") when none was given.
  const std::string& projectID() const;
  // For a verb that takes no project, where a bare word is a mistake.
  bool hasProjectID() const { return !projectID_.empty(); }

 private:
  const std::vector<std::string>& words_;
  std::vector<std::string_view> repeatable_;
  std::vector<std::string> seen_;
  std::string projectID_;
  std::size_t index_ = 0;
  bool started_ = false;
};

}  // namespace vumo
