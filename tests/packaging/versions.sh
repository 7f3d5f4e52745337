#!/usr/bin/env bash
# packaging/rpm/sealkeep.spec and the Debian changelog name the project's version, so that
# the packages built from the archive are of the version the build makes.
source "$(dirname "$0")/common.sh"
spec_version=$(sed -n 's/^Version:[[:space:]]*//p' "$SEALKEEP_SOURCE_DIR/packaging/rpm/sealkeep.spec")
debian_version=$(sed -n '1s/^sealkeep (\([^)]*\)).*/\1/p' "$SEALKEEP_SOURCE_DIR/debian/changelog")
[ "$spec_version" = "$SEALKEEP_VERSION" ] \
  || fail "packaging/rpm/sealkeep.spec has Version $spec_version, the project $SEALKEEP_VERSION"
[ "$debian_version" = "$SEALKEEP_VERSION" ] \
  || fail "debian/changelog is at $debian_version, the project at $SEALKEEP_VERSION"
echo "sealkeep.spec and debian/changelog: version $SEALKEEP_VERSION"
