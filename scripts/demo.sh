#!/usr/bin/env bash
# The main job on a fresh Debian 12 machine: installs what is needed, builds
# and installs libsealkeep, builds the example client against the installed
# library with pkg-config alone, then signs a real RPM package as developer,
# seclab and client and verifies it.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh

prefix="${SEALKEEP_PREFIX:-/usr/local}"
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DSEALKEEP_BUILD_TESTS=OFF \
  -DSEALKEEP_BUILD_EXAMPLES=OFF -DCMAKE_INSTALL_PREFIX="$prefix"
cmake --build build-release -j"$(nproc)"
cmake --install build-release
ldconfig 2>/dev/null || true

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
libdirs="$prefix/lib:$prefix/lib/x86_64-linux-gnu"
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/x86_64-linux-gnu/pkgconfig:${PKG_CONFIG_PATH:-}"
export LD_LIBRARY_PATH="$libdirs:${LD_LIBRARY_PATH:-}"

step() { printf '\n== %s\n' "$*"; }

step "build the example client with: c++ ... \$(pkg-config --cflags --libs sealkeep)"
c++ -std=c++17 -o "$work/sealkeep-example" examples/sealkeep_example.cpp $(pkg-config --cflags --libs sealkeep)
tool="$work/sealkeep-example"

step "a GOST CA and developer, seclab and client certificates"
ossl() { openssl "$@"; }
ossl genpkey -engine gost -algorithm gost2012_256 -pkeyopt paramset:A -out "$work/ca.key" 2>/dev/null
"$tool" ca "$work/ca.pem" "$work/ca.key" "Demo Package CA"
for who in developer seclab client; do
  ossl genpkey -engine gost -algorithm gost2012_256 -pkeyopt paramset:A -out "$work/$who.key" 2>/dev/null
  ossl req -engine gost -new -key "$work/$who.key" -subj "/CN=Demo $who" -out "$work/$who.csr" 2>/dev/null
  "$tool" issue "$work/$who.pem" "$work/$who.csr" "$work/ca.key" "$work/ca.pem" "$who"
  ossl verify -engine gost -CAfile "$work/ca.pem" "$work/$who.pem" 2>/dev/null
done

step "a real RPM package with a zstd payload"
mkdir -p "$work/rpm/stage/usr/share/demo"
echo "hello from sealkeep" > "$work/rpm/stage/usr/share/demo/hello.txt"
cat > "$work/rpm/demo.spec" <<SPEC
Name: sealkeep-demo
Version: 1.0
Release: 1
Summary: sealkeep demonstration package
License: MIT
BuildArch: noarch
%description
sealkeep demonstration package
%install
mkdir -p %{buildroot}
cp -a $work/rpm/stage/. %{buildroot}/
%files
/usr/share/demo/hello.txt
SPEC
rpmbuild -bb --quiet --define "_topdir $work/rpm" --define "_binary_payload w19.zstdio" \
  --define "__os_install_post %{nil}" --define "debug_package %{nil}" "$work/rpm/demo.spec"
package="$work/sealkeep-demo.rpm"
cp "$work/rpm/RPMS/noarch/sealkeep-demo-1.0-1.noarch.rpm" "$package"

step "sign as developer, then seclab, then client"
"$tool" sign "$package" "$work/developer.pem" "$work/developer.key"
"$tool" sign "$package" "$work/seclab.pem" "$work/seclab.key"
"$tool" sign "$package" "$work/client.pem" "$work/client.key"
"$tool" list "$package"

step "verify the signature stack against the CA"
"$tool" verify "$package" "$work/ca.pem"

step "the signed package is still a package"
rpm -qpl "$package" 2>/dev/null
rpm2cpio "$package" | cpio -t --quiet

step "a second developer signature is refused; a tampered package fails verification"
if "$tool" sign "$package" "$work/developer.pem" "$work/developer.key" 2>/dev/null; then
  echo "unexpected: a fourth signature was accepted"; exit 1
fi
# Flip the lowest bit of one byte of the package's header.
old=$(od -An -tu1 -j 200 -N 1 "$package" | tr -d ' ')
printf "\\$(printf '%03o' $(( old ^ 1 )))" | dd of="$package" bs=1 seek=200 conv=notrunc status=none
if "$tool" verify "$package" "$work/ca.pem" 2>/dev/null; then
  echo "unexpected: a tampered package verified"; exit 1
fi

step "done"
