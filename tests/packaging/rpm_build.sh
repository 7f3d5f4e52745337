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
# A compiler cache, when the build uses one, keeps a rebuild cheap.
export CCACHE_BASEDIR="$top/BUILD"
logged "$top/rpmbuild.log" rpmbuild -ba --nodeps --define "_topdir $top" \
  "$SEALKEEP_SOURCE_DIR/packaging/rpm/sealkeep.spec"
ls "$top"/RPMS/*/*.rpm "$top"/SRPMS/*.rpm
