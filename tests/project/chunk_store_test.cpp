#include "project/chunk_store.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <thread>

#include "project/chunk_reader.h"
#include "shared/error.h"
#include "shared/files.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;

MouseEvent eventAt(std::int64_t nanoseconds, std::uint64_t serial = 0) {
  MouseEvent e;
  e.rawTimestampNanoseconds = 1'000'000'000'000ull + serial;
  e.time = {nanoseconds};
  e.globalPoint = {100.25 + static_cast<double>(serial), 200.5};
  e.localPoint = {0.25, 0.5};
  e.normalizedPoint = {0.125, 0.0625};
  e.geometryRevision = 1;
  e.button = serial % 7 == 0 ? MouseButton::left : MouseButton::none;
  e.phase = serial % 7 == 0 ? MousePhase::down : MousePhase::moved;
  if (serial % 3 == 0) e.isInsideSource = serial % 2 == 0;
  return e;
}

using MouseChunkStore = ChunkStore<MouseEvent>;

std::unique_ptr<MouseChunkStore> standardStore(const fs::path& directory) {
  return std::make_unique<MouseChunkStore>(directory, standardChunkMaximumCount, standardChunkMaximumSpan,
                                           [](const MouseEvent& e) { return e.time; });
}

std::vector<std::size_t> chunkSizes(const fs::path& directory) {
  std::vector<std::size_t> sizes;
  ChunkReader reader;
  for (const auto& file : ChunkFiles::existingChunkPaths(directory))
    sizes.push_back(reader.decodeMouseEvents(readFile(file, SIZE_MAX)).size());
  return sizes;
}

std::vector<std::string> names(const std::vector<fs::path>& paths) {
  std::vector<std::string> out;
  for (const auto& p : paths) out.push_back(p.filename().string());
  return out;
}

TEST(ChunkStore, TheFiveHundredthRecordClosesAChunkAndTheNextStartsANewOne) {
  testing::TemporaryDirectory dir;
  auto store = standardStore(dir.path() / "events");
  for (int i = 0; i < 501; ++i) store->append(eventAt(0, i));
  store->flush();
  EXPECT_EQ(chunkSizes(dir.path() / "events"), (std::vector<std::size_t>{500, 1}));
  EXPECT_EQ(names(ChunkFiles::existingChunkPaths(dir.path() / "events")),
            (std::vector<std::string>{"000000.json", "000001.json"}));
}

