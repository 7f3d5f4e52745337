#!/usr/bin/env bash
# Runs every fuzz target for a while on a corpus seeded from real signatures.
#   scripts/fuzz.sh BUILD_DIR [SECONDS_PER_TARGET]
# BUILD_DIR is a Clang build configured with -DSEALKEEP_BUILD_FUZZ=ON
# -DSEALKEEP_SANITIZE=ON and built with --target fuzz_targets.
set -euo pipefail
build=${1:?usage: scripts/fuzz.sh BUILD_DIR [SECONDS]}
seconds=${2:-60}
corpus="$build/fuzz-corpus"

if [ ! -f "$corpus/ca.pem" ]; then
  "$build/fuzz/make_fuzz_seeds" "$corpus"
fi
export SEALKEEP_FUZZ_CA="$corpus/ca.pem"
for target in signed_file cms rotation_chain package_signing; do
  mkdir -p "$corpus/$target"
  echo "== ${target}_fuzz for ${seconds}s"
  "$build/fuzz/${target}_fuzz" -max_total_time="$seconds" -max_len=65536 -timeout=10 -close_fd_mask=2 \
    -artifact_prefix="$build/fuzz-crash-$target-" "$corpus/$target"
done
