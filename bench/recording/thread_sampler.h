#pragma once
// Where a program's processor time goes, by thread, for the recording benchmarks.

#include <dirent.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace vumo::bench {

// The processor time of each thread of a running program, by thread name: the last sample of each
// thread, so a thread that ended between samples loses at most one interval.
class ThreadSampler {
 public:
  void sample(pid_t pid) {
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    DIR* folder = ::opendir(tasks.c_str());
    if (folder == nullptr) return;
    while (dirent* entry = ::readdir(folder)) {
      if (entry->d_name[0] == '.') continue;
      std::ifstream in(tasks + "/" + entry->d_name + "/stat");
      std::string line;
      if (!std::getline(in, line)) continue;
      // pid (name) state ... with utime and stime the 14th and 15th fields; the name may hold spaces.
      const std::size_t open = line.find('('), close = line.rfind(')');
      if (open == std::string::npos || close == std::string::npos) continue;
      std::istringstream rest(line.substr(close + 2));
      std::string field;
      for (int i = 3; i <= 13 && rest >> field; ++i) {
      }
      long long user = 0, system = 0;
      if (!(rest >> user >> system)) continue;
      // The main thread apart from the helper threads that inherited its name.
      std::string name = line.substr(open + 1, close - open - 1);
      if (std::to_string(pid) == entry->d_name) name += " (main)";
      threads_[entry->d_name] = {name, user + system};
    }
    ::closedir(folder);
  }

  std::string summary() const {
    std::map<std::string, long long> byName;
    for (const auto& [tid, thread] : threads_) byName[thread.name] += thread.ticks;
    std::vector<std::pair<long long, std::string>> sorted;
    for (const auto& [name, ticks] : byName) sorted.emplace_back(ticks, name);
    std::sort(sorted.rbegin(), sorted.rend());
    const double tick = 1.0 / double(::sysconf(_SC_CLK_TCK));
    std::string text;
    for (const auto& [ticks, name] : sorted) {
      char part[96];
      std::snprintf(part, sizeof part, "%s%s %.2f s", text.empty() ? "" : ", ", name.c_str(), double(ticks) * tick);
      text += part;
    }
    return text;
  }

 private:
  struct Thread {
    std::string name;
    long long ticks = 0;
  };
  std::map<std::string, Thread> threads_;
};

}  // namespace vumo::bench
