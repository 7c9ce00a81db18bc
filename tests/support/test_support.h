#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace vumo::testing {

// A fresh folder under the system temporary folder, removed with everything in it on destruction.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// Points XDG_DATA_HOME at a temporary folder for the lifetime of the object, so nothing a test
// does reaches the real home folder.
class ScopedDataHome {
 public:
  ScopedDataHome();
  ~ScopedDataHome();
  const std::filesystem::path& path() const { return folder_.path(); }

 private:
  TemporaryDirectory folder_;
  std::string previous_;
  bool hadPrevious_ = false;
};

struct ProcessResult {
  int status = -1;  // exit status, or 128 + signal
  std::string standardOutput;
  std::string standardError;
};

// Runs the built `vumo` executable (path from $VUMO_BINARY) with the given arguments and extra
// environment; standard input is empty.
ProcessResult runVumo(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& environment = {});

std::filesystem::path vumoBinary();

}  // namespace vumo::testing
