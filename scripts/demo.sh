#!/usr/bin/env bash
# The main job on a fresh Debian 12 machine: installs what is needed, builds
# and installs libsealkeep with the sealkeep command, then walks through the
# life of a package: a CA issues developer, seclab and client certificates,
# an RPM with a trusted application is signed three times, inspected,
# verified, refused a fourth signature, caught when tampered with, and
# stripped of its newest signature. Then a device installs it into its trust
# database, refuses and accepts updates, and puts the per-file IMA signatures
# onto the unpacked files. Last, sealkeep's own RPMs are built, signed by
# sealkeep, installed into a scratch root, admitted by a trust database there
# and labelled, and the command installed there runs.
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
export PATH="$prefix/bin:$PATH"
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/x86_64-linux-gnu/pkgconfig:${PKG_CONFIG_PATH:-}"
export LD_LIBRARY_PATH="$prefix/lib:$prefix/lib/x86_64-linux-gnu:${LD_LIBRARY_PATH:-}"

step() { printf '\n== %s\n' "$*"; }
show() { printf '$'; printf ' %q' "$@"; echo; "$@"; }
# Runs a command that must fail, showing its complaint.
refused() {
  printf '$'; printf ' %q' "$@"; echo
  local status=0
  "$@" || status=$?
  if [ "$status" -ne 1 ]; then echo "unexpected: exit status $status, not 1"; exit 1; fi
  echo "(refused with exit status 1, as it should be)"
}

cd "$work"
step "sealkeep is installed: $(command -v sealkeep), $(sealkeep --version | head -n 1); see man sealkeep"

step "A certificate authority. Keys are GOST R 34.10-2012 keys made with openssl."
openssl genpkey -engine gost -algorithm gost2012_256 -pkeyopt paramset:A -out ca.key 2>/dev/null
show sealkeep ca init ca.pem --key ca.key --cn "Demo Package CA"

step "Three signers, each with a key, a certificate request and a certificate of its group."
for who in developer seclab client; do
  openssl genpkey -engine gost -algorithm gost2012_256 -pkeyopt paramset:A -out "$who.key" 2>/dev/null
  openssl req -engine gost -new -key "$who.key" -subj "/CN=Demo $who" -out "$who.csr" 2>/dev/null
  show sealkeep ca issue "$who.pem" --csr "$who.csr" --ca-key ca.key --ca-cert ca.pem --group "$who"
done
echo "The group text is checked before anything is written:"
refused sealkeep ca issue wrong.pem --csr client.csr --ca-key ca.key --ca-cert ca.pem --group "client:vip"

step "The developer's RSA key for OP-TEE trusted-application headers."
openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out ta.key 2>/dev/null
echo "ta.key: RSA-2048"

step "An RPM package (zstd payload) with a trusted application and a hard-linked pair of files."
uuid=8aaaf200-2450-11e4-abe2-0002a5d5c51b
mkdir -p rpm
cat > rpm/demo.spec <<SPEC
Name: sealkeep-demo
Version: 1.0
Release: 1
Summary: sealkeep demonstration package
License: MIT
BuildArch: noarch
%description
sealkeep demonstration package
%install
mkdir -p %{buildroot}/usr/share/demo %{buildroot}/usr/lib/optee_armtz
echo "hello from sealkeep" > %{buildroot}/usr/share/demo/hello.txt
ln %{buildroot}/usr/share/demo/hello.txt %{buildroot}/usr/share/demo/hello-again.txt
head -c 4096 /dev/urandom > %{buildroot}/usr/lib/optee_armtz/$uuid.ta
%files
/usr/share/demo/hello.txt
/usr/share/demo/hello-again.txt
/usr/lib/optee_armtz/$uuid.ta
SPEC
rpmbuild -bb --quiet --define "_topdir $work/rpm" --define "_binary_payload w19.zstdio" \
  --define "__os_install_post %{nil}" --define "debug_package %{nil}" rpm/demo.spec
cp rpm/RPMS/noarch/sealkeep-demo-1.0-1.noarch.rpm demo.rpm
show rpm -qpl demo.rpm

step "Sign as developer (with the TA key), then seclab, then client. Each signature covers the previous one."
show sealkeep sign demo.rpm --cert developer.pem --key developer.key --ta-key ta.key --ta-algorithm pss
show sealkeep sign demo.rpm --cert seclab.pem --key seclab.key
show sealkeep sign demo.rpm --cert client.pem --key client.key

step "What the package now carries: three blocks, their signers, IMA signatures per file, the TA header."
show sealkeep inspect demo.rpm --files

step "Verify the whole stack against the CA."
show sealkeep verify demo.rpm --ca ca.pem

step "The signed package is still a package: rpm reads it, the payload unpacks."
show rpm -qp demo.rpm 2>/dev/null
rpm2cpio demo.rpm | cpio -t --quiet

