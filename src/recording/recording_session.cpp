#include "recording/recording_session.h"

namespace vumo {

bool RecordingLiveStatusThrottle::shouldPublish(std::uint64_t nowNanoseconds) {
  if (lastPublishUptimeNanoseconds_) {
    std::uint64_t last = *lastPublishUptimeNanoseconds_;
    if (nowNanoseconds < last || nowNanoseconds - last < minimumIntervalNanoseconds) return false;
  }
  lastPublishUptimeNanoseconds_ = nowNanoseconds;
  return true;
}

}  // namespace vumo
