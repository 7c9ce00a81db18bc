#!/bin/sh
# Rebuilds the generator and redraws resources/cursors/ (the arrow picture and its geometry).
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(mktemp -d)
trap 'rm -rf "$build"' EXIT
c++ -std=c++20 -O2 -Wall -Wextra -o "$build/generate_cursor_images" "$here/generate_cursor_images.cpp" \
  $(pkg-config --cflags --libs cairo)
"$build/generate_cursor_images" "$root/resources/cursors"
