#!/bin/bash
# Builds the Debian package from the working tree.
#
#   packaging/package.sh [DIRECTORY]
#
# The package goes to DIRECTORY, build/ by default; its path is the last line of the output. What is
# missing for the build is an error: install debhelper, cmake, ninja-build, g++, libcpg-dev,
# libdaemon-dev and libssl-dev.
set -euo pipefail
repo=$(dirname "$(dirname "$(readlink -f "$0")")")
destination=$(realpath -m "${1:-$repo/build}")

# The packaging tools write beside and into the source, so they get a copy.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
source=$work/source
mkdir -p "$source"
cd "$repo"
cp -a CMakeLists.txt README.md redundancy_health platform tools bench docs packaging "$source"
mv "$source/packaging/debian" "$source/packaging/changelog" "$source"
mv "$source/changelog" "$source/debian/changelog"

cd "$source"
DEB_BUILD_OPTIONS="noautodbgsym parallel=$(nproc)" dpkg-buildpackage -b -us -uc
mkdir -p "$destination"
rm -f "$destination"/cluster-sync-daemon_*.deb
mv "$work"/cluster-sync-daemon_*.deb "$destination"
ls "$destination"/cluster-sync-daemon_*.deb
