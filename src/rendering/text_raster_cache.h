#pragma once
// A bounded cache of drawn text: the least recently used entry goes when it is full. The lock is
// held for a lookup or an insertion only, never while drawing, so two threads may draw the same key
// at once; the first insertion wins and both get its raster.

#include <cstddef>
#include <list>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "rendering/text_raster.h"

namespace vumo {

class TextRasterCache {
 public:
  explicit TextRasterCache(std::size_t capacity) : capacity_(capacity) {}

  SharedTextRaster find(const std::string& key) {
    std::lock_guard guard(lock_);
    auto found = index_.find(key);
    if (found == index_.end()) return nullptr;
    entries_.splice(entries_.begin(), entries_, found->second);
    return found->second->second;
  }

  // The raster now held for `key`: `raster`, or one another thread inserted first.
  SharedTextRaster insert(const std::string& key, SharedTextRaster raster) {
    std::lock_guard guard(lock_);
    if (auto found = index_.find(key); found != index_.end()) {
      entries_.splice(entries_.begin(), entries_, found->second);
      return found->second->second;
    }
    entries_.emplace_front(key, std::move(raster));
    index_.emplace(key, entries_.begin());
    while (entries_.size() > capacity_) {
      index_.erase(entries_.back().first);
      entries_.pop_back();
    }
    return entries_.front().second;
  }

 private:
  using Entry = std::pair<std::string, SharedTextRaster>;
  std::mutex lock_;
  std::size_t capacity_;
  std::list<Entry> entries_;  // most recently used first
  std::unordered_map<std::string, std::list<Entry>::iterator> index_;
};

}  // namespace vumo
