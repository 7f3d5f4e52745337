#!/usr/bin/env bash
# Installs every Debian package that building, testing and demonstrating
# sealkeep needs. Safe to run again; needs root (or sudo).
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  libssl-dev openssl libengine-gost-openssl
  librpm-dev rpm
  libsqlite3-dev sqlite3
  libglib2.0-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  zstd cpio ima-evm-utils attr
  strace e2fsprogs util-linux mount
  libcli11-dev nlohmann-json3-dev help2man
  # The JSON documents are checked against the installed schema; the zsh
  # completion is tried under zsh.
  python3-jsonschema zsh
  softhsm2 libengine-pkcs11-openssl opensc
  # Packaging: rpmbuild comes with rpm; the Debian packages and their checks.
  dpkg-dev debhelper fakeroot lintian
)

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${packages[@]}"
