#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine and runs the whole test suite twice: built
# with AddressSanitizer and UndefinedBehaviorSanitizer, then as a plain build.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

jobs=$(nproc)
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:${ASAN_OPTIONS:-}"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:${UBSAN_OPTIONS:-}"

# A compiler cache, where the machine has one, makes rebuilding cheap; the
# results are the same without it.
launcher=()
if command -v ccache >/dev/null 2>&1; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

for variant in sanitize plain; do
  build="build-test-$variant"
  sanitize=OFF bench=ON
  [ "$variant" = sanitize ] && sanitize=ON bench=OFF
  echo "== $variant build"
  # The plain build also compiles the benchmarks, so that they keep building;
  # they are run by hand (build-test-plain/bench/sealkeep_bench).
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSEALKEEP_SANITIZE=$sanitize \
    -DSEALKEEP_BUILD_BENCH=$bench "${launcher[@]}"
  cmake --build "$build" -j"$jobs"
  echo "== $variant tests"
  ctest --test-dir "$build" --output-on-failure -j"$jobs"
done