TEST(ChunkStore, ARecordTwoSecondsAfterTheFirstClosesTheChunkWithItself) {
  struct Case {
    std::vector<std::int64_t> times;
    std::vector<std::size_t> expected;
  };
  const Case cases[] = {
      {{0, 1'000'000'000, 2'000'000'000, 2'500'000'000}, {3, 1}},
      {{0, 1'999'999'999}, {2}},
      {{5'000'000'000, 7'000'000'000, 7'000'000'001}, {2, 1}},
      // Out-of-order times never close a chunk early.
      {{5'000'000'000, 1'000'000'000}, {2}},
  };
  for (const auto& c : cases) {
    testing::TemporaryDirectory dir;
    auto store = standardStore(dir.path());
    for (std::size_t i = 0; i < c.times.size(); ++i) store->append(eventAt(c.times[i], i));
    store->flush();
    EXPECT_EQ(chunkSizes(dir.path()), c.expected);
  }
}

TEST(ChunkStore, FlushWithNothingBufferedWritesNoFile) {
  testing::TemporaryDirectory dir;
  auto store = standardStore(dir.path() / "a" / "b");
  EXPECT_TRUE(fs::is_directory(dir.path() / "a" / "b"));
  store->flush();
  store->flush();
  EXPECT_TRUE(ChunkFiles::existingChunkPaths(dir.path() / "a" / "b").empty());
}

TEST(ChunkStore, ANewStoreContinuesAfterTheHighestExistingChunk) {
  testing::TemporaryDirectory dir;
  for (int i = 0; i < 5; ++i) writeFileAtomically(dir.path() / ChunkFiles::fileName(i), "[]");
  writeFileAtomically(dir.path() / "notes.json", "[]");
  writeFileAtomically(dir.path() / "active.tmp", "[");
  {
    auto store = standardStore(dir.path());
    store->append(eventAt(0));
    store->flush();
  }
  EXPECT_TRUE(fs::exists(dir.path() / "000005.json"));
  EXPECT_EQ(ChunkFiles::nextIndex(dir.path()), 6u);
  EXPECT_EQ(ChunkFiles::fileName(1'234'567), "1234567.json");
}

TEST(ChunkStore, ChunkFilesAreCompactSortedJsonAndReadBackInOrder) {
  testing::TemporaryDirectory dir;
  std::vector<MouseEvent> written;
  {
    auto store = standardStore(dir.path());
    for (int i = 0; i < 2'600; ++i) {
      written.push_back(eventAt(i * 1'000'000ll, i));
      store->append(written.back());
    }
    store->flush();
  }
  EXPECT_EQ(chunkSizes(dir.path()), (std::vector<std::size_t>{500, 500, 500, 500, 500, 100}));
  std::string first = readFile(dir.path() / "000000.json", SIZE_MAX);
  EXPECT_EQ(first.substr(0, 12), "[{\"button\":\"");
  EXPECT_EQ(first.find('\n'), std::string::npos);
  EXPECT_FALSE(fs::exists(dir.path() / "active.tmp"));
  ChunkReader reader;
  EXPECT_EQ(reader.readMouseEvents(dir.path()), written);
}

TEST(ChunkStore, AppendsFromSeveralThreadsAreAllKept) {
  testing::TemporaryDirectory dir;
  auto store = standardStore(dir.path());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 1'000; ++i) store->append(eventAt(0, static_cast<std::uint64_t>(t * 1'000 + i)));
    });
  for (auto& t : threads) t.join();
  store->flush();
  auto sizes = chunkSizes(dir.path());
  EXPECT_EQ(sizes, (std::vector<std::size_t>(8, 500)));
  auto events = ChunkReader().readMouseEvents(dir.path());
  std::vector<std::uint64_t> serials;
  for (const auto& e : events) serials.push_back(e.rawTimestampNanoseconds - 1'000'000'000'000ull);
  std::sort(serials.begin(), serials.end());
  for (std::uint64_t i = 0; i < serials.size(); ++i) ASSERT_EQ(serials[i], i);
}

TEST(ChunkStore, AFailedWriteIsLatchedAndThrownByEveryLaterCall) {
  testing::TemporaryDirectory dir;
  fs::path folder = dir.path() / "events";
  auto store = standardStore(folder);
  // The folder disappears under the recording and a file takes its name.
  fs::remove_all(folder);
  writeFileAtomically(folder, "not a folder");
  for (int i = 0; i < 500; ++i) store->append(eventAt(0, i));
  std::string first;
  try {
    store->flush();
    FAIL() << "flush succeeded";
  } catch (const FileError& e) {
    first = e.what();
  }
  for (int attempt = 0; attempt < 2; ++attempt) {
    try {
      store->append(eventAt(0));
      FAIL() << "append succeeded";
    } catch (const FileError& e) {
      EXPECT_EQ(first, e.what());
    }
  }
  EXPECT_THROW(store->flush(), FileError);
}

TEST(ChunkStore, ExistingChunksAreTheVisibleJsonFilesInNameOrder) {
  testing::TemporaryDirectory dir;
  for (const char* name : {"000001.json", "active.tmp", ".000002.json", "000000.json", "readme.txt", "000010.json"})
    writeFileAtomically(dir.path() / name, "[]");
  EXPECT_EQ(names(ChunkFiles::existingChunkPaths(dir.path())),
            (std::vector<std::string>{"000000.json", "000001.json", "000010.json"}));
  EXPECT_TRUE(ChunkFiles::existingChunkPaths(dir.path() / "missing").empty());
}

TEST(ChunkStore, GeometryAndCursorShapeStreamsRoundTrip) {
  testing::TemporaryDirectory dir;
  std::vector<GeometrySample> geometry;
  std::vector<CursorShapeSample> shapes;
  {
    ChunkStore<GeometrySample> g(dir.path() / "geometry", 500, standardChunkMaximumSpan,
                                 [](const GeometrySample& s) { return s.time; });
    ChunkStore<CursorShapeSample> c(dir.path() / "cursor", 500, standardChunkMaximumSpan,
                                    [](const CursorShapeSample& s) { return s.time; });
    for (std::uint32_t i = 0; i < 700; ++i) {
      geometry.push_back(
          {{i * 10'000'000ll}, i + 1, {1.5, 2, 800, 600.25}, {1600, 1200}, {1920, 1080}, {120, 0, 1440, 1080}, 2});
      shapes.push_back({{i * 10'000'000ll}, std::string(64, static_cast<char>('a' + i % 6))});
      g.append(geometry.back());
      c.append(shapes.back());
    }
    g.flush();
    c.flush();
  }
  ChunkReader reader;
  EXPECT_EQ(reader.readGeometrySamples(dir.path() / "geometry"), geometry);
  EXPECT_EQ(reader.readCursorShapeSamples(dir.path() / "cursor"), shapes);
}

// The fast reader must accept and refuse exactly what the records' from_json does.
TEST(ChunkReader, AgreesWithTheDocumentReaderOnEdgeCases) {
  const std::string valid =
      R"({"button":"left","geometryRevision":3,"globalPoint":{"x":1,"y":2.5},"localPoint":{"x":-1,"y":0},)"
      R"("normalizedPoint":{"x":0.5,"y":1},"phase":"down","rawTimestampNanoseconds":18446744073709551615,)"
      R"("time":{"nanoseconds":-5}})";
  auto with = [&](const std::string& replace, const std::string& by) {
    std::string s = valid;
    s.replace(s.find(replace), replace.size(), by);
    return "[" + s + "]";
  };
  const std::vector<std::string> inputs = {
      "[]",
      "[" + valid + "," + valid + "]",
      " \n[" + valid + "]\t",
      with(R"("phase":"down")", R"("phase":"down","isInsideSource":false)"),
      with(R"("phase":"down")", R"("phase":"down","isInsideSource":null)"),
      with(R"("phase":"down")", R"("phase":"down","extra":{"deep":[1,2,{"x":null}]})"),
      with(R"("nanoseconds":-5)", R"("nanoseconds":3.0)"),
      with(R"("nanoseconds":-5)", R"("nanoseconds":3.5)"),
      with(R"("nanoseconds":-5)", R"("nanoseconds":1e300)"),
      with(R"("nanoseconds":-5)", R"("nanoseconds":9223372036854775808)"),
      with(R"("geometryRevision":3)", R"("geometryRevision":4294967296)"),
      with(R"("geometryRevision":3)", R"("geometryRevision":-1)"),
      with(R"("geometryRevision":3)", R"("geometryRevision":3.0)"),
      with(R"("geometryRevision":3)", R"("geometryRevision":null)"),
      with(R"("geometryRevision":3,)", ""),
      with(R"("button":"left")", R"("button":"middle")"),
      with(R"("button":"left")", R"("button":1)"),
      with(R"("x":1,)", R"("x":"1",)"),
      with(R"("x":1,)", R"("x":1,"x":2,)"),
      with(R"("x":1,)", R"("x":1,"x":null,)"),
      with(R"("time":{"nanoseconds":-5})", R"("time":5)"),
      // Integers beyond 64 bits: doubles to the document reader, refused by simdjson itself.
      with(R"("x":1,)", R"("x":18446744073709551616,)"),
      with(R"("phase":"down")", R"("phase":"down","later":-9223372036854775809)"),
      with(R"("nanoseconds":-5)", R"("nanoseconds":18446744073709551616)"),
      "\xEF\xBB\xBF[" + valid + "]",
      with(R"("x":1,)", R"("x":1e400,)"),
      with(R"("phase":"down")", R"("phase":"down","isInsideSource":1)"),
      "{}",
      "[1]",
      "[" + valid + "] x",
      "[" + valid,
      "",
  };
  ChunkReader reader;
  for (const std::string& input : inputs) {
    std::optional<std::vector<MouseEvent>> expected;
    try {
      Json document = parseJson(input);
      json::requireArray(document, "");
      std::vector<MouseEvent> events;
      for (const Json& e : document) events.push_back(json::as<MouseEvent>(e, ""));
      expected = events;
    } catch (const DecodingError&) {
    }
    std::optional<std::vector<MouseEvent>> actual;
    try {
      actual = reader.decodeMouseEvents(input);
    } catch (const DecodingError&) {
    }
    EXPECT_EQ(actual, expected) << input;
  }
}

TEST(ChunkReader, ADamagedChunkFailsTheReadNamingTheFile) {
  testing::TemporaryDirectory dir;
  writeFileAtomically(dir.path() / "000000.json", "[]");
  writeFileAtomically(dir.path() / "000001.json", "[{\"time\":");
  try {
    ChunkReader().readMouseEvents(dir.path());
    FAIL();
  } catch (const DecodingError& e) {
    EXPECT_NE(std::string(e.what()).find("000001.json"), std::string::npos) << e.what();
  }
}

}  // namespace
}  // namespace vumo
