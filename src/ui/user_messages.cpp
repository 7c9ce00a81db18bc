#include "ui/user_messages.h"

#include <new>

#include "shared/error.h"

namespace vumo {

std::string userMessageFor(const std::exception& error) {
  if (const auto* known = dynamic_cast<const Error*>(&error)) return known->message();
  if (dynamic_cast<const CancelledError*>(&error) != nullptr) return "The operation was cancelled.";
  if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) return "There is not enough memory to finish this.";
  const std::string text = error.what();
  if (text.empty()) return "Something went wrong.";
  return text;
}

}  // namespace vumo
