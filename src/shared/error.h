#pragma once

// Every error family of the program is an exception class with a catalogue: one row per case
// with its localisation key, its English text, and how the command line reports it. The
// constructors read their row, so a case cannot carry a key from one place and a text from
// another, and the catalogue can be listed whole.

#include <cstddef>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

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

// One case of a family.
template <class Case>
struct ErrorCase {
  Case kind;
  std::string_view name;         // the case as the code spells it
  std::string_view key;          // localisation key
  std::string_view englishText;  // "{}" stands for the case's payload
  std::string_view code;         // error code of the command line's envelope
  ErrorKind exitClass;           // decides the command line's exit status
};

// A case without a row is a programmer error; it fails loudly instead of reading past the table.
[[noreturn]] void throwMissingErrorCase(std::string_view family);

// Every case of one family, in the order of its enumeration, and the localisation table the keys
// live in.
template <class Case>
struct ErrorCatalogue {
  std::string_view family;
  std::string_view table;
  std::span<const ErrorCase<Case>> cases;

  const ErrorCase<Case>& operator[](Case kind) const {
    auto index = static_cast<std::size_t>(kind);
    if (index >= cases.size()) throwMissingErrorCase(family);
    return cases[index];
  }
};

// Whether a family's rows are in the order of its enumeration, which is how they are looked up.
template <class Case, std::size_t N>
consteval bool inCaseOrder(const ErrorCase<Case> (&cases)[N]) {
  for (std::size_t i = 0; i < N; ++i)
    if (static_cast<std::size_t>(cases[i].kind) != i) return false;
  return true;
}

// Base of every error family. `what()` is the English text with the payload filled in.
class Error : public std::runtime_error {
 public:
  const std::string& localizationKey() const noexcept { return key_; }
  const std::string& table() const noexcept { return table_; }
  std::string message() const { return what(); }

  // The catalogue row's code and exit class.
  const ErrorClassification& classification() const noexcept { return classification_; }

 protected:
  template <class Case>
  Error(const ErrorCatalogue<Case>& catalogue, Case kind, std::string_view payload = {})
      : Error(catalogue.table, catalogue[kind].key, catalogue[kind].englishText, payload,
              {std::string(catalogue[kind].code), catalogue[kind].exitClass}) {}

 private:
  Error(std::string_view table, std::string_view key, std::string_view englishText, std::string_view payload,
        ErrorClassification classification);

  std::string key_;
  std::string table_;
  ErrorClassification classification_;
};

// A document that could not be read as its type (missing key, wrong type, bad value). The payload
// is the whole text.
class DecodingError : public Error {
 public:
  enum class Case { decoding };
  explicit DecodingError(const std::string& text) : Error(catalogue(), Case::decoding, text) {}
  static const ErrorCatalogue<Case>& catalogue();
};

// Operating system file errors, reported with the path they concern. The payload is the whole
// text.
class FileError : public Error {
 public:
  enum class Case { file };
  explicit FileError(const std::string& text) : Error(catalogue(), Case::file, text) {}
  static const ErrorCatalogue<Case>& catalogue();
};

// Text that the Unicode library could not handle, or that cannot be written as UTF-8. The
// payload of the library's cases is its error name.
class UnicodeTextError : public Error {
 public:
  enum class Case { unreadable, rulesUnavailable, unsegmentable, notUTF8 };
  explicit UnicodeTextError(Case kind, std::string_view libraryError = {})
      : Error(catalogue(), kind, libraryError), kind_(kind) {}
  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

// Raised at a cancellation point after the user asked the running command to stop.
class CancelledError : public std::runtime_error {
 public:
  CancelledError() : std::runtime_error("cancelled") {}
};

}  // namespace vumo
