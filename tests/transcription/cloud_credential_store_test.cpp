#include "transcription/cloud_credential_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "shared/error.h"
#include "shared/files.h"
#include "shared/json.h"
#include "support/test_support.h"
#include "transcription/transcription_errors.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using testing::ScopedDataHome;
using testing::ScopedEnvironmentVariable;
using CredentialCase = CloudCredentialError::Case;

unsigned modeOf(const fs::path& path) {
  struct stat status {};
  ::stat(path.c_str(), &status);
  return status.st_mode & 07777;
}

class CloudCredentials : public ::testing::Test {
 protected:
  ScopedDataHome home;
  ScopedEnvironmentVariable noKey{"DASHSCOPE_API_KEY", std::nullopt};
  CloudCredentialStore store;
};

TEST_F(CloudCredentials, LivesInTheSupportFolder) {
  EXPECT_EQ(store.filePath(), home.path() / "Vumo" / "CloudCredentials.json");
}

TEST_F(CloudCredentials, EnvironmentWinsWithoutReadingTheFileUnlessEmpty) {
  fs::create_directories(store.filePath().parent_path());
  std::ofstream(store.filePath()) << "not JSON at all";
  {
    ScopedEnvironmentVariable key("DASHSCOPE_API_KEY", " from-env ");
    EXPECT_TRUE(CloudCredentialStore::environmentKeyOverrides());
    EXPECT_EQ(store.loadBailianAPIKey(), " from-env ");
  }
  ScopedEnvironmentVariable empty("DASHSCOPE_API_KEY", "");
  EXPECT_FALSE(CloudCredentialStore::environmentKeyOverrides());
  EXPECT_THROW(store.loadBailianAPIKey(), DecodingError);
  store.saveBailianAPIKey("  from-file\n");
  EXPECT_EQ(store.loadBailianAPIKey(), "from-file");
}

TEST_F(CloudCredentials, MissingFileOrBlankKeyIsMissing) {
  EXPECT_ERROR_CASE(store.loadBailianAPIKey(), CloudCredentialError, CredentialCase::missing);
  fs::create_directories(store.filePath().parent_path());
  std::ofstream(store.filePath()) << R"({"bailian":{"apiKey":" \n "}})";
  EXPECT_ERROR_CASE(store.loadBailianAPIKey(), CloudCredentialError, CredentialCase::missing);
  std::ofstream(store.filePath()) << R"({"bailian":{"apiKey":5}})";
  EXPECT_THROW(store.loadBailianAPIKey(), DecodingError);
  fs::remove(store.filePath());
  fs::create_directory(store.filePath());
  EXPECT_THROW(store.loadBailianAPIKey(), FileError);
}

TEST_F(CloudCredentials, KeyLengthIsCountedInCharacters) {
  struct Row {
    std::string key;
    bool accepted;
  };
  const Row rows[] = {
      {std::string(512, 'k'), true},
      {std::string(513, 'k'), false},
      {"   ", false},
      {"", false},
      {"key\r\nX-Injected: 1", false},
      // 512 characters of three bytes each.
      {[] {
         std::string key;
         for (int i = 0; i < 512; ++i) key += "钥";
         return key;
       }(),
       true},
  };
  for (const Row& row : rows) {
    if (row.accepted) {
      EXPECT_NO_THROW(store.saveBailianAPIKey(row.key)) << row.key.size();
      EXPECT_EQ(store.loadBailianAPIKey(), row.key);
    } else {
      EXPECT_ERROR_CASE(store.saveBailianAPIKey(row.key), CloudCredentialError, CredentialCase::invalid);
    }
  }
}

TEST_F(CloudCredentials, SavedFileIsPrivateAndWrittenThroughATemporaryFile) {
  fs::path folder = store.filePath().parent_path();
  fs::create_directories(folder);
  fs::permissions(folder, fs::perms::all);
  std::ofstream(store.filePath()) << R"({"bailian":{"apiKey":"old"}})";
  fs::permissions(store.filePath(), static_cast<fs::perms>(0644), fs::perm_options::replace);

  store.saveBailianAPIKey("new-key");
  EXPECT_EQ(modeOf(folder), 0700u);
  EXPECT_EQ(modeOf(store.filePath()), 0600u);
  EXPECT_EQ(parseJson(readFile(store.filePath(), 4096)), (Json{{"bailian", {{"apiKey", "new-key"}}}}));
  for (const auto& entry : fs::directory_iterator(folder))
    EXPECT_FALSE(entry.path().filename().string().starts_with(".CloudCredentials.")) << entry.path();
}

TEST_F(CloudCredentials, DeleteRemovesTheFileAndAcceptsAMissingOne) {
  store.saveBailianAPIKey("k");
  store.deleteBailianAPIKey();
  EXPECT_FALSE(fs::exists(store.filePath()));
  EXPECT_NO_THROW(store.deleteBailianAPIKey());
  EXPECT_ERROR_CASE(store.loadBailianAPIKey(), CloudCredentialError, CredentialCase::missing);
}

TEST(CloudCredentialErrors, TextsAreTheEditorCaptionsOnes) {
  EXPECT_EQ(std::string(CloudCredentialError(CredentialCase::missing).what()),
            "Add an Alibaba Cloud Bailian API key first.");
  EXPECT_EQ(CloudCredentialError(CredentialCase::invalid).localizationKey(), "captions.bailian.credentialInvalid");
  EXPECT_EQ(CloudCredentialError(CredentialCase::invalid).table(), "EditorCaptions");
}

}  // namespace
}  // namespace vumo
