#!/usr/bin/env bash
# dpkg-buildpackage -us -uc -b builds libsealkeep3, libsealkeep-dev and
# sealkeep from the build's source archive, unpacked under
# $SEALKEEP_PACKAGE_WORK/deb (the packages land beside the unpacked tree).
# The library's symbols must be exactly those of debian/libsealkeep3.symbols.
#   deb_build.sh ARCHIVE
source "$(dirname "$0")/common.sh"
need_package_builds
need_tools dpkg-buildpackage dh dpkg-gensymbols
archive=$1
[ -f "$archive" ] || skip "no source archive (see packaging_dist)"
top="$SEALKEEP_PACKAGE_WORK/deb"
rm -rf "$top"
mkdir -p "$top"
tar -xzf "$archive" -C "$top"
cd "$top/sealkeep-$SEALKEEP_VERSION"
# A compiler cache, when the build uses one, keeps a rebuild cheap. debhelper
# gives the build a HOME of its own, so the cache is named explicitly.
export CCACHE_BASEDIR="$PWD"
if command -v ccache >/dev/null 2>&1; then
  CCACHE_DIR=$(ccache --get-config cache_dir)
  export CCACHE_DIR
fi
logged "$top/dpkg-buildpackage.log" dpkg-buildpackage -us -uc -b
# dpkg-gensymbols fails the build on a lost symbol and only warns about a new
# one: a new symbol must be added to the symbols file as well.
if grep -q 'dpkg-gensymbols: warning: some new symbols appeared' "$top/dpkg-buildpackage.log"; then
  sed -n '/^--- debian\/libsealkeep3.symbols/,/^[^-+ @]/p' "$top/dpkg-buildpackage.log"
  fail "the library exports symbols that debian/libsealkeep3.symbols does not list (see README, \"Packages\")"
fi
ls "$top"/*.deb "$top"/*.changes
