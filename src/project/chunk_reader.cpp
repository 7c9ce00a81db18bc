#include "project/chunk_reader.h"

#include <fmt/format.h>
#include <simdjson.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>

#include "project/chunk_store.h"
#include "shared/cancellation.h"
#include "shared/document_limits.h"
#include "shared/error.h"
#include "shared/files.h"
#include "shared/json.h"

namespace vumo {

namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;
using simdjson::dom::object;

[[noreturn]] void fail(const std::string& message) { throw DecodingError(message); }

// The failure paths are kept out of line, so the hot readers stay small enough to inline.
[[noreturn, gnu::cold, gnu::noinline]] void failExpected(const char* what, std::string_view key) {
  fail(std::string("Expected ") + what + " for key " + std::string(key));
}
[[noreturn, gnu::cold, gnu::noinline]] void failMissing(std::string_view key) {
  fail("Missing key " + std::string(key));
}
[[noreturn, gnu::cold, gnu::noinline]] void failNotObject(std::string_view context) {
  fail("Expected an object around key " + std::string(context));
}

object objectOf(element e, std::string_view context) {
  object o;
  if (e.get_object().get(o) != simdjson::SUCCESS) failNotObject(context);
  return o;
}

std::int64_t int64Of(element e, std::string_view key) {
  switch (e.type()) {
    case element_type::INT64: return e.get_int64().value_unsafe();
    case element_type::DOUBLE: {
      // A whole number written with a fraction part ("3.0") still reads as an integer.
      double d = e.get_double().value_unsafe();
      if (d >= -9.2e18 && d <= 9.2e18 && std::trunc(d) == d) return static_cast<std::int64_t>(d);
      break;
    }
    default: break;
  }
  failExpected("an integer", key);
}

std::uint64_t unsignedOf(element e, std::string_view key, std::uint64_t maximum) {
  std::uint64_t v = 0;
  bool ok = false;
  if (e.type() == element_type::UINT64) {
    v = e.get_uint64().value_unsafe();
    ok = true;
  } else if (e.type() == element_type::INT64) {
    std::int64_t s = e.get_int64().value_unsafe();
    ok = s >= 0;
    v = static_cast<std::uint64_t>(s);
  }
  if (!ok || v > maximum) failExpected("an unsigned integer in range", key);
  return v;
}

double doubleOf(element e, std::string_view key) {
  double d;
  // Also reads integers, as the document reader does.
  if (e.get_double().get(d) != simdjson::SUCCESS) failExpected("a number", key);
  return d;
}

std::string_view stringOf(element e, std::string_view key) {
  std::string_view s;
  if (e.get_string().get(s) != simdjson::SUCCESS) failExpected("a string", key);
  return s;
}

inline std::uint64_t word(const char* p) {
  std::uint64_t w;
  std::memcpy(&w, p, sizeof w);
  return w;
}

// Keys are a few bytes long and compared once per field of every record: eight bytes at a time,
// in line, is much cheaper than a call to memcmp or a loop over bytes.
inline bool sameKey(std::string_view a, std::string_view b) {
  const std::size_t n = a.size();
  if (n != b.size()) return false;
  if (n < 8) {
    for (std::size_t i = 0; i < n; ++i)
      if (a[i] != b[i]) return false;
    return true;
  }
  for (std::size_t i = 0; i + 8 < n; i += 8)
    if (word(a.data() + i) != word(b.data() + i)) return false;
  return word(a.data() + n - 8) == word(b.data() + n - 8);
}

// The fields of one object that a record knows, by position in `names`. As in the document
// reader, a repeated key counts with its last value only, and a null value is a missing key.
// `names` are in sorted order, which is how chunk files are written, so the name after the last
// match is tried first and usually is the one.
template <std::size_t N>
struct Fields {
  const std::string_view (&names)[N];
  element values[N];
  bool seen[N] = {};

