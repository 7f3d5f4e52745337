#!/usr/bin/env bash
# The build's dist target makes the source archive the packages are built
# from, holding packaging/rpm/sealkeep.spec and debian/ of this tree.
#   dist.sh BUILD_DIR
source "$(dirname "$0")/common.sh"
need_tools git tar
git -C "$SEALKEEP_SOURCE_DIR" rev-parse --git-dir >/dev/null 2>&1 \
  || skip "$SEALKEEP_SOURCE_DIR is not a git checkout: the source archive is made from git's tracked files"
build=$1
archive="$build/sealkeep-$SEALKEEP_VERSION.tar.gz"
rm -f "$archive"
cmake --build "$build" --target dist
[ -f "$archive" ] || fail "the dist target made no $archive"
listing=$(tar -tzf "$archive")
for file in CMakeLists.txt packaging/rpm/sealkeep.spec debian/control debian/rules include/sealkeep/sealkeep.h; do
  grep -qx "sealkeep-$SEALKEEP_VERSION/$file" <<<"$listing" || fail "the archive lacks $file"
done
echo "$archive: $(wc -l <<<"$listing") entries under sealkeep-$SEALKEEP_VERSION/"
