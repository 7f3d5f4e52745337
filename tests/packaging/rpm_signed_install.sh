#!/usr/bin/env bash
# sealkeep's own RPMs, signed by sealkeep as developer, seclab and client,
# verify; rpm installs them into a scratch root (with --nodigest: rpm's
# payload digest covers the whole file, appended signatures included); a
# device database under that root admits them; ima apply labels the installed
# files; and the command installed there runs and verifies them.
source "$(dirname "$0")/common.sh"
need_package_builds
need_tools rpm openssl
[ "$(id -u)" -eq 0 ] || skip "rpm --root installs only as root"
version=$SEALKEEP_VERSION
arch=$(rpm --eval '%{_arch}')
rpms="$SEALKEEP_PACKAGE_WORK/rpm/RPMS/$arch"
[ -f "$rpms/sealkeep-$version-1.$arch.rpm" ] || skip "the RPMs were not built (see packaging_rpm_build)"
sealkeep="$SEALKEEP_TEST_PREFIX/bin/sealkeep"
work="$SEALKEEP_PACKAGE_WORK/rpm-signed"
rm -rf "$work"
mkdir -p "$work"
cd "$work"

gost_key() { openssl genpkey -engine gost -algorithm gost2012_256 -pkeyopt paramset:A -out "$1" 2>/dev/null; }
gost_key ca.key
"$sealkeep" ca init ca.pem --key ca.key --cn "Package CA" >/dev/null
for who in developer seclab client; do
  gost_key "$who.key"
  openssl req -engine gost -new -key "$who.key" -subj "/CN=sealkeep $who" -out "$who.csr" 2>/dev/null
  "$sealkeep" ca issue "$who.pem" --csr "$who.csr" --ca-key ca.key --ca-cert ca.pem --group "$who" >/dev/null
done

packages=(sealkeep sealkeep-devel sealkeep-tools)
files=()
for name in "${packages[@]}"; do
  cp "$rpms/$name-$version-1.$arch.rpm" "$name.rpm"
  files+=("$name.rpm")
done
for who in developer seclab client; do
  "$sealkeep" sign "${files[@]}" --cert "$who.pem" --key "$who.key"
done
"$sealkeep" verify "${files[@]}" --ca ca.pem

root="$work/root"
mkdir -p "$root"
rpm --root "$root" --nodigest --nodeps -i "${files[@]}"
rpm --root "$root" -q "${packages[@]}"

# The device's trust database lives under the scratch root.
mkdir -p "$root/etc/sealkeep" "$root/var/lib/sealkeep" "$root/run"
cat > "$root/etc/sealkeep/sealkeep.conf" <<CONF
[main]
database_path=$root/var/lib/sealkeep/trust.db
root_ca_cert_path=$work/ca.pem
revocation_conf=$root/etc/sealkeep/revocation.conf
developermode_init_conf=$root/etc/sealkeep/developermode.conf
developermode_runtime_conf=$root/run/developermode.conf
system_developer_keyid_path=$root/etc/sealkeep/system_developer_keyid
CONF
printf '[revoke]\n[revoke-on-bind]\n' > "$root/etc/sealkeep/revocation.conf"
printf '[developermode]\nenabled=false\n' > "$root/etc/sealkeep/developermode.conf"
for name in "${packages[@]}"; do
  SEALKEEP_ROOTFS="$root" "$sealkeep" db install "$name" "$name.rpm"
done
listed=$(SEALKEEP_ROOTFS="$root" "$sealkeep" db list)
for name in "${packages[@]}"; do
  grep -q "^$name\b" <<<"$listed" || { echo "$listed"; fail "the database does not list $name"; }
done

# Each installed regular file gets its IMA signature; user.ima, since
# security.* may not be writable where the build tree lies.
for name in "${packages[@]}"; do
  SEALKEEP_ROOTFS="$root" "$sealkeep" ima apply "$name.rpm" --root "$root" --xattr-user
done
if command -v getfattr >/dev/null 2>&1; then
  library=$(rpm --eval '%{_libdir}')/libsealkeep.so.$version
  getfattr -n user.ima -e hex "$root$library" | grep -q '^user.ima=0x030212' \
    || fail "$library carries no IMA signature"
fi

# The command installed in the scratch root: found through the root's library
# directory, it runs and accepts the packages it came in.
export LD_LIBRARY_PATH="$root$(rpm --eval '%{_libdir}')${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
installed="$root/usr/bin/sealkeep"
# The first line names the command's version (the next ones OpenSSL's and the engine's).
[ "$("$installed" --version | head -n 1)" = "sealkeep $version" ] || fail "$installed --version: $("$installed" --version)"
"$installed" verify "${files[@]}" --ca ca.pem
echo "signed, verified, installed under $root, admitted and labelled"
