# Sourced by every packaging test. ctest counts exit status 77 as skipped;
# a skipped test says why on its first line. The test's environment names:
#   SEALKEEP_SOURCE_DIR    the source tree
#   SEALKEEP_VERSION       the project's version
#   SEALKEEP_TEST_PREFIX   the build installed by the cli_install fixture
#   SEALKEEP_PACKAGE_WORK  the directory the package builds work in
#   SEALKEEP_PACKAGE_BUILDS ON when this build tree builds the packages
set -euo pipefail

skip() { echo "skipped: $*"; exit 77; }
fail() { echo "FAILED: $*" >&2; exit 1; }

# Skips the test unless every named command is installed.
need_tools() {
  local tool
  for tool in "$@"; do
    command -v "$tool" >/dev/null 2>&1 || skip "$tool is not installed (scripts/install-deps.sh installs it)"
  done
}

# Skips the test when this build tree leaves the package builds to another.
need_package_builds() {
  if [ "${SEALKEEP_PACKAGE_BUILDS:-OFF}" != ON ]; then
    skip "this build tree does not build the packages (SEALKEEP_PACKAGE_TESTS=OFF, the default of a sanitized build: the packages are built with the distributions' own flags, and the plain build checks them)"
  fi
}

# same_files WHAT EXPECTED ACTUAL: two lists of paths, one a line, in any
# order, must be equal; the difference is printed when they are not.
same_files() {
  local what=$1 expected=$2 actual=$3
  if ! diff -u <(sort <<<"$expected") <(sort <<<"$actual"); then
    fail "$what does not hold what it should (-: expected, +: found)"
  fi
  echo "$what: holds what it should"
}

# The shell completions the build installs, as paths under the prefix
# (share/bash-completion/..., share/zsh/..., share/fish/...); none yet.
installed_completions() {
  local dir
  for dir in share/bash-completion share/zsh share/fish; do
    if [ -d "$SEALKEEP_TEST_PREFIX/$dir" ]; then
      (cd "$SEALKEEP_TEST_PREFIX" && find "$dir" \( -type f -o -type l \))
    fi
  done
}

# The public headers, as file names.
public_headers() {
  (cd "$SEALKEEP_SOURCE_DIR/include/sealkeep" && ls)
}

# Runs a long command with its output in LOG; on failure prints the log's end.
logged() {
  local log=$1
  shift
  if ! "$@" >"$log" 2>&1; then
    tail -n 60 "$log"
    fail "$* (the whole output is in $log)"
  fi
}
