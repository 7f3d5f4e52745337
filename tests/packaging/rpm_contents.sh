#!/usr/bin/env bash
# rpm -qpl of the three RPMs lists what each should hold: the library in
# sealkeep, the development files in sealkeep-devel, the command with its
# manual (and completions, once the build installs any) in sealkeep-tools.
source "$(dirname "$0")/common.sh"
need_package_builds
need_tools rpm
top="$SEALKEEP_PACKAGE_WORK/rpm"
version=$SEALKEEP_VERSION
arch=$(rpm --eval '%{_arch}')
rpms="$top/RPMS/$arch"
[ -f "$rpms/sealkeep-$version-1.$arch.rpm" ] || skip "the RPMs were not built (see packaging_rpm_build)"

libdir=$(rpm --eval '%{_libdir}')
# The documentation directory's name is the distribution's choice (rpm's
# default, kept by Debian: NAME-VERSION).
if [ -n "$(rpm --eval '%{?_docdir_fmt}')" ]; then
  docdir=$(rpm --define 'NAME sealkeep' --define "VERSION $version" --eval '%{_defaultdocdir}/%{_docdir_fmt}')
else
  docdir=$(rpm --eval '%{_defaultdocdir}')/sealkeep-$version
fi
# Build-id links are rpm's own, made or not by the distribution's settings.
listed() { rpm -qpl "$rpms/$1-$version-1.$arch.rpm" | grep -v '^/usr/lib/\.build-id'; }

same_files sealkeep "$libdir/libsealkeep.so.3
$libdir/libsealkeep.so.$version
$docdir
$docdir/README.md" "$(listed sealkeep)"

same_files sealkeep-devel "/usr/include/sealkeep
$(public_headers | sed 's|^|/usr/include/sealkeep/|')
$libdir/libsealkeep.so
$libdir/pkgconfig/sealkeep.pc
$libdir/cmake/sealkeep
$libdir/cmake/sealkeep/sealkeepConfig.cmake
$libdir/cmake/sealkeep/sealkeepConfigVersion.cmake
$libdir/cmake/sealkeep/sealkeepTargets.cmake
$libdir/cmake/sealkeep/sealkeepTargets-relwithdebinfo.cmake" "$(listed sealkeep-devel)"

expected_tools="/usr/bin/sealkeep
/usr/share/man/man1/sealkeep.1
/usr/share/sealkeep
/usr/share/sealkeep/sealkeep.schema.json"
completions=$(installed_completions | sed 's|^|/usr/|')
[ -z "$completions" ] || expected_tools+=$'\n'"$completions"
same_files sealkeep-tools "$expected_tools" "$(listed sealkeep-tools | sed 's/\.gz$//')"

# The command and the development files need the library of the same build.
for sub in devel tools; do
  rpm -qpR "$rpms/sealkeep-$sub-$version-1.$arch.rpm" | grep -Eqx "sealkeep(\([^)]*\))? = $version-1" \
    || fail "sealkeep-$sub does not require the library of its own build"
done
echo "sealkeep-devel and sealkeep-tools require sealkeep = $version-1"
