#include "support/test_support.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "shared/files.h"
#include "shared/leak_check_defaults.h"

extern char** environ;

namespace vumo::testing {

std::vector<std::string> environmentWith(const std::map<std::string, std::optional<std::string>>& changes) {
  std::map<std::string, std::string> merged;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry = *e;
    if (auto eq = entry.find('='); eq != std::string::npos) merged[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (const auto& [key, value] : changes) {
    if (value)
      merged[key] = *value;
    else
      merged.erase(key);
  }
  std::vector<std::string> entries;
  for (const auto& [key, value] : merged) entries.push_back(key + "=" + value);
  return entries;
}

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "vumo-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

ScopedEnvironmentVariable::ScopedEnvironmentVariable(std::string name, const std::optional<std::string>& value)
    : name_(std::move(name)) {
  if (const char* old = std::getenv(name_.c_str())) previous_ = old;
  if (value)
    ::setenv(name_.c_str(), value->c_str(), 1);
  else
    ::unsetenv(name_.c_str());
}

ScopedEnvironmentVariable::~ScopedEnvironmentVariable() {
  if (previous_)
    ::setenv(name_.c_str(), previous_->c_str(), 1);
  else
    ::unsetenv(name_.c_str());
}

std::filesystem::path vumoBinary() {
  const char* path = std::getenv("VUMO_BINARY");
  if (path == nullptr) throw std::runtime_error("VUMO_BINARY is not set; run the tests through ctest");
  return path;
}

namespace {
// Appends what one read gives; false at the end of the stream.
bool readSome(int fd, std::string& out) {
  char buffer[65536];
  ssize_t n = ::read(fd, buffer, sizeof buffer);
  if (n < 0 && errno == EINTR) return true;
  if (n > 0) out.append(buffer, static_cast<std::size_t>(n));
  return n > 0;
}
}  // namespace

ProcessResult run(const ProcessLaunch& launch) {
  std::vector<std::string> words = launch.words;
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::vector<std::string> entries = environmentWith(launch.environment);
  std::vector<char*> envp;
  for (auto& entry : entries) envp.push_back(entry.data());
  envp.push_back(nullptr);

  using Output = ProcessLaunch::Output;
  int out[2], err[2], in[2];
  if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0 || ::pipe2(in, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  // The whole input fits the pipe's buffer, so it is written before the program starts and read
  // to its end without a writer to wait for.
  if (launch.standardInput.size() > 60'000) throw std::runtime_error("standard input too long for a test");
  if (!launch.standardInput.empty() && ::write(in[1], launch.standardInput.data(), launch.standardInput.size()) !=
                                           static_cast<ssize_t>(launch.standardInput.size()))
    throw std::runtime_error("could not write standard input");
  ::close(in[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  if (launch.output == Output::file)
    posix_spawn_file_actions_addopen(&actions, 1, launch.outputFile.c_str(), O_WRONLY, 0);
  else
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  if (!launch.workingDirectory.empty()) posix_spawn_file_actions_addchdir_np(&actions, launch.workingDirectory.c_str());
  if (launch.output == Output::closedPipe) ::close(out[0]);
  pid_t pid = 0;
  int rc = ::posix_spawn(&pid, words.front().c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  if (rc != 0) {
    ::close(err[0]);
    if (launch.output != Output::closedPipe) ::close(out[0]);
    throw std::runtime_error(std::string("spawn failed: ") + std::strerror(rc));
  }
  if (launch.whileRunning) launch.whileRunning(pid);

  ProcessResult result;
  const auto deadline = std::chrono::steady_clock::now() + launch.timeout;
  std::vector<pollfd> open = {{err[0], POLLIN, 0}};
  if (launch.output != Output::closedPipe) open.push_back({out[0], POLLIN, 0});
  while (!open.empty()) {
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0) {
      result.timedOut = true;
      ::kill(pid, SIGKILL);
      break;
    }
    if (::poll(open.data(), open.size(), static_cast<int>(left)) <= 0) continue;
    for (auto it = open.begin(); it != open.end();) {
      std::string& target = it->fd == err[0] ? result.standardError : result.standardOutput;
      if (it->revents != 0 && !readSome(it->fd, target)) {
        ::close(it->fd);
        it = open.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (const auto& still : open) ::close(still.fd);
  int status = 0;
  ::waitpid(pid, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

ProcessResult runVumo(const std::vector<std::string>& arguments,
                      const std::map<std::string, std::string>& environment) {
  return runProgram(vumoBinary(), arguments, {environment.begin(), environment.end()});
}

ProcessResult runProgram(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                         const std::map<std::string, std::optional<std::string>>& environment,
                         const std::filesystem::path& workingDirectory) {
  ProcessLaunch launch;
  launch.words = {program.string()};
  launch.words.insert(launch.words.end(), arguments.begin(), arguments.end());
  launch.environment = environment;
  launch.workingDirectory = workingDirectory;
  return run(launch);
}

double colourPSNR(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b) {
  double squared = 0;
  std::size_t count = 0;
  for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
    if (i % 4 == 3) continue;
    const double difference = double(a[i]) - double(b[i]);
    squared += difference * difference;
    ++count;
  }
  if (squared == 0 || count == 0) return 99.0;
  return 10.0 * std::log10(255.0 * 255.0 / (squared / double(count)));
}

}  // namespace vumo::testing
