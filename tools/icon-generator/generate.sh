#!/bin/sh
# Rebuilds the generator and redraws packaging/icons/hicolor/ (Vumo's application icon).
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(mktemp -d)
trap 'rm -rf "$build"' EXIT
c++ -std=c++20 -O2 -Wall -Wextra -o "$build/generate_icons" "$here/generate_icons.cpp" \
  $(pkg-config --cflags --libs cairo)
"$build/generate_icons" "$root/packaging/icons/hicolor"
