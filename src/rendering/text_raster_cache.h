#pragma once
// A bounded cache of drawn text, in entries and in pixel bytes (a full-screen annotation at 4K is
// some 30 MB): the least recently used entries go when either is exceeded, though the newest always
// stays. The lock is
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
  TextRasterCache(std::size_t entryLimit, std::size_t byteLimit) : entryLimit_(entryLimit), byteLimit_(byteLimit) {}

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
    bytes_ += byteSize(raster);
    entries_.emplace_front(key, std::move(raster));
    index_.emplace(key, entries_.begin());
    while (entries_.size() > 1 && (entries_.size() > entryLimit_ || bytes_ > byteLimit_)) {
      bytes_ -= byteSize(entries_.back().second);
      index_.erase(entries_.back().first);
      entries_.pop_back();
    }
    return entries_.front().second;
  }

 private:
  using Entry = std::pair<std::string, SharedTextRaster>;

  static std::size_t byteSize(const SharedTextRaster& raster) { return raster ? raster->image.pixels.size() : 0; }

  std::mutex lock_;
  std::size_t entryLimit_;
  std::size_t byteLimit_;
  std::size_t bytes_ = 0;
  std::list<Entry> entries_;  // most recently used first
  std::unordered_map<std::string, std::list<Entry>::iterator> index_;
};

}  // namespace vumo
