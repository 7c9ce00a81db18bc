#include <ctime>

#include "capture/capture_streams.h"

namespace vumo {

std::uint64_t monotonicNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::uint64_t(now.tv_sec) * 1'000'000'000u + std::uint64_t(now.tv_nsec);
}

}  // namespace vumo
