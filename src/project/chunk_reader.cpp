#include "project/chunk_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <string>

#include <fmt/format.h>
#include <simdjson.h>

#include "project/chunk_store.h"
#include "shared/error.h"

namespace vumo {

namespace {

using simdjson::dom::element;
using simdjson::dom::element_type;
using simdjson::dom::object;

[[noreturn]] void fail(const std::string& message) { throw DecodingError(message); }

std::string keyText(std::string_view key) { return "key " + std::string(key); }

object objectOf(element e, std::string_view context) {
  object o;
  if (e.get_object().get(o) != simdjson::SUCCESS) fail("Expected an object around " + keyText(context));
  return o;
}

std::int64_t int64Of(element e, std::string_view key) {
  switch (e.type()) {
    case element_type::INT64:
      return e.get_int64().value_unsafe();
    case element_type::DOUBLE: {
      // A whole number written with a fraction part ("3.0") still reads as an integer.
      double d = e.get_double().value_unsafe();
      if (d >= -9.2e18 && d <= 9.2e18 && std::trunc(d) == d) return static_cast<std::int64_t>(d);
      break;
    }
    default:
      break;
  }
  fail("Expected an integer for " + keyText(key));
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
  if (!ok || v > maximum) fail("Expected an unsigned integer in range for " + keyText(key));
  return v;
}

double doubleOf(element e, std::string_view key) {
  switch (e.type()) {
    case element_type::DOUBLE:
      return e.get_double().value_unsafe();
    case element_type::INT64:
      return static_cast<double>(e.get_int64().value_unsafe());
    case element_type::UINT64:
      return static_cast<double>(e.get_uint64().value_unsafe());
    default:
      fail("Expected a number for " + keyText(key));
  }
}

std::string_view stringOf(element e, std::string_view key) {
  std::string_view s;
  if (e.get_string().get(s) != simdjson::SUCCESS) fail("Expected a string for " + keyText(key));
  return s;
}

// The fields of one object that a record knows, by position in `names`. As in the document
// reader, a repeated key counts with its last value only, and a null value is a missing key.
template <std::size_t N>
struct Fields {
  const std::string_view (&names)[N];
  element values[N];
  bool seen[N] = {};

  Fields(element e, std::string_view context, const std::string_view (&fieldNames)[N]) : names(fieldNames) {
    for (auto field : objectOf(e, context)) {
      for (std::size_t i = 0; i < N; ++i) {
        if (field.key == names[i]) {
          values[i] = field.value;
          seen[i] = true;
          break;
        }
      }
    }
  }
  bool has(std::size_t i) const { return seen[i] && !values[i].is_null(); }
  element required(std::size_t i) const {
    if (!has(i)) fail("Missing key " + std::string(names[i]));
    return values[i];
  }
};

ProjectTime timeOf(element e, std::string_view key) {
  static constexpr std::string_view names[] = {"nanoseconds"};
  Fields<1> f(e, key, names);
  return ProjectTime{int64Of(f.required(0), names[0])};
}

PointValue pointOf(element e, std::string_view key) {
  static constexpr std::string_view names[] = {"x", "y"};
  Fields<2> f(e, key, names);
  return PointValue{doubleOf(f.required(0), names[0]), doubleOf(f.required(1), names[1])};
}

SizeValue sizeOf(element e, std::string_view key) {
  static constexpr std::string_view names[] = {"width", "height"};
  Fields<2> f(e, key, names);
  return SizeValue{doubleOf(f.required(0), names[0]), doubleOf(f.required(1), names[1])};
}

PixelSize pixelSizeOf(element e, std::string_view key) {
  static constexpr std::string_view names[] = {"width", "height"};
  Fields<2> f(e, key, names);
  return PixelSize{int64Of(f.required(0), names[0]), int64Of(f.required(1), names[1])};
}

RectValue rectOf(element e, std::string_view key) {
  static constexpr std::string_view names[] = {"x", "y", "width", "height"};
  Fields<4> f(e, key, names);
  return RectValue{doubleOf(f.required(0), names[0]), doubleOf(f.required(1), names[1]),
                   doubleOf(f.required(2), names[2]), doubleOf(f.required(3), names[3])};
}

void decodeRecord(element e, MouseEvent& m) {
  static constexpr std::string_view names[] = {"rawTimestampNanoseconds", "time",        "globalPoint",
                                               "localPoint",              "normalizedPoint", "geometryRevision",
                                               "button",                  "phase",       "isInsideSource"};
  Fields<9> f(e, "MouseEvent", names);
  m.rawTimestampNanoseconds = unsignedOf(f.required(0), names[0], UINT64_MAX);
  m.time = timeOf(f.required(1), names[1]);
  m.globalPoint = pointOf(f.required(2), names[2]);
  m.localPoint = pointOf(f.required(3), names[3]);
  m.normalizedPoint = pointOf(f.required(4), names[4]);
  m.geometryRevision = static_cast<std::uint32_t>(unsignedOf(f.required(5), names[5], UINT32_MAX));
  m.button = mouseButtonFromString(stringOf(f.required(6), names[6]));
  m.phase = mousePhaseFromString(stringOf(f.required(7), names[7]));
  m.isInsideSource.reset();
  if (f.has(8)) {
    bool inside;
    if (f.values[8].get_bool().get(inside) != simdjson::SUCCESS) fail("Expected a boolean for key isInsideSource");
    m.isInsideSource = inside;
  }
}

void decodeRecord(element e, GeometrySample& g) {
  static constexpr std::string_view names[] = {"time",          "revision", "globalWindowFrame", "sourceContentSize",
                                               "encodedPixelSize", "contentRectInEncodedFrame", "scaleFactor"};
  Fields<7> f(e, "GeometrySample", names);
  g.time = timeOf(f.required(0), names[0]);
  g.revision = static_cast<std::uint32_t>(unsignedOf(f.required(1), names[1], UINT32_MAX));
  g.globalWindowFrame = rectOf(f.required(2), names[2]);
  g.sourceContentSize = sizeOf(f.required(3), names[3]);
  g.encodedPixelSize = pixelSizeOf(f.required(4), names[4]);
  g.contentRectInEncodedFrame = rectOf(f.required(5), names[5]);
  g.scaleFactor = doubleOf(f.required(6), names[6]);
}

void decodeRecord(element e, CursorShapeSample& c) {
  static constexpr std::string_view names[] = {"time", "assetID"};
  Fields<2> f(e, "CursorShapeSample", names);
  c.time = timeOf(f.required(0), names[0]);
  c.assetID = std::string(stringOf(f.required(1), names[1]));
}

// The fewest bytes one record can take in a chunk (compact, all numbers one digit, plus a comma).
// Reserving total bytes / this is an upper bound on the count; the part of the reservation that
// is never filled is address space only, never touched, so it costs no memory.
template <class Record>
constexpr std::size_t minimumEncodedBytes();
template <>
constexpr std::size_t minimumEncodedBytes<MouseEvent>() { return 190; }
template <>
constexpr std::size_t minimumEncodedBytes<GeometrySample>() { return 255; }
template <>
constexpr std::size_t minimumEncodedBytes<CursorShapeSample>() { return 38; }

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

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

