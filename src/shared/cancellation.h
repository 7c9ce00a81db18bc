#pragma once

#include <stop_token>

#include "shared/error.h"

namespace vumo {

// Long-running media work calls this at its cancellation points. Work without such points (a
// commit among them) runs to its end whatever the user asked.
inline void throwIfCancelled(const std::stop_token& token) {
  if (token.stop_requested()) throw CancelledError();
}

}  // namespace vumo
