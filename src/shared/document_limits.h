#pragma once

#include <cstddef>

// Upper bounds on what the program reads from files that other programs (and people) can write.
// Each is far above any real project: the one-hour benchmark project (1,000 clips, 300 zooms, 500
// annotations) has a 0.7 MB timeline and chunk files of about 160 KB. A larger file is refused
// before it is read, so a planted or runaway file can never exhaust memory.
namespace vumo::documentLimits {

inline constexpr std::size_t mebibyte = std::size_t{1} << 20;

inline constexpr std::size_t manifestBytes = 1 * mebibyte;
inline constexpr std::size_t timelineBytes = 16 * mebibyte;           // also each history entry
inline constexpr std::size_t captionsBytes = 16 * mebibyte;           // also each caption history entry
inline constexpr std::size_t chunkBytes = 16 * mebibyte;              // one pointer, geometry or cursor chunk
inline constexpr std::size_t cursorAssetBytes = 4 * mebibyte;         // a descriptor or its PNG
inline constexpr std::size_t canvasBackgroundBytes = 256 * mebibyte;  // an imported image or video
inline constexpr std::size_t resourceBytes = 16 * mebibyte;           // files shipped with the program

}  // namespace vumo::documentLimits
