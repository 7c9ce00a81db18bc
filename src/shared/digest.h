#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

namespace vumo {

// SHA-256 in lower-case hexadecimal.
std::string sha256Hex(std::string_view bytes);
// Digest of a file's raw bytes; a missing or unreadable file is a FileError.
std::string sha256HexOfFile(const std::filesystem::path& path, std::size_t maximumBytes);

}  // namespace vumo
