#pragma once
// Process benchmarks start a program with empty input and discarded output, the same way for the
// measured command and its baseline, and wait for it.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace vumo::bench {

// The `vumo` a benchmark starts: $VUMO_BINARY where set, else the one built with it (`built`, which
// each benchmark's target names).
inline std::string vumoExecutable(const char* built) {
  if (const char* path = std::getenv("VUMO_BINARY")) return path;
  return built;
}

// What a program cost: its exit status (-1 when it could not start or was killed), its own and
// its threads' processor time from the kernel's accounting at its end, and the wall time from
// start to end.
struct MeasuredRun {
  int status = -1;
  double userSeconds = 0;
  double systemSeconds = 0;
  double wallSeconds = 0;
  double cpuSeconds() const { return userSeconds + systemSeconds; }
};

// Starts `words` like spawnAndWait, its standard output to `outputPath` (or discarded when empty),
// and waits for it, calling `whileRunning` with its pid about every `interval` until it ends.
inline MeasuredRun spawnAndMeasure(const std::vector<std::string>& words, const std::string& outputPath = {},
                                   const std::function<void(pid_t)>& whileRunning = {},
                                   std::chrono::milliseconds interval = std::chrono::milliseconds(250)) {
  std::vector<char*> argv;
  for (const auto& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outputPath.empty() ? "/dev/null" : outputPath.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  MeasuredRun measured;
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  const int rc = ::posix_spawnp(&pid, words.front().c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return measured;
  int status = 0;
  struct rusage usage {};
  for (;;) {
    const pid_t ended = ::wait4(pid, &status, whileRunning ? WNOHANG : 0, &usage);
    if (ended == pid) break;
    if (ended < 0 && errno != EINTR) return measured;
    if (ended == 0) {
      whileRunning(pid);
      std::this_thread::sleep_for(interval);
    }
  }
  measured.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  measured.userSeconds = double(usage.ru_utime.tv_sec) + double(usage.ru_utime.tv_usec) * 1e-6;
  measured.systemSeconds = double(usage.ru_stime.tv_sec) + double(usage.ru_stime.tv_usec) * 1e-6;
  measured.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return measured;
}

// Starts `words` (the first found on PATH when it has no slash), its output discarded, and returns
// its exit status, -1 when it could not start or was killed.
inline int spawnAndWait(const std::vector<std::string>& words) { return spawnAndMeasure(words).status; }

}  // namespace vumo::bench
