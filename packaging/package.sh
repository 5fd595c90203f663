#!/bin/bash
# Builds the Debian package from the working tree.
#
#   packaging/package.sh [--arm] [DIRECTORY]
#
# The package goes to DIRECTORY, build/ by default; its path is the last line of the output. With
# --arm it is the one for armhf, built with the libraries that cmake/arm_sysroot.sh has put in
# build-arm/. What is missing for the build is an error: install debhelper, cmake, ninja-build, g++
# (or g++-arm-linux-gnueabihf), libcpg-dev, libdaemon-dev and libssl-dev.
set -euo pipefail
repo=$(dirname "$(dirname "$(readlink -f "$0")")")
architecture=$(dpkg --print-architecture)
if [ "${1:-}" = --arm ]; then
  shift
  architecture=armhf
  [ -d "$repo/build-arm/sysroot" ] || { echo "package.sh: no build-arm/sysroot" >&2; exit 1; }
  export CSD_CROSS=$repo
fi
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
# The libraries of another architecture are not installed here, which is what -d would check.
DEB_BUILD_OPTIONS="nocheck noautodbgsym parallel=$(nproc)" \
  dpkg-buildpackage -b -us -uc -a "$architecture" ${CSD_CROSS:+-d}
mkdir -p "$destination"
rm -f "$destination"/cluster-sync-daemon_*_"$architecture".deb
mv "$work"/cluster-sync-daemon_*_"$architecture".deb "$destination"
ls "$destination"/cluster-sync-daemon_*_"$architecture".deb
