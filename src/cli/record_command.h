#pragma once

#include <memory>
#include <string>
#include <vector>

#include "cli/record_controls.h"
#include "cli/recording_platform.h"
#include "cli/vumo_cli.h"
#include "recording/free_space_guard.h"

namespace vumo {

// `vumo record`: one recording of a display, a window, an area or a capture device into a new
// project, for scripts and agents. A live status line on standard error, one JSON answer on
// standard output. Unlike the agent commands, Ctrl-C here means "stop and keep": the package is
// finished and the status is 0; only a request before the first frame cancels (130, nothing on
// disk).
//
//   vumo record [--display NAME | --window ID | --area X,Y,W,H | --device PATH] [--fps N]
//               [--system-audio] [--microphone [SOURCE]] [--camera [PATH]] [--duration SECONDS]
//               [--name TITLE]
//   vumo record --list-sources
class RecordCommand {
 public:
  RecordCommand(RecordControls& controls, VumoCLI::Streams streams, bool statusOnTerminal,
                std::unique_ptr<RecordingPlatform> platform, FreeSpaceGuard::Settings freeSpace = {});

  int run(const std::vector<std::string>& arguments);

  static std::string usageText();

 private:
  RecordControls& controls_;
  VumoCLI::Streams streams_;
  bool statusOnTerminal_;
  std::unique_ptr<RecordingPlatform> platform_;
  FreeSpaceGuard::Settings freeSpace_;
};

}  // namespace vumo
