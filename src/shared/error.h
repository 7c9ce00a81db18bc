#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace vumo {

// How a failure is reported to a command-line caller. The driver maps each kind to an exit status,
// so a new error family only has to say which kind it is; no central switch learns about it.
enum class ErrorKind {
  invalidArguments,  // the request did not parse
  projectNotFound,   // an id prefix matched no project or several
  conflict,          // a digest check failed: the project changed under the caller
  validation,        // well formed, but the edit or document is not acceptable
  failure,           // storage or execution failure
};

struct ErrorClassification {
  std::string code;  // stable code string of the error envelope, e.g. "timeline_conflict"
  ErrorKind kind = ErrorKind::failure;
};

// Base of every error family. Each case carries its localisation key, the table the key lives in
// and the English text, which is what `what()` returns.
class Error : public std::runtime_error {
 public:
  Error(std::string localizationKey, std::string table, const std::string& englishText)
      : std::runtime_error(englishText), key_(std::move(localizationKey)), table_(std::move(table)) {}

  const std::string& localizationKey() const noexcept { return key_; }
  const std::string& table() const noexcept { return table_; }
  std::string message() const { return what(); }

  // Families that the command line reports as something other than "execution" override this.
  virtual ErrorClassification classification() const { return {"execution", ErrorKind::failure}; }

 private:
  std::string key_;
  std::string table_;
};

// A document that could not be read as its type (missing key, wrong type, bad value).
class DecodingError : public Error {
 public:
  explicit DecodingError(const std::string& text) : Error("error.decoding", "Editor", text) {}
};

// Operating system file errors, reported with the path they concern.
class FileError : public Error {
 public:
  explicit FileError(const std::string& text) : Error("error.file", "Editor", text) {}
};

// Raised at a cancellation point after the user asked the running command to stop.
class CancelledError : public std::runtime_error {
 public:
  CancelledError() : std::runtime_error("cancelled") {}
};

}  // namespace vumo