  Fields(element e, std::string_view context, const std::string_view (&fieldNames)[N]) : names(fieldNames) {
    std::size_t guess = 0;
    for (auto field : objectOf(e, context)) {
      std::size_t found = N;
      if (guess < N && sameKey(field.key, names[guess])) {
        found = guess;
      } else {
        for (std::size_t i = 0; i < N; ++i)
          if (sameKey(field.key, names[i])) {
            found = i;
            break;
          }
      }
      if (found == N) continue;  // a key of a later format: ignored
      values[found] = field.value;
      seen[found] = true;
      guess = found + 1;
    }
  }
  bool has(std::size_t i) const { return seen[i] && !values[i].is_null(); }
  element required(std::size_t i) const {
    if (!has(i)) failMissing(names[i]);
    return values[i];
  }
};

ProjectTime timeOf(element e, std::string_view key) {
  static constexpr std::string_view names[] = {"nanoseconds"};
  Fields<1> f(e, key, names);
  return ProjectTime{int64Of(f.required(0), names[0])};
}

// Three points in every pointer event: worth a reader of their own.
PointValue pointOf(element e, std::string_view key) {
  element x, y;
  bool hasX = false, hasY = false;
  for (auto field : objectOf(e, key)) {
    if (field.key.size() != 1) continue;
    if (field.key[0] == 'x') {
      x = field.value;
      hasX = !x.is_null();
    } else if (field.key[0] == 'y') {
      y = field.value;
      hasY = !y.is_null();
    }
  }
  if (!hasX) failMissing("x");
  if (!hasY) failMissing("y");
  return PointValue{doubleOf(x, "x"), doubleOf(y, "y")};
}

SizeValue sizeOf(element e, std::string_view key) {
  static constexpr std::string_view names[] = {"height", "width"};
  Fields<2> f(e, key, names);
  return SizeValue{doubleOf(f.required(1), names[1]), doubleOf(f.required(0), names[0])};
}

PixelSize pixelSizeOf(element e, std::string_view key) {
  static constexpr std::string_view names[] = {"height", "width"};
  Fields<2> f(e, key, names);
  return PixelSize{int64Of(f.required(1), names[1]), int64Of(f.required(0), names[0])};
}

RectValue rectOf(element e, std::string_view key) {
  static constexpr std::string_view names[] = {"height", "width", "x", "y"};
  Fields<4> f(e, key, names);
  return RectValue{doubleOf(f.required(2), names[2]), doubleOf(f.required(3), names[3]),
                   doubleOf(f.required(1), names[1]), doubleOf(f.required(0), names[0])};
}

// The case names come from the enumeration's own name table; anything else fails as the document
// reader fails on it.
template <NamedEnum E>
E caseOf(element e, std::string_view key) {
  std::string_view text = stringOf(e, key);
  for (const auto& [candidate, name] : EnumNames<E>::table)
    if (sameKey(text, name)) return candidate;
  return decodeName<E>(text);
}

void decodeRecord(element e, MouseEvent& m) {
  static constexpr std::string_view names[] = {
      "button", "geometryRevision",        "globalPoint", "isInsideSource", "localPoint", "normalizedPoint",
      "phase",  "rawTimestampNanoseconds", "time"};
  Fields<9> f(e, "MouseEvent", names);
  m.button = caseOf<MouseButton>(f.required(0), names[0]);
  m.geometryRevision = static_cast<std::uint32_t>(unsignedOf(f.required(1), names[1], UINT32_MAX));
  m.globalPoint = pointOf(f.required(2), names[2]);
  m.isInsideSource.reset();
  if (f.has(3)) {
    bool inside;
    if (f.values[3].get_bool().get(inside) != simdjson::SUCCESS) failExpected("a boolean", names[3]);
    m.isInsideSource = inside;
  }
  m.localPoint = pointOf(f.required(4), names[4]);
  m.normalizedPoint = pointOf(f.required(5), names[5]);
  m.phase = caseOf<MousePhase>(f.required(6), names[6]);
  m.rawTimestampNanoseconds = unsignedOf(f.required(7), names[7], UINT64_MAX);
  m.time = timeOf(f.required(8), names[8]);
}

void decodeRecord(element e, GeometrySample& g) {
  static constexpr std::string_view names[] = {"contentRectInEncodedFrame",
                                               "encodedPixelSize",
                                               "globalWindowFrame",
                                               "revision",
                                               "scaleFactor",
                                               "sourceContentSize",
                                               "time"};
  Fields<7> f(e, "GeometrySample", names);
  g.contentRectInEncodedFrame = rectOf(f.required(0), names[0]);
  g.encodedPixelSize = pixelSizeOf(f.required(1), names[1]);
  g.globalWindowFrame = rectOf(f.required(2), names[2]);
  g.revision = static_cast<std::uint32_t>(unsignedOf(f.required(3), names[3], UINT32_MAX));
  g.scaleFactor = doubleOf(f.required(4), names[4]);
  g.sourceContentSize = sizeOf(f.required(5), names[5]);
  g.time = timeOf(f.required(6), names[6]);
}

void decodeRecord(element e, CursorShapeSample& c) {
  static constexpr std::string_view names[] = {"assetID", "time"};
  Fields<2> f(e, "CursorShapeSample", names);
  c.assetID = std::string(stringOf(f.required(0), names[0]));
  c.time = timeOf(f.required(1), names[1]);
}

// The fewest bytes one record can take in a chunk (compact, all numbers one digit, plus a comma).
// Reserving total bytes / this is an upper bound on the count; the part of the reservation that
// is never filled is address space only, never touched, so it costs no memory.
template <class Record>
constexpr std::size_t minimumEncodedBytes();
template <>
constexpr std::size_t minimumEncodedBytes<MouseEvent>() {
  return 190;
}
template <>
constexpr std::size_t minimumEncodedBytes<GeometrySample>() {
  return 255;
}
template <>
constexpr std::size_t minimumEncodedBytes<CursorShapeSample>() {
  return 38;
}

}  // namespace

