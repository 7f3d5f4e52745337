#!/usr/bin/env bash
# The main job on a fresh Debian 12 machine: installs what is needed, builds
# and installs libsealkeep, then builds the example client against the
# installed library with pkg-config alone and runs it.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

prefix="${SEALKEEP_PREFIX:-/usr/local}"
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DSEALKEEP_BUILD_TESTS=OFF \
  -DCMAKE_INSTALL_PREFIX="$prefix"
cmake --build build-release -j"$(nproc)"
cmake --install build-release
ldconfig || true

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/x86_64-linux-gnu/pkgconfig:${PKG_CONFIG_PATH:-}"
cc -o "$work/probe" tests/probes/load_library_probe.c $(pkg-config --cflags --libs sealkeep)
echo "== a client built with 'pkg-config --cflags --libs sealkeep' loads the library:"
LD_LIBRARY_PATH="$prefix/lib:$prefix/lib/x86_64-linux-gnu" "$work/probe"
