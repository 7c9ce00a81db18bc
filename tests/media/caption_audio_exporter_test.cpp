#include "media/caption_audio_exporter.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "media/media_errors.h"
#include "media_fixtures.h"
#include "shared/digest.h"
#include "shared/files.h"

namespace vumo {
namespace {

using namespace vumo::testing;

std::uint32_t le(const std::string& bytes, std::size_t offset, std::size_t size) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < size; ++i)
    value |= std::uint32_t(static_cast<unsigned char>(bytes[offset + i])) << (8 * i);
  return value;
}

std::int16_t sampleAt(const std::string& bytes, std::size_t index) {
  return static_cast<std::int16_t>(le(bytes, 44 + 2 * index, 2));
}

class CaptionAudioExporterTest : public ::testing::Test {
 protected:
  TemporaryDirectory folder;
};

TEST_F(CaptionAudioExporterTest, WritesSixteenKilohertzMonoBehindTheCanonicalHeader) {
  // Stereo at a constant 1000 on both channels: one second, mixed down to mono.
  ProjectSnapshot snapshot =
      makeAudioPackage(folder.path(), {{"1000", "1000"}, 48'000, 0, MediaTrackKind::systemAudio});
  const std::filesystem::path target = folder.path() / "source.wav";
  writeFileAtomically(target, std::string(200'000, 'x'));  // replaced, not overwritten in place
  CaptionAudioExporter::exportAudio(snapshot, MediaTrackKind::systemAudio, target);

  const std::string bytes = readFile(target, 1 << 20);
  ASSERT_GE(bytes.size(), 44u);
  const std::uint32_t dataBytes = le(bytes, 40, 4);
  EXPECT_EQ(bytes.substr(0, 4), "RIFF");
  EXPECT_EQ(le(bytes, 4, 4), 36 + dataBytes);
  EXPECT_EQ(bytes.substr(8, 4), "WAVE");
  EXPECT_EQ(bytes.substr(12, 4), "fmt ");
  EXPECT_EQ(le(bytes, 16, 4), 16u);
  EXPECT_EQ(le(bytes, 20, 2), 1u);  // integer PCM
  EXPECT_EQ(le(bytes, 22, 2), 1u);  // mono
  EXPECT_EQ(le(bytes, 24, 4), 16'000u);
  EXPECT_EQ(le(bytes, 28, 4), 32'000u);
  EXPECT_EQ(le(bytes, 32, 2), 2u);
  EXPECT_EQ(le(bytes, 34, 2), 16u);
  EXPECT_EQ(bytes.substr(36, 4), "data");
  EXPECT_EQ(bytes.size(), 44u + dataBytes);
  // One second at 16 kHz, two bytes a sample.
  EXPECT_EQ(dataBytes, 2u * 16'000);
  // Away from the edges the resampler passes a constant level through.
  for (std::size_t i : {1000u, 8000u, 15'000u}) EXPECT_NEAR(sampleAt(bytes, i), 1000, 2) << i;

  const std::string digest = sha256Hex(bytes);
  CaptionAudioExporter::exportAudio(snapshot, MediaTrackKind::systemAudio, target);
  EXPECT_EQ(sha256Hex(readFile(target, 1 << 20)), digest);
}

TEST_F(CaptionAudioExporterTest, KeepsALateTrackAtItsSourceTime) {
  ProjectSnapshot snapshot = makeAudioPackage(folder.path(), {{"1000"}, 48'000, 1.0});
  const std::filesystem::path target = folder.path() / "source.wav";
  CaptionAudioExporter::exportAudio(snapshot, MediaTrackKind::microphone, target);
  const std::string bytes = readFile(target, 1 << 20);
  EXPECT_EQ(le(bytes, 40, 4), 2u * 32'000);
  EXPECT_EQ(sampleAt(bytes, 8000), 0);
  EXPECT_NEAR(sampleAt(bytes, 24'000), 1000, 2);
}

TEST_F(CaptionAudioExporterTest, RefusesAKindThePackageLacks) {
  ProjectSnapshot snapshot = makeAudioPackage(folder.path(), {{"1000"}, 4800});
  const std::filesystem::path target = folder.path() / "source.wav";
  try {
    CaptionAudioExporter::exportAudio(snapshot, MediaTrackKind::systemAudio, target);
    ADD_FAILURE() << "exported a missing track";
  } catch (const CaptionAudioExporterError& error) {
    EXPECT_EQ(error.kind(), CaptionAudioExporterError::Case::missingTrack);
    EXPECT_EQ(error.message(), "The project has no systemAudio audio track available for captions.");
    EXPECT_EQ(error.localizationKey(), "media.captions.missingTrack");
    EXPECT_EQ(error.table(), "Media");
  }
  EXPECT_ERROR_CASE(CaptionAudioExporter::exportAudio(snapshot, MediaTrackKind::screen, target),
                    CaptionAudioExporterError, CaptionAudioExporterError::Case::missingTrack);
  EXPECT_FALSE(std::filesystem::exists(target));

  std::stop_source stop;
  stop.request_stop();
  EXPECT_THROW(CaptionAudioExporter::exportAudio(snapshot, MediaTrackKind::microphone, target, stop.get_token()),
               CancelledError);
}

}  // namespace
}  // namespace vumo
