#pragma once
// The error families of export. Their texts live in the localisation table `Media`, beside the
// other media failures.

#include <string_view>

#include "shared/error.h"

namespace vumo {

// A choice of export options that cannot be carried out for the project's canvas. A validation
// failure on the command line: the request is well formed, the combination is refused.
class ExportConfigurationError : public Error {
 public:
  enum class Case { originalResolutionRequiresSourceAspect };

  explicit ExportConfigurationError(Case kind);

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

// Failures of rendering a project into a film file. All of them are execution failures.
class ProjectExporterError : public Error {
 public:
  enum class Case {
    missingVideo,
    readerOutput,
    writerInput,
    start,
    unsupportedSettings,
    bufferPool,
    bufferAllocation,  // payload: the allocator's error code
    render,
    append,  // payload: the writer's own description of the failure
    writerStopped,
    writerIncomplete,
    videoRejected,
    audioRejected,
  };

  // `detail` is the payload of `bufferAllocation` and `append`; the other cases have none.
  explicit ProjectExporterError(Case kind, std::string_view detail = {});

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

}  // namespace vumo