  std::string_view readFile(const std::filesystem::path& path) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat info {};
    if (fd.get() < 0 || ::fstat(fd.get(), &info) != 0)
      throw FileError(fmt::format("Could not read {}: {}", path.string(), std::strerror(errno)));
    // One byte more than the size, so end of file is seen without growing.
    reserve(static_cast<std::size_t>(info.st_size) + 1);
    std::size_t length = 0;
    for (;;) {
      std::size_t room = capacity - simdjson::SIMDJSON_PADDING - length;
      if (room == 0) {
        grow(length);  // the file grew since fstat
        continue;
      }
      ssize_t n = ::read(fd.get(), buffer.get() + length, room);
      if (n < 0) {
        if (errno == EINTR) continue;
        throw FileError(fmt::format("Could not read {}: {}", path.string(), std::strerror(errno)));
      }
      if (n == 0) break;
      length += static_cast<std::size_t>(n);
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
  element root;
  auto error = state_->parser.parse(reinterpret_cast<const std::uint8_t*>(data), bytes.size(), false).get(root);
  if (error != simdjson::SUCCESS)
    fail(fmt::format("The data isn't valid JSON: {}", simdjson::error_message(error)));
  simdjson::dom::array array;
  if (root.get_array().get(array) != simdjson::SUCCESS) fail("Expected an array for value");
  for (element e : array) {
    Record& record = out.emplace_back();
    decodeRecord(e, record);
  }
}

template <class Record>
std::vector<Record> ChunkReader::readFolder(const std::filesystem::path& directory) {
  auto files = ChunkFiles::existingChunkURLs(directory);
  std::uintmax_t totalBytes = 0;
  for (const auto& file : files) {
    std::error_code ignored;
    auto size = std::filesystem::file_size(file, ignored);
    if (!ignored) totalBytes += size;
  }
  std::vector<Record> records;
  records.reserve(static_cast<std::size_t>(totalBytes / minimumEncodedBytes<Record>() + 1));
  for (const auto& file : files) {
    std::string_view bytes = state_->readFile(file);
    try {
      decodeInto(bytes, records);
    } catch (const DecodingError& e) {
      throw DecodingError(fmt::format("Chunk {} could not be decoded: {}", file.string(), e.what()));
    }
  }
  return records;
}

std::vector<MouseEvent> ChunkReader::readMouseEvents(const std::filesystem::path& directory) {
  return readFolder<MouseEvent>(directory);
}
std::vector<GeometrySample> ChunkReader::readGeometrySamples(const std::filesystem::path& directory) {
  return readFolder<GeometrySample>(directory);
}
std::vector<CursorShapeSample> ChunkReader::readCursorShapeSamples(const std::filesystem::path& directory) {
  return readFolder<CursorShapeSample>(directory);
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
