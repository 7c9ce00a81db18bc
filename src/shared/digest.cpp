#include "shared/digest.h"

#include <openssl/evp.h>

#include <memory>

#include "shared/files.h"

namespace vumo {

std::string sha256Hex(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
  static constexpr char hex[] = "0123456789abcdef";
  std::string out;
  out.reserve(length * 2);
  for (unsigned int i = 0; i < length; ++i) {
    out += hex[digest[i] >> 4];
    out += hex[digest[i] & 15];
  }
  return out;
}

std::string sha256HexOfFile(const std::filesystem::path& path, std::size_t maximumBytes) {
  return sha256Hex(readFile(path, maximumBytes));
}

}  // namespace vumo
