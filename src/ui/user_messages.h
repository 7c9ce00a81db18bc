#pragma once

// The one place that words a failure for a person. Every window and flow of the application shows
// a failure through this, so the same failure reads the same wherever it surfaces.

#include <exception>
#include <string>

namespace vumo {

// An error of the program's families reads as its catalogue's English text with its payload; a
// cancellation and the few library exceptions a person could meet get a sentence of their own;
// anything else its own text, or a plain sentence where it has none.
std::string userMessageFor(const std::exception& error);

}  // namespace vumo
