#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <stop_token>
#include <string_view>
#include <vector>

#include "project/cursor_records.h"
#include "project/geometry_sample.h"
#include "timeline/mouse_event.h"

namespace vumo {

// Reads chunk files back. A recording of an hour holds hundreds of thousands of pointer events,
// so this is the one place that does not go through the document JSON library: each file is
// parsed with simdjson and walked straight into the records. What it accepts and rejects is
// the same as the records' from_json (a fuzz target holds the two to that).
//
// One reader reuses its parser and read buffer across files; it is not thread-safe.
class ChunkReader {
 public:
  ChunkReader();
  ~ChunkReader();
  ChunkReader(const ChunkReader&) = delete;
  ChunkReader& operator=(const ChunkReader&) = delete;

  // The chunks of a folder (ChunkFiles::existingChunkPaths) in name order, concatenated. A chunk
  // that does not decode is a DecodingError naming the file; one that is not a regular file or is
  // larger than documentLimits::chunkBytes is a FileError; a missing folder is empty. `stop` is
  // checked before each file (CancelledError).
  std::vector<MouseEvent> readMouseEvents(const std::filesystem::path& directory, const std::stop_token& stop = {});
  std::vector<GeometrySample> readGeometrySamples(const std::filesystem::path& directory,
                                                  const std::stop_token& stop = {});
  std::vector<CursorShapeSample> readCursorShapeSamples(const std::filesystem::path& directory,
                                                        const std::stop_token& stop = {});

  // One chunk's bytes.
  std::vector<MouseEvent> decodeMouseEvents(std::string_view bytes);
  std::vector<GeometrySample> decodeGeometrySamples(std::string_view bytes);
  std::vector<CursorShapeSample> decodeCursorShapeSamples(std::string_view bytes);

 private:
  struct State;
  template <class Record>
  std::vector<Record> readFolder(const std::filesystem::path& directory, const std::stop_token& stop);
  template <class Record>
  void decodeInto(std::string_view bytes, std::vector<Record>& out);

  std::unique_ptr<State> state_;
};

}  // namespace vumo