step "A stack holds at most three signatures: a fourth is refused and the file is left as it was."
refused sealkeep sign demo.rpm --cert client.pem --key client.key

step "Flip one bit of one byte of the package: verification catches it."
cp demo.rpm tampered.rpm
old=$(od -An -tu1 -j 200 -N 1 tampered.rpm | tr -d ' ')
printf "\\$(printf '%03o' $(( old ^ 1 )))" | dd of=tampered.rpm bs=1 seek=200 conv=notrunc status=none
echo "(OpenSSL's own diagnostics come first; the sealkeep line names the file and the verdict.)"
refused sealkeep verify tampered.rpm --ca ca.pem

step "Remove the newest (client) signature; the rest still verifies."
show sealkeep strip demo.rpm --last
show sealkeep verify demo.rpm --ca ca.pem

step "The device: a trust database under a temporary SEALKEEP_ROOTFS."
export SEALKEEP_ROOTFS="$work/device"
mkdir -p "$SEALKEEP_ROOTFS/etc/sealkeep" "$SEALKEEP_ROOTFS/var/lib/sealkeep" "$SEALKEEP_ROOTFS/run"
cat > "$SEALKEEP_ROOTFS/etc/sealkeep/sealkeep.conf" <<CONF
[main]
database_path=$SEALKEEP_ROOTFS/var/lib/sealkeep/trust.db
root_ca_cert_path=$work/ca.pem
revocation_conf=$SEALKEEP_ROOTFS/etc/sealkeep/revocation.conf
developermode_init_conf=$SEALKEEP_ROOTFS/etc/sealkeep/developermode.conf
developermode_runtime_conf=$SEALKEEP_ROOTFS/run/developermode.conf
system_developer_keyid_path=$SEALKEEP_ROOTFS/etc/sealkeep/system_developer_keyid
CONF
printf '[revoke]\n[revoke-on-bind]\n' > "$SEALKEEP_ROOTFS/etc/sealkeep/revocation.conf"
printf '[developermode]\nenabled=false\n' > "$SEALKEEP_ROOTFS/etc/sealkeep/developermode.conf"
cat "$SEALKEEP_ROOTFS/etc/sealkeep/sealkeep.conf"
echo "Asking never creates the database:"
refused sealkeep db status

step "Install the demo package: verified against the root CA, admitted, recorded."
show sealkeep db install sealkeep-demo demo.rpm
show sealkeep db status
show sealkeep db list

step "An update signed by another developer is refused."
cp rpm/RPMS/noarch/sealkeep-demo-1.0-1.noarch.rpm foreign.rpm
openssl genpkey -engine gost -algorithm gost2012_256 -pkeyopt paramset:A -out stranger.key 2>/dev/null
openssl req -engine gost -new -key stranger.key -subj "/CN=Another developer" -out stranger.csr 2>/dev/null
sealkeep ca issue stranger.pem --csr stranger.csr --ca-key ca.key --ca-cert ca.pem --group developer
sealkeep sign foreign.rpm --cert stranger.pem --key stranger.key --ta-key ta.key --ta-algorithm pss >/dev/null
refused sealkeep db install sealkeep-demo foreign.rpm

step "The developer rotates to a new key; the update signed with the chain is accepted."
openssl genpkey -engine gost -algorithm gost2012_256 -pkeyopt paramset:A -out developer2.key 2>/dev/null
openssl req -engine gost -new -key developer2.key -subj "/CN=Demo developer, new key" -out developer2.csr 2>/dev/null
sealkeep ca issue developer2.pem --csr developer2.csr --ca-key ca.key --ca-cert ca.pem --group developer
show sealkeep rotate chain.pem --old-cert developer.pem --old-key developer.key --new-cert developer2.pem --new-key developer2.key
cp rpm/RPMS/noarch/sealkeep-demo-1.0-1.noarch.rpm update.rpm
sealkeep sign update.rpm --cert developer2.pem --key developer2.key --ta-key ta.key --ta-algorithm pss \
  --rotation-chain chain.pem >/dev/null
show sealkeep db install sealkeep-demo update.rpm
echo "The old key is now superseded:"
show sealkeep db revoked

step "Blacklisting the key the new one was rotated from blocks the update."
old_keyid=$(sealkeep db revoked --json | sed -n 's/.*"keyId": "\([0-9a-f]*\)".*/\1/p' | head -n 1)
show sealkeep db revoke "$old_keyid" --blacklisted
refused sealkeep db check sealkeep-demo update.rpm
show sealkeep db unrevoke "$old_keyid" --blacklisted

