#include "support/test_support.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "shared/files.h"

extern char** environ;

namespace vumo::testing {

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
std::string drain(int fd) {
  std::string out;
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    out.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return out;
}
}  // namespace

ProcessResult runVumo(const std::vector<std::string>& arguments,
                      const std::map<std::string, std::string>& environment) {
  return runProgram(vumoBinary(), arguments, {environment.begin(), environment.end()});
}

ProcessResult runProgram(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                         const std::map<std::string, std::optional<std::string>>& environment,
                         const std::filesystem::path& workingDirectory) {
  std::string binary = program.string();
  std::vector<std::string> words{binary};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  std::map<std::string, std::string> merged;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry = *e;
    auto eq = entry.find('=');
    if (eq != std::string::npos) merged[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (auto& [k, v] : environment) {
    if (v)
      merged[k] = *v;
    else
      merged.erase(k);
  }
  std::vector<std::string> envStrings;
  for (auto& [k, v] : merged) envStrings.push_back(k + "=" + v);
  std::vector<char*> envp;
  for (auto& e : envStrings) envp.push_back(e.data());
  envp.push_back(nullptr);

  int out[2], err[2];
  if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  if (!workingDirectory.empty()) posix_spawn_file_actions_addchdir_np(&actions, workingDirectory.c_str());
  pid_t pid;
  int rc = ::posix_spawn(&pid, binary.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  ::close(err[1]);
  if (rc != 0) throw std::runtime_error(std::string("spawn failed: ") + std::strerror(rc));
  ProcessResult result;
  std::thread errReader([&] { result.standardError = drain(err[0]); });
  result.standardOutput = drain(out[0]);
  errReader.join();
  int status = 0;
  ::waitpid(pid, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace vumo::testing
