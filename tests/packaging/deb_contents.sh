#!/usr/bin/env bash
# dpkg -c of the three Debian packages lists what each should hold: the
# library in libsealkeep3 (with its symbols file), the development files in
# libsealkeep-dev, the command with its manual (and completions, once the
# build installs any) in sealkeep.
source "$(dirname "$0")/common.sh"
need_package_builds
need_tools dpkg-deb dpkg-architecture
top="$SEALKEEP_PACKAGE_WORK/deb"
version=$SEALKEEP_VERSION
arch=$(dpkg-architecture -qDEB_HOST_ARCH)
[ -f "$top/libsealkeep3_${version}_$arch.deb" ] || skip "the Debian packages were not built (see packaging_deb_build)"
libdir=/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)

# Files and links only (dpkg -c lists directories too), without "-> target".
listed() {
  dpkg-deb -c "$top/$1_${version}_$2.deb" | awk '$1 !~ /^d/ { print $6 }' | sed 's|^\./|/|'
}
docs() { printf '/usr/share/doc/%s/changelog.gz\n/usr/share/doc/%s/copyright' "$1" "$1"; }

same_files libsealkeep3 "$libdir/libsealkeep.so.3
$libdir/libsealkeep.so.$version
$(docs libsealkeep3)" "$(listed libsealkeep3 "$arch")"
dpkg-deb -I "$top/libsealkeep3_${version}_$arch.deb" symbols | grep -q '^libsealkeep.so.3 libsealkeep3 #MINVER#' \
  || fail "libsealkeep3 has no symbols control file"
echo "libsealkeep3: carries its symbols file"

same_files libsealkeep-dev "$(public_headers | sed 's|^|/usr/include/sealkeep/|')
$libdir/libsealkeep.so
$libdir/pkgconfig/sealkeep.pc
$libdir/cmake/sealkeep/sealkeepConfig.cmake
$libdir/cmake/sealkeep/sealkeepConfigVersion.cmake
$libdir/cmake/sealkeep/sealkeepTargets.cmake
$libdir/cmake/sealkeep/sealkeepTargets-none.cmake
$(docs libsealkeep-dev)" "$(listed libsealkeep-dev "$arch")"

expected_command="/usr/bin/sealkeep
/usr/share/man/man1/sealkeep.1.gz
/usr/share/sealkeep/sealkeep.schema.json
$(docs sealkeep)"
completions=$(installed_completions | sed 's|^|/usr/|')
[ -z "$completions" ] || expected_command+=$'\n'"$completions"
same_files sealkeep "$expected_command" "$(listed sealkeep "$arch")"
