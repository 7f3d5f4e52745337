#!/usr/bin/env bash
# A project outside sealkeep's tree finds the installed CMake package, builds
# a program that signs a file and verifies it, and runs it; the package's
# version rule admits 3.0 and refuses 2, 3.1 and 4.
#   cmake_client.sh SANITIZE(ON|OFF)
source "$(dirname "$0")/common.sh"
need_tools cmake openssl c++
sanitize=$1
here=$(cd "$(dirname "$0")" && pwd)
work="$SEALKEEP_PACKAGE_WORK/cmake-client"
prefix="$SEALKEEP_TEST_PREFIX"
rm -rf "$work"
mkdir -p "$work/files"

flags=()
if [ "$sanitize" = ON ]; then
  # The installed library is sanitized: so is its client.
  flags=(-DCMAKE_CXX_FLAGS="-fsanitize=address,undefined -fno-omit-frame-pointer"
         -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined")
fi
logged "$work/configure.log" cmake -S "$here/cmake_client" -B "$work/build" \
  -DCMAKE_PREFIX_PATH="$prefix" "${flags[@]}"
logged "$work/build.log" cmake --build "$work/build"

cd "$work/files"
gost_key() { openssl genpkey -engine gost -algorithm gost2012_256 -pkeyopt paramset:A -out "$1" 2>/dev/null; }
gost_key ca.key
"$prefix/bin/sealkeep" ca init ca.pem --key ca.key --cn "CMake client CA" >/dev/null
gost_key developer.key
openssl req -engine gost -new -key developer.key -subj "/CN=CMake client developer" -out developer.csr 2>/dev/null
"$prefix/bin/sealkeep" ca issue developer.pem --csr developer.csr --ca-key ca.key --ca-cert ca.pem \
  --group developer >/dev/null
printf 'signed by a client of the CMake package\n' > payload.bin

output=$("$work/build/sign_and_verify" payload.bin developer.pem developer.key ca.pem)
echo "$output"
[ "$output" = "payload.bin: signed as developer, signatures valid" ] || fail "unexpected output: $output"
# The signature the client made is one the command accepts.
"$prefix/bin/sealkeep" verify payload.bin --ca ca.pem

# SameMajorVersion: any 3.x from 3.0.0 on, nothing of another major version.
wanted() {
  cmake -S "$here/cmake_version" -B "$work/version-$1" -DCMAKE_PREFIX_PATH="$prefix" \
    -DSEALKEEP_WANTED="$1" >"$work/version-$1.log" 2>&1
}
wanted 3 || { cat "$work/version-3.log"; fail "find_package(sealkeep 3) was refused"; }
wanted 3.0 || { cat "$work/version-3.0.log"; fail "find_package(sealkeep 3.0) was refused"; }
for refused in 2 3.1 4; do
  if wanted "$refused"; then fail "find_package(sealkeep $refused) was accepted by version $SEALKEEP_VERSION"; fi
  grep -q 'compatible with requested version' "$work/version-$refused.log" \
    || { cat "$work/version-$refused.log"; fail "find_package(sealkeep $refused) failed for another reason"; }
done
echo "find_package(sealkeep VERSION): 3 and 3.0 accepted; 2, 3.1 and 4 refused"
