#pragma once

#include <string>
#include <string_view>

#include "shared/error.h"

namespace vumo {

// A command line that did not parse. The command line's own messages are fixed Chinese texts.
class CLIArgumentError : public Error {
 public:
  enum class Case { unknownCommand, missingValue, invalidValue, unexpectedArgument, missingCommand };

  static CLIArgumentError unknownCommand(const std::string& word) { return {Case::unknownCommand, word}; }
  static CLIArgumentError missingValue(const std::string& name) { return {Case::missingValue, name}; }
  static CLIArgumentError invalidValue(const std::string& name) { return {Case::invalidValue, name}; }
  // "参数无效：--fps 24（可选：source, 30, 60）": `word` is none of the `accepted` choices of `option`.
  static CLIArgumentError notOneOf(std::string_view option, std::string_view word, std::string_view accepted) {
    return invalidValue(std::string(option) + " " + std::string(word) + "（可选：" + std::string(accepted) + "）");
  }
  static CLIArgumentError unexpectedArgument(const std::string& word) { return {Case::unexpectedArgument, word}; }
  static CLIArgumentError missingCommand() { return {Case::missingCommand, {}}; }

  Case kind() const { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  CLIArgumentError(Case kind, std::string_view payload) : Error(catalogue(), kind, payload), kind_(kind) {}
  Case kind_;
};

// The `--out` path of `frame` cannot be written. Reported as "execution", like any file failure.
class CLIOutputError : public Error {
 public:
  enum class Case { outputExists, parentMissing };

  static CLIOutputError outputExists(const std::string& path) { return {Case::outputExists, path}; }
  static CLIOutputError parentMissing(const std::string& path) { return {Case::parentMissing, path}; }
  Case kind() const { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  CLIOutputError(Case kind, std::string_view path) : Error(catalogue(), kind, path), kind_(kind) {}
  Case kind_;
};

// `idle` was asked for an audio track the recording does not have. The text names the track by
// its case name ("systemAudio"), as recorded in the manifest.
class CLIIdleError : public Error {
 public:
  enum class Case { audioTrackUnavailable, noAudioTrack };

  static CLIIdleError audioTrackUnavailable(std::string_view kind) { return {Case::audioTrackUnavailable, kind}; }
  static CLIIdleError noAudioTrack() { return {Case::noAudioTrack, {}}; }
  Case kind() const { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  CLIIdleError(Case kind, std::string_view payload) : Error(catalogue(), kind, payload), kind_(kind) {}
  Case kind_;
};

// The media engine, a part of the program loaded on demand, cannot be used: a broken or partial
// installation. Reported as "execution".
class MediaModuleError : public Error {
 public:
  enum class Case { unavailable };
  static MediaModuleError unavailable(std::string_view reason) { return MediaModuleError(reason); }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  explicit MediaModuleError(std::string_view reason) : Error(catalogue(), Case::unavailable, reason) {}
};

// A command whose service this build does not have. It parses fully and then ends here, so an
// agent gets a clear "execution" answer instead of a made-up result.
class CLIUnavailableError : public Error {
 public:
  enum class Case { unavailable };
  explicit CLIUnavailableError(const std::string& capability) : Error(catalogue(), Case::unavailable, capability) {}
  static const ErrorCatalogue<Case>& catalogue();
};

}  // namespace vumo