step "Put the per-file IMA signatures onto the unpacked payload."
mkdir -p payload
(cd payload && rpm2cpio ../update.rpm | cpio -idm --quiet)
attr_flag=()
attr_name=security.ima
probe="$work/payload/.xattr-probe"
touch "$probe"
if ! setfattr -n security.ima -v 0x00 "$probe" 2>/dev/null; then
  echo "(security.* is not writable here: user.ima instead)"
  attr_flag=(--xattr-user)
  attr_name=user.ima
fi
rm -f "$probe"
show sealkeep ima apply update.rpm --root payload "${attr_flag[@]}" --dry-run
show sealkeep ima apply update.rpm --root payload "${attr_flag[@]}"
getfattr -d -m "$attr_name" -e hex -R payload/usr/share/demo
echo "A file changed after unpacking is reported and left alone:"
echo "changed" >> payload/usr/share/demo/hello.txt
setfattr -x "$attr_name" payload/usr/share/demo/hello.txt
refused sealkeep ima apply update.rpm --root payload "${attr_flag[@]}"
unset SEALKEEP_ROOTFS

step "The same calls from C++: a minimal client built with pkg-config alone."
cd - >/dev/null
c++ -std=c++17 -o "$work/sealkeep-example" examples/sealkeep_example.cpp $(pkg-config --cflags --libs sealkeep)
show "$work/sealkeep-example" "$work/demo.rpm" "$work/ca.pem"

step "sealkeep's own packages: RPMs built from the source archive of the dist target."
version=$(sealkeep --version | head -n 1 | sed 's/^sealkeep //')
cmake --build build-release --target dist
rpmtop="$work/rpmbuild"
mkdir -p "$rpmtop/SOURCES"
cp "build-release/sealkeep-$version.tar.gz" "$rpmtop/SOURCES/"
# Debian's rpmbuild cannot see build dependencies installed as Debian packages.
rpmbuild -ba --nodeps --quiet --define "_topdir $rpmtop" packaging/rpm/sealkeep.spec
cd "$work"
own=()
for name in sealkeep sealkeep-devel sealkeep-tools; do
  cp "$rpmtop"/RPMS/*/"$name-$version"-*.rpm "own-$name.rpm"
  own+=("own-$name.rpm")
done
show rpm -qpl own-sealkeep.rpm

step "sealkeep signs its own packages as developer, seclab and client, and verifies them."
show sealkeep sign "${own[@]}" --cert developer.pem --key developer.key
show sealkeep sign "${own[@]}" --cert seclab.pem --key seclab.key
show sealkeep sign "${own[@]}" --cert client.pem --key client.key
show sealkeep verify "${own[@]}" --ca ca.pem

step "Install them into a scratch root with rpm."
echo "rpm's own payload digest covers the whole file, so the appended signatures break it:"
if ! rpm -K --nosignature own-sealkeep.rpm; then
  echo "(so an installer of signed packages passes --nodigest and relies on sealkeep's verification)"
fi
osroot="$work/os-root"
mkdir -p "$osroot"
show rpm --root "$osroot" --nodigest --nodeps -i "${own[@]}"
show rpm --root "$osroot" -qa

step "The scratch root's trust database admits them; their IMA signatures go onto the installed files."
export SEALKEEP_ROOTFS="$osroot"
mkdir -p "$osroot/etc/sealkeep" "$osroot/var/lib/sealkeep" "$osroot/run"
cat > "$osroot/etc/sealkeep/sealkeep.conf" <<CONF
[main]
database_path=$osroot/var/lib/sealkeep/trust.db
root_ca_cert_path=$work/ca.pem
revocation_conf=$osroot/etc/sealkeep/revocation.conf
developermode_init_conf=$osroot/etc/sealkeep/developermode.conf
developermode_runtime_conf=$osroot/run/developermode.conf
system_developer_keyid_path=$osroot/etc/sealkeep/system_developer_keyid
CONF
printf '[revoke]\n[revoke-on-bind]\n' > "$osroot/etc/sealkeep/revocation.conf"
printf '[developermode]\nenabled=false\n' > "$osroot/etc/sealkeep/developermode.conf"
for name in sealkeep sealkeep-devel sealkeep-tools; do
  show sealkeep db install "$name" "own-$name.rpm"
done
for package in "${own[@]}"; do
  show sealkeep ima apply "$package" --root "$osroot" "${attr_flag[@]}"
done
libdir=$(rpm --eval '%{_libdir}')
getfattr -n "$attr_name" -e hex "$osroot$libdir/libsealkeep.so.$version" 2>/dev/null

step "The command installed in the scratch root runs from there (its library found in the root's $libdir)."
installed=(env LD_LIBRARY_PATH="$osroot$libdir" "$osroot/usr/bin/sealkeep")
show "${installed[@]}" --version
show "${installed[@]}" verify "${own[@]}" --ca ca.pem
show "${installed[@]}" db list
unset SEALKEEP_ROOTFS

step "done"
