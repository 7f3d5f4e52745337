#!/usr/bin/env bash
# rpmbuild -ba --nodeps builds packaging/rpm/sealkeep.spec from the build's
# source archive into $SEALKEEP_PACKAGE_WORK/rpm.
#   rpm_build.sh ARCHIVE
source "$(dirname "$0")/common.sh"
need_package_builds
need_tools rpmbuild
archive=$1
[ -f "$archive" ] || skip "no source archive (see packaging_dist)"
top="$SEALKEEP_PACKAGE_WORK/rpm"
rm -rf "$top"
mkdir -p "$top/SOURCES"
cp "$archive" "$top/SOURCES/"
# A compiler cache, when the build uses one, keeps a rebuild cheap, also from
# another checkout (the packages' debugging information is not checked here,
# so the directory it names need not be hashed).
export CCACHE_BASEDIR="$top/BUILD" CCACHE_NOHASHDIR=true
logged "$top/rpmbuild.log" rpmbuild -ba --nodeps --define "_topdir $top" \
  "$SEALKEEP_SOURCE_DIR/packaging/rpm/sealkeep.spec"
ls "$top"/RPMS/*/*.rpm "$top"/SRPMS/*.rpm
