#pragma once

// Where the program limits text to a number of "characters" (caption cues, annotation text, the
// reasons of an edit plan) it means user-perceived characters: extended grapheme clusters of
// UTF-8 text. A flag, a family emoji or a letter with combining accents counts once, as a person
// reading it would count it.

#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>

struct UBreakIterator;

namespace vumo {

// Counts extended grapheme clusters with ICU's character break rules. ICU's rules are loaded on
// the first text that needs them and kept, so one counter checking every cue of a document opens
// them at most once and one that only sees ASCII never does. Not thread-safe; make one per thread.
class GraphemeClusterCounter {
 public:
  GraphemeClusterCounter();
  ~GraphemeClusterCounter();
  GraphemeClusterCounter(const GraphemeClusterCounter&) = delete;
  GraphemeClusterCounter& operator=(const GraphemeClusterCounter&) = delete;

  std::size_t count(std::string_view utf8);

  // True when `utf8` holds more than `limit` clusters. Short and plain ASCII texts are decided
  // without ICU, and counting stops at the first cluster beyond the limit.
  bool exceeds(std::string_view utf8, std::size_t limit);

 private:
  struct IteratorCloser {
    void operator()(UBreakIterator* iterator) const noexcept;
  };
  std::size_t countClusters(std::string_view utf8, std::optional<std::size_t> stopAfter);

  std::unique_ptr<UBreakIterator, IteratorCloser> iterator_;
};

// Convenience for a single text.
std::size_t graphemeClusterCount(std::string_view utf8);

}  // namespace vumo