struct ChunkReader::State {
  simdjson::dom::parser parser;
  std::unique_ptr<char[]> buffer;
  std::size_t capacity = 0;

  // simdjson reads up to SIMDJSON_PADDING bytes past the end of the text.
  char* reserve(std::size_t size) {
    if (size + simdjson::SIMDJSON_PADDING > capacity) {
      capacity = (size + simdjson::SIMDJSON_PADDING) * 5 / 4;
      buffer.reset(new char[capacity]);
    }
    return buffer.get();
  }

  void grow(std::size_t keep) {
    std::unique_ptr<char[]> bigger(new char[capacity * 2]);
    std::memcpy(bigger.get(), buffer.get(), keep);
    buffer = std::move(bigger);
    capacity *= 2;
  }

  // As shared/files.h's readFile (regular files only, never blocking, within the chunk limit),
  // into the padded buffer.
  std::string_view readFile(const std::filesystem::path& path) {
    RegularFileReader file(path, documentLimits::chunkBytes);
    // One byte more than the size, so end of file is seen without growing.
    reserve(file.sizeAtOpening() + 1);
    std::size_t length = 0;
    for (;;) {
      std::size_t room = capacity - simdjson::SIMDJSON_PADDING - length;
      if (room == 0) {
        grow(length);  // the file grew since it was opened
        continue;
      }
      std::size_t n = file.read(buffer.get() + length, room);
      if (n == 0) break;
      length += n;
    }
    std::memset(buffer.get() + length, 0, simdjson::SIMDJSON_PADDING);
    return {buffer.get(), length};
  }
};

ChunkReader::ChunkReader() : state_(std::make_unique<State>()) {}
ChunkReader::~ChunkReader() = default;

