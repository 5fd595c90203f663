#!/bin/bash
# Builds the Debian packages from the working tree.
#
#   packaging/package.sh [--arm] [DIRECTORY]
#
# Writes them to DIRECTORY, build/ by default. The last lines of the output are their paths; the daemon's
# package is the first of them. With --arm it builds for armhf, with the libraries that
# cmake/arm_sysroot.sh has put in build-arm/. Install first: debhelper, dh-python, cmake, ninja-build,
# g++ (or g++-arm-linux-gnueabihf), libcpg-dev, libssl-dev and pkgconf.
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

# dpkg-buildpackage writes into and next to the source, so it gets a copy.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
source=$work/source
mkdir -p "$source"
cd "$repo"
cp -a CMakeLists.txt README.md SECURITY.md client redundancy_health platform tools bench docs packaging "$source"
cp -a packaging/debian "$source"
cp packaging/changelog "$source/debian"

cd "$source"
version=$(sed -n 's/^project(.*VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
[ "$version" = "$(dpkg-parsechangelog -S Version)" ] ||
  { echo "package.sh: CMakeLists.txt says $version, packaging/changelog another version" >&2; exit 1; }
# Libraries of another architecture are not installed here, so -d skips the check of build dependencies.
DEB_BUILD_OPTIONS="nocheck noautodbgsym parallel=$(nproc)" \
  dpkg-buildpackage -b -us -uc -a "$architecture" ${CSD_CROSS:+-d}
mkdir -p "$destination"
for deb in "$work"/*.deb; do
  name=$(basename "$deb")
  rm -f "$destination/${name%%_*}"_*_"${name##*_}"
  mv "$deb" "$destination"
  echo "$destination/$name"
done
