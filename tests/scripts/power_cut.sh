#!/usr/bin/env bash
# A power cut right after each write command returns: on a loop-mounted ext4
# file system in a private mount namespace, the command runs, and a copy of
# the block device is taken at once (what the disk holds, whatever the
# kernel still keeps in memory). The copy, checked and mounted, must show
# what the command reported: the new package, certificate or chain, never an
# older or empty file. Exits 77 (skipped) where mounting is not permitted.
#
# Usage: power_cut.sh SEALKEEP WORKDIR
set -euo pipefail
sealkeep=$1
work=$2

if [ "${POWER_CUT_INSIDE:-}" != 1 ]; then
  if ! unshare -m true 2>/dev/null || ! command -v mkfs.ext4 >/dev/null || ! command -v e2fsck >/dev/null; then
    echo "skipped: needs root with unshare -m, mkfs.ext4 and e2fsck"
    exit 77
  fi
  rm -rf "$work" && mkdir -p "$work"
  POWER_CUT_INSIDE=1 exec unshare -m --propagation private "$0" "$@"
fi

cd "$work"
export ASAN_OPTIONS="detect_leaks=0:${ASAN_OPTIONS:-}"
gost() { openssl genpkey -engine gost -algorithm gost2012_256 -pkeyopt paramset:A -out "$1" 2>/dev/null; }

# A PKI and a package outside the file system under test.
gost ca.key
"$sealkeep" ca init ca.pem --key ca.key --cn "Power cut CA" >/dev/null
for who in developer seclab client successor; do
  gost "$who.key"
  openssl req -engine gost -new -key "$who.key" -subj "/CN=Power cut $who" -out "$who.csr" 2>/dev/null
  group=$who
  [ "$who" = successor ] && group=developer
  "$sealkeep" ca issue "$who.pem" --csr "$who.csr" --ca-key ca.key --ca-cert ca.pem --group "$group" >/dev/null
done
head -c 3000000 /dev/urandom > package.bin

truncate -s 64M fs.img
mkfs.ext4 -q -F fs.img
mkdir -p disk copy
if ! mount -o loop,commit=1 fs.img disk 2>/dev/null; then
  echo "skipped: loop devices cannot be mounted here"
  exit 77
fi
device=$(findmnt -n -o SOURCE disk)
cleanup() { umount copy 2>/dev/null || true; umount disk 2>/dev/null || true; }
trap cleanup EXIT
cp package.bin disk/package.bin
sync

failures=0
# Runs a write command on the mounted file system, copies the device as soon
# as it returns, and compares FILE in the copy with FILE as the command left it.
cut_after() {
  local file=$1; shift
  "$@" >/dev/null
  dd if="$device" of=cut.img bs=1M iflag=direct status=none
  e2fsck -fy cut.img >/dev/null 2>&1 || [ $? -le 1 ]
  mount -o loop,ro cut.img copy
  if cmp -s "disk/$file" "copy/$file"; then
    echo "ok: $* ($(stat -c %s "copy/$file") bytes on disk)"
  else
    echo "LOST: $*: the disk holds $(stat -c %s "copy/$file" 2>/dev/null || echo no) bytes, not $(stat -c %s "disk/$file")"
    failures=$((failures + 1))
  fi
  umount copy
}

cut_after package.bin "$sealkeep" sign disk/package.bin --cert developer.pem --key developer.key
cut_after package.bin "$sealkeep" sign disk/package.bin --cert seclab.pem --key seclab.key
cut_after package.bin "$sealkeep" sign disk/package.bin --cert client.pem --key client.key
cut_after package.bin "$sealkeep" sign disk/package.bin --cert client.pem --key client.key --replace
cut_after package.bin "$sealkeep" strip --last disk/package.bin
cut_after package.bin "$sealkeep" sign disk/package.bin --cert developer.pem --key developer.key --replace
cut_after package.bin "$sealkeep" strip disk/package.bin
cut_after issued.pem "$sealkeep" ca issue disk/issued.pem --csr client.csr --ca-key ca.key --ca-cert ca.pem --group client
cut_after chain.pem "$sealkeep" rotate disk/chain.pem --old-cert developer.pem --old-key developer.key \
  --new-cert successor.pem --new-key successor.key
[ "$failures" -eq 0 ]
echo "every write was on disk when its command returned"
