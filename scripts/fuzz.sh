#!/usr/bin/env bash
# Runs every fuzz target for a while on a corpus seeded from real signatures.
#   scripts/fuzz.sh BUILD_DIR [SECONDS_PER_TARGET] [TARGET...]
# BUILD_DIR is a Clang build configured with -DSEALKEEP_BUILD_FUZZ=ON
# -DSEALKEEP_SANITIZE=ON and built with --target fuzz_targets. Without TARGET
# names every target runs, one after the other.
#
# Each input may take at most 5 seconds and the process at most 512 MiB, so
# that an input whose cost is out of proportion to its size is reported as a
# finding (timeout, out-of-memory) like a crash or a leak.
set -euo pipefail
build=${1:?usage: scripts/fuzz.sh BUILD_DIR [SECONDS] [TARGET...]}
seconds=${2:-60}
shift $(( $# < 2 ? $# : 2 ))
corpus="$build/fuzz-corpus"

if [ ! -f "$corpus/stack-prefix" ]; then
  "$build/fuzz/make_fuzz_seeds" "$corpus"
fi
export SEALKEEP_FUZZ_CA="$corpus/ca.pem"
export SEALKEEP_FUZZ_STACK="$corpus/stack-prefix"
targets=(signed_file cms rotation_chain package_signing)
targets+=(cms_verify signature_stack rotation_chain_pem certificate pem_readers certificate_request signing_request)
if [ $# -gt 0 ]; then
  targets=("$@")
fi
for target in "${targets[@]}"; do
  mkdir -p "$corpus/$target"
  echo "== ${target}_fuzz for ${seconds}s"
  "$build/fuzz/${target}_fuzz" -max_total_time="$seconds" -runs="${SEALKEEP_FUZZ_RUNS:-1000000}" -max_len=65536 -timeout=5 -rss_limit_mb=512 \
    -close_fd_mask=2 -artifact_prefix="$build/fuzz-crash-$target-" "$corpus/$target"
done