template <class Record>
void ChunkReader::decodeInto(std::string_view bytes, std::vector<Record>& out) {
  // The padded parse needs SIMDJSON_PADDING readable bytes after the text; copy when the caller's
  // bytes are not already in our buffer.
  const char* data = bytes.data();
  if (data != state_->buffer.get()) {
    char* copy = state_->reserve(bytes.size());
    std::memcpy(copy, bytes.data(), bytes.size());
    std::memset(copy + bytes.size(), 0, simdjson::SIMDJSON_PADDING);
    data = copy;
  }
  std::size_t length = bytes.size();
  // A byte order mark is allowed at the start, as the document reader allows it.
  if (bytes.starts_with("\xEF\xBB\xBF")) {
    data += 3;
    length -= 3;
  }
  element root;
  auto error = state_->parser.parse(reinterpret_cast<const std::uint8_t*>(data), length, false).get(root);
  if (error == simdjson::NUMBER_ERROR) {
    // simdjson refuses integers beyond 64 bits, which the document reader reads as doubles (and
    // then accepts, in a key it ignores or a floating-point field). Such a chunk is not ours, but
    // it is read exactly as everything else would read it.
    Json document = parseJson(bytes);
    json::requireArray(document, "");
    for (const Json& element : document) out.push_back(json::as<Record>(element, ""));
    return;
  }
  if (error != simdjson::SUCCESS) fail(fmt::format("The data isn't valid JSON: {}", simdjson::error_message(error)));
  simdjson::dom::array array;
  if (root.get_array().get(array) != simdjson::SUCCESS) fail("Expected an array for value");
  for (element e : array) {
    Record& record = out.emplace_back();
    decodeRecord(e, record);
  }
}

template <class Record>
std::vector<Record> ChunkReader::readFolder(const std::filesystem::path& directory, const std::stop_token& stop) {
  auto files = ChunkFiles::existingChunkPaths(directory);
  std::uintmax_t totalBytes = 0;
  for (const auto& file : files) {
    std::error_code ignored;
    auto size = std::filesystem::file_size(file, ignored);
    // A file over the limit is refused when its turn comes; it must not size the reservation.
    if (!ignored && size <= documentLimits::chunkBytes) totalBytes += size;
  }
  std::vector<Record> records;
  records.reserve(static_cast<std::size_t>(totalBytes / minimumEncodedBytes<Record>() + 1));
  for (const auto& file : files) {
    throwIfCancelled(stop);
    std::string_view bytes = state_->readFile(file);
    try {
      decodeInto(bytes, records);
    } catch (const DecodingError& e) {
      throw DecodingError(fmt::format("Chunk {} could not be decoded: {}", file.string(), e.what()));
    }
  }
  return records;
}

std::vector<MouseEvent> ChunkReader::readMouseEvents(const std::filesystem::path& directory,
                                                     const std::stop_token& stop) {
  return readFolder<MouseEvent>(directory, stop);
}
std::vector<GeometrySample> ChunkReader::readGeometrySamples(const std::filesystem::path& directory,
                                                             const std::stop_token& stop) {
  return readFolder<GeometrySample>(directory, stop);
}
std::vector<CursorShapeSample> ChunkReader::readCursorShapeSamples(const std::filesystem::path& directory,
                                                                   const std::stop_token& stop) {
  return readFolder<CursorShapeSample>(directory, stop);
}

std::vector<MouseEvent> ChunkReader::decodeMouseEvents(std::string_view bytes) {
  std::vector<MouseEvent> out;
  decodeInto(bytes, out);
  return out;
}
std::vector<GeometrySample> ChunkReader::decodeGeometrySamples(std::string_view bytes) {
  std::vector<GeometrySample> out;
  decodeInto(bytes, out);
  return out;
}
std::vector<CursorShapeSample> ChunkReader::decodeCursorShapeSamples(std::string_view bytes) {
  std::vector<CursorShapeSample> out;
  decodeInto(bytes, out);
  return out;
}

}  // namespace vumo
