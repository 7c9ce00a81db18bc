#include "cli/verb_arguments.h"

#include <algorithm>

#include "cli/cli_errors.h"

namespace vumo {

VerbArguments::VerbArguments(const std::vector<std::string>& words, std::vector<std::string_view> repeatable)
    : words_(words), repeatable_(std::move(repeatable)) {}

bool VerbArguments::next() {
  for (std::size_t i = started_ ? index_ + 1 : 0; i < words_.size(); ++i) {
    const std::string& word = words_[i];
    if (!word.starts_with("--")) {
      if (!projectID_.empty()) throw CLIArgumentError::unexpectedArgument(word);
      if (word.empty()) throw CLIArgumentError::invalidValue("<id-prefix>");
      projectID_ = word;
      continue;
    }
    const bool repeatable = std::find(repeatable_.begin(), repeatable_.end(), word) != repeatable_.end();
    if (!repeatable && std::find(seen_.begin(), seen_.end(), word) != seen_.end())
      throw CLIArgumentError::unexpectedArgument(word);
    seen_.push_back(word);
    index_ = i;
    started_ = true;
    return true;
  }
  index_ = words_.size();
  started_ = true;
  return false;
}

const std::string& VerbArguments::value() {
  if (index_ + 1 >= words_.size()) throw CLIArgumentError::missingValue(option());
  return words_[++index_];
}

std::optional<std::string> VerbArguments::optionalValue() {
  if (index_ + 1 >= words_.size() || words_[index_ + 1].starts_with("--")) return std::nullopt;
  return words_[++index_];
}

const std::string& VerbArguments::projectID() const {
  if (projectID_.empty()) throw CLIArgumentError::missingValue("<id-prefix>");
  return projectID_;
}

}  // namespace vumo
