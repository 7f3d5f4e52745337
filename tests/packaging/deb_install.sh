#!/usr/bin/env bash
# dpkg -i of the three Debian packages, into a throw-away root so that the
# machine's own packages stay as they were: the root's package database is a
# copy of the machine's, so the packages' dependencies are checked against
# what is installed here. The installed command then runs.
source "$(dirname "$0")/common.sh"
need_package_builds
need_tools dpkg dpkg-architecture
[ "$(id -u)" -eq 0 ] || skip "dpkg --root installs only as root"
top="$SEALKEEP_PACKAGE_WORK/deb"
version=$SEALKEEP_VERSION
arch=$(dpkg-architecture -qDEB_HOST_ARCH)
[ -f "$top/libsealkeep3_${version}_$arch.deb" ] || skip "the Debian packages were not built (see packaging_deb_build)"

machine_state() { dpkg-query -W -f '${binary:Package} ${db:Status-Abbrev}\n' libsealkeep3 libsealkeep-dev sealkeep 2>&1 || true; }
before=$(machine_state)

root="$SEALKEEP_PACKAGE_WORK/deb-root"
rm -rf "$root"
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
cp /var/lib/dpkg/status "$root/var/lib/dpkg/status"
: > "$root/var/lib/dpkg/available"
# The copied database names the machine's packages without their file lists;
# dpkg warns once per package about that, which says nothing here.
dpkg --root="$root" -i "$top/libsealkeep3_${version}_$arch.deb" "$top/libsealkeep-dev_${version}_$arch.deb" \
  "$top/sealkeep_${version}_$arch.deb" 2> >(grep -v "files list file for package .* missing" >&2)
for name in libsealkeep3 libsealkeep-dev sealkeep; do
  [ "$(dpkg-query --root="$root" -W -f '${db:Status-Abbrev}' "$name" 2>/dev/null)" = "ii " ] \
    || fail "$name is not installed in $root"
done
[ "$(machine_state)" = "$before" ] || fail "the machine's own package database changed"

export LD_LIBRARY_PATH="$root/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
output=$("$root/usr/bin/sealkeep" --version | head -n 1)
[ "$output" = "sealkeep $version" ] || fail "sealkeep --version printed: $output"
echo "installed in $root: $output"
