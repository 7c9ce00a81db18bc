#!/bin/sh
# Rebuilds the generator and redraws resources/device-frames/ (catalogue and images).
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=$(mktemp -d)
trap 'rm -rf "$build"' EXIT
c++ -std=c++20 -O2 -Wall -Wextra -o "$build/generate_device_frames" "$here/generate_device_frames.cpp" \
  $(pkg-config --cflags --libs cairo)
"$build/generate_device_frames" "$root/resources/device-frames"
