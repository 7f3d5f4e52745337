#!/bin/sh
# Writes the source archive of a git checkout: the tracked files as they are
# in the working tree, under one top directory.
#   dist.sh SOURCE_DIR NAME ARCHIVE   (NAME: sealkeep-VERSION)
set -eu
source_dir=$1 name=$2 archive=$3
if ! git -C "$source_dir" rev-parse --git-dir >/dev/null 2>&1; then
  echo "dist: $source_dir is not a git checkout; the archive is made from git's tracked files" >&2
  exit 1
fi
# `git stash create` records the working tree's changes to tracked files as a
# commit without touching the checkout; it prints nothing when there are none.
tree=$(git -C "$source_dir" -c user.name=dist -c user.email=dist@localhost stash create)
git -C "$source_dir" archive --format=tar.gz --prefix="$name/" -o "$archive" "${tree:-HEAD}"
echo "dist: $archive"
