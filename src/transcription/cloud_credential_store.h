#pragma once

// The user's own Alibaba Cloud Bailian API key, kept in the support folder as
// {"bailian":{"apiKey":"<key>"}} readable by the user alone. The key is a secret: nothing here
// prints, logs or puts it into an error text.

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace vumo {

class CloudCredentialStore {
 public:
  static constexpr std::string_view environmentVariable = "DASHSCOPE_API_KEY";
  static constexpr std::string_view defaultFileName = "CloudCredentials.json";
  // Counted in user-perceived characters (grapheme clusters), as every character limit is.
  static constexpr std::size_t maximumKeyCharacters = 512;
  // The file holds one short key; anything much larger was not written by this store.
  static constexpr std::size_t maximumFileBytes = 16'384;

  // Without a path the file is vumoSupportDirectory()/"CloudCredentials.json".
  explicit CloudCredentialStore(std::optional<std::filesystem::path> file = std::nullopt);

  CloudCredentialStore(const CloudCredentialStore&) = delete;
  CloudCredentialStore& operator=(const CloudCredentialStore&) = delete;

  const std::filesystem::path& filePath() const noexcept { return file_; }

  // True when DASHSCOPE_API_KEY is set and not empty: it is then the key, whatever the file says.
  static bool environmentKeyOverrides();

  // The key: the environment variable as it stands when it overrides (the file is then not
  // read), else the file's key trimmed of white space. No file, or an empty key in it, is
  // CloudCredentialError::missing; a file that cannot be read (not a regular file, too large) is a
  // FileError and one that does not decode a DecodingError.
  std::string loadBailianAPIKey() const;

  // Stores the trimmed key. Empty, longer than 512 characters or holding a control character (it
  // travels in an HTTP header) is CloudCredentialError::invalid. The folder is created with mode
  // 0700, the file replaced atomically through ".CloudCredentials.<UUID>.tmp" beside it and left
  // with mode 0600, also when it existed with wider rights.
  void saveBailianAPIKey(std::string_view key) const;

  // Removes the file; a missing file is no error.
  void deleteBailianAPIKey() const;

 private:
  std::filesystem::path file_;
};

}  // namespace vumo
