#!/bin/bash
# Signs and verifies real packages made from Debian's own and prints, per
# package, the signing time against its floor and the verification time
# against one Streebog pass, with peak resident memory.
#
#   bench/real_packages.sh [BUILD_DIR]     (default: build-bench, a Release
#                                           build with -DSEALKEEP_BUILD_BENCH=ON)
#
# SEALKEEP_RUNS (3) runs per figure; SEALKEEP_BATCH (50) packages in the
# --jobs comparison, 0 to skip it; SEALKEEP_CORPUS_ONLY=1 builds the corpus
# and stops.
#
# The corpus (Debian packages turned into RPMs with alien and rpmbuild, one
# payload compressor each) is built once and cached in $SEALKEEP_CORPUS
# (default /var/tmp/sealkeep-corpus); it is never committed. Needs root for
# apt-get only when the corpus is built.
#
# The floor of a developer signature with per-file signatures is the work an
# honest signer cannot avoid, each part measured in the same run:
#   one GOST R 34.11-2012 pass over the whole package (openssl dgst),
# + decompressing the payload and one Streebog pass over its stream
#   (rpm2cpio PKG | openssl dgst),
# + one GOST signature per regular file (a loop of as many signatures with
#   the same key in one process: sealkeep_signature_loop).
# Signing is timed by the command as a user runs it, the crash-safe write of
# the new version (copy, fsync, rename) included. Times are the median of
# three runs; verification is the fastest of three against the fastest of
# three openssl dgst runs. The same figures are also measured inside one
# process (sealkeep_corpus_measure), where neither side pays for starting a
# process: for a small package the start-up of a command that loads librpm,
# SQLite and the engine is a large part of the whole.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$here/build-bench}" && pwd)
corpus=${SEALKEEP_CORPUS:-/var/tmp/sealkeep-corpus}
runs=${SEALKEEP_RUNS:-3}
batch_count=${SEALKEEP_BATCH:-50}

sealkeep=$build/tools/sealkeep
signature_loop=$build/bench/sealkeep_signature_loop
measure=$build/bench/sealkeep_corpus_measure
for tool in "$sealkeep" "$signature_loop" "$measure"; do
  [[ -x $tool ]] || { echo "missing $tool: build with -DSEALKEEP_BUILD_BENCH=ON" >&2; exit 1; }
done

# name of the Debian package, payload macro, and whether identical files of
# the tree become hard links first. Chosen for their shapes: thousands of
# small files (linux-headers: 9,420), a few large ones (libllvm15, libicu72),
# thousands of symbolic links (the icon theme: 6,267), hard links (git), and
# every payload compressor rpm offers; none so small that the fixed cost of
# checking three signatures (six GOST verifications, about 2 ms) outweighs a
# Streebog pass over it.
corpus_entries=(
  "linux-headers-6.1.0-*-common w0.ufdio no"
  "linux-image-6.1.0-*-rt-amd64 w6.xzdio no"
  "perl-modules-5.36 w19.zstdio no"
  "vim-runtime w19.zstdio no"
  "git w9.gzdio yes"
  "elementary-xfce-icon-theme w1.gzdio no"
  "libllvm15 w6.lzdio no"
  "libicu72 w9.bzdio no"
)

# The newest Debian package whose name matches pattern, where * stands for a
# version number.
resolve_name() {
  local pattern=$1
  if [[ $pattern != *'*'* ]]; then echo "$pattern"; return; fi
  apt-cache pkgnames "${pattern%%\**}" | grep -Ex "${pattern//\*/[0-9]+}" | sort -V | tail -n 1
}

