#!/usr/bin/env bash
# lintian finds nothing of error level in the three Debian packages.
source "$(dirname "$0")/common.sh"
need_package_builds
need_tools lintian dpkg-architecture
top="$SEALKEEP_PACKAGE_WORK/deb"
changes="$top/sealkeep_${SEALKEEP_VERSION}_$(dpkg-architecture -qDEB_HOST_ARCH).changes"
[ -f "$changes" ] || skip "the Debian packages were not built (see packaging_deb_build)"
status=0
output=$(lintian --fail-on error "$changes" 2>&1) || status=$?
grep -v '^running with root privileges' <<<"$output" || true
[ "$status" -eq 0 ] || fail "lintian reports errors (exit status $status)"
echo "lintian: no error"