build_package() {
  local debian_name=$1 payload=$2 hardlinks=$3
  local name out tree
  name=$(resolve_name "$debian_name")
  out=$corpus/rpms/$name.${payload#*.}.rpm
  [[ -f $out ]] && return 0
  mkdir -p "$corpus/debs" "$corpus/rpms" "$corpus/trees"
  (cd "$corpus/debs" && ls "${name}"_*.deb >/dev/null 2>&1 || apt-get download "$name" >/dev/null)
  rm -rf "$corpus/trees/$name"
  mkdir -p "$corpus/trees/$name"
  (cd "$corpus/trees/$name" && alien -r -g "$corpus/debs/${name}"_*.deb >/dev/null 2>&1)
  tree=$(find "$corpus/trees/$name" -mindepth 1 -maxdepth 1 -type d | head -n 1)
  if [[ $hardlinks == yes ]]; then hardlink -q "$tree" >/dev/null 2>&1 || true; fi
  (cd "$tree" && rpmbuild -bb --buildroot "$tree" --define "_topdir $corpus/trees/$name/top" \
      --define '__os_install_post %{nil}' --define '__spec_install_post %{nil}' \
      --define '_build_id_links none' --define "_binary_payload $payload" ./*.spec >/dev/null 2>&1)
  mv "$(find "$corpus/trees/$name" -maxdepth 1 -name '*.rpm' | head -n 1)" "$out"
  rm -rf "$corpus/trees/$name"
}

build_corpus() {
  if ! command -v alien >/dev/null || ! command -v rpmbuild >/dev/null || ! command -v hardlink >/dev/null; then
    apt-get update -qq && apt-get install -y -qq alien rpm util-linux >/dev/null
  fi
  local entry
  for entry in "${corpus_entries[@]}"; do
    # shellcheck disable=SC2086
    build_package $entry
  done
}

make_pki() {
  local pki=$corpus/pki who
  [[ -f $pki/client.pem ]] && return 0
  mkdir -p "$pki"
  openssl genpkey -engine gost -algorithm gost2012_256 -pkeyopt paramset:A -out "$pki/ca.key" 2>/dev/null
  "$sealkeep" ca init "$pki/ca.pem" --key "$pki/ca.key" --cn "Corpus CA" >/dev/null
  for who in developer seclab client; do
    openssl genpkey -engine gost -algorithm gost2012_256 -pkeyopt paramset:A -out "$pki/$who.key" 2>/dev/null
    openssl req -engine gost -new -key "$pki/$who.key" -subj "/CN=Corpus $who" -out "$pki/$who.csr" 2>/dev/null
    "$sealkeep" ca issue "$pki/$who.pem" --csr "$pki/$who.csr" --ca-key "$pki/ca.key" --ca-cert "$pki/ca.pem" \
      --group "$who" >/dev/null
  done
  openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "$pki/ta.key" 2>/dev/null
}

now() { echo "$EPOCHREALTIME"; }
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
median() { printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
fastest() { printf '%s\n' "$@" | sort -g | head -n 1; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

time_command() {
  local start end
  start=$(now)
  "$@" >/dev/null 2>&1
  end=$(now)
  elapsed "$start" "$end"
}

dgst() { openssl dgst -engine gost -md_gost12_256 "$@" >/dev/null 2>&1; }
# On one processor, as a signer does it: a pipe across two processors would
# overlap the decompression with the digest.
payload_pass() {
  taskset -c 0 bash -c 'rpm2cpio "$1" 2>/dev/null | openssl dgst -engine gost -md_gost12_256 >/dev/null 2>&1' _ "$1" || true
}
regular_files() { rpm -qp --qf '[%{FILEMODES:perms}\n]' "$1" 2>/dev/null | grep -c '^-' || true; }

# The floor's third part: seconds for count GOST signatures in one process.
signature_seconds() { "$signature_loop" "$corpus/pki/developer.key" "$1"; }

# "SECONDS PEAK_KIB" of one developer signing of a fresh copy of rpm.
sign_once() {
  local rpm=$1 work=$2 start end peak
  cp "$rpm" "$work/package.rpm"
  sync "$work/package.rpm"
  start=$(now)
  /usr/bin/time -f '%M' -o "$work/peak" "$sealkeep" sign "$work/package.rpm" \
    --cert "$corpus/pki/developer.pem" --key "$corpus/pki/developer.key" \
    --ta-key "$corpus/pki/ta.key" --ta-algorithm pss >/dev/null 2>"$work/sign.err" ||
    { cat "$work/sign.err" >&2; return 1; }
  end=$(now)
  peak=$(cat "$work/peak")
  echo "$(elapsed "$start" "$end") $peak"
}

bench_package() {
  local rpm=$1 work=$2 name files bytes compressor i
  local signs=() peaks=() floors=() verifies=() dgsts=()
  name=$(basename "$rpm" .rpm)
  files=$(regular_files "$rpm")
  bytes=$(stat -c %s "$rpm")
  compressor=$(rpm -qp --qf '%{PAYLOADCOMPRESSOR}' "$rpm" 2>/dev/null)
  for ((i = 0; i < runs; i++)); do
    read -r seconds peak < <(sign_once "$rpm" "$work")
    signs+=("$seconds"); peaks+=("$peak")
    local whole payload signatures
    whole=$(time_command dgst "$rpm")
    payload=$(time_command payload_pass "$rpm")
    signatures=$(signature_seconds "$files")
    floors+=("$(awk -v a="$whole" -v b="$payload" -v c="$signatures" 'BEGIN { printf "%.3f", a + b + c }')")
  done
  # The stack a release has: developer, then seclab, then client.
  "$sealkeep" sign "$work/package.rpm" --cert "$corpus/pki/seclab.pem" --key "$corpus/pki/seclab.key" >/dev/null
  "$sealkeep" sign "$work/package.rpm" --cert "$corpus/pki/client.pem" --key "$corpus/pki/client.key" >/dev/null
  "$sealkeep" verify "$work/package.rpm" --ca "$corpus/pki/ca.pem" >/dev/null
  for ((i = 0; i < runs; i++)); do
    verifies+=("$(time_command "$sealkeep" verify "$work/package.rpm" --ca "$corpus/pki/ca.pem")")
    dgsts+=("$(time_command dgst "$work/package.rpm")")
  done
  local sign floor verify one_pass lib_sign lib_floor lib_verify lib_pass lib_format
  sign=$(median "${signs[@]}"); floor=$(median "${floors[@]}")
  verify=$(fastest "${verifies[@]}"); one_pass=$(fastest "${dgsts[@]}")
  read -r lib_sign lib_floor < <("$measure" sign "$rpm" "$corpus/pki/developer.pem" "$corpus/pki/developer.key" \
    "$corpus/pki/ta.key" "$runs")
  read -r lib_verify lib_pass lib_format < <("$measure" verify "$work/package.rpm" "$corpus/pki/ca.pem" "$runs")
  printf '%-38s %5s %9s %-5s | %7s %7s %5s %6s | %7s %7s %5s | %6s %6s %5s | %6s %6s %5s %6s %5s\n' \
    "$name" "$files" "$bytes" "$compressor" \
    "$sign" "$floor" "$(ratio "$sign" "$floor")" "$(median "${peaks[@]}")" \
    "$lib_sign" "$lib_floor" "$(ratio "$lib_sign" "$lib_floor")" \
    "$verify" "$one_pass" "$(ratio "$verify" "$one_pass")" \
    "$lib_verify" "$lib_pass" "$(ratio "$lib_verify" "$lib_pass")" \
    "$lib_format" "$(ratio "$lib_verify" "$lib_format")"
}

# --jobs 2 against --jobs 1 over batch_count packages made of the corpus,
# handed to the command largest first, as a batch job would order them, so
# that the two workers end together.
bench_batch() {
  local work=$1 rpms=("${@:2}") i jobs batch
  local -A seconds
  for jobs in 1 2; do
    rm -rf "$work/batch" && mkdir -p "$work/batch"
    for ((i = 0; i < batch_count; i++)); do
      cp "${rpms[i % ${#rpms[@]}]}" "$work/batch/$i.rpm"
    done
    sync
    mapfile -t batch < <(ls -S "$work"/batch/*.rpm)
    seconds[$jobs]=$(time_command "$sealkeep" sign "${batch[@]}" --jobs "$jobs" \
      --cert "$corpus/pki/developer.pem" --key "$corpus/pki/developer.key" \
      --ta-key "$corpus/pki/ta.key" --ta-algorithm pss)
  done
  echo
  echo "batch of $batch_count packages ($(du -sh "$work/batch" | cut -f1)): --jobs 1 ${seconds[1]} s," \
    "--jobs 2 ${seconds[2]} s, throughput x$(ratio "${seconds[1]}" "${seconds[2]}") (target >= 1.8)"
}

main() {
  build_corpus
  make_pki
  if [[ ${SEALKEEP_CORPUS_ONLY:-0} == 1 ]]; then ls -l "$corpus/rpms"; return; fi
  local rpms
  work=$(mktemp -d /var/tmp/sealkeep-bench.XXXXXX)
  trap 'rm -rf "$work"' EXIT
  mapfile -t rpms < <(ls -S "$corpus"/rpms/*.rpm)
  echo "command: the sealkeep command and openssl as a user runs them (process start-up included);"
  echo "library: the same work in one process (FileWithCmses, EVP), free of start-up."
  echo "format: what the format makes a verifier digest (every covered range and every block's"
  echo "signed attributes, so the developer's per-file records twice), against one Streebog pass."
  printf '%-38s %5s %9s %-5s | %7s %7s %5s %6s | %7s %7s %5s | %6s %6s %5s | %6s %6s %5s %6s %5s\n' \
    package files bytes comp sign_s floor_s ratio peak_k lib_s floor_s ratio \
    verify dgst ratio lib_v dgst ratio format ratio
  local rpm
  for rpm in "${rpms[@]}"; do
    bench_package "$rpm" "$work"
  done
  echo "targets: signing ratio <= 1.10 (median of $runs), verification ratio <= 1.05 (fastest of $runs)"
  if ((batch_count > 0)); then bench_batch "$work" "${rpms[@]}"; fi
}

main
