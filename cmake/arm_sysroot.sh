#!/bin/bash
# Makes a directory with the armhf libraries and headers of this Debian release that the build needs,
# and a package database of them, from which dpkg-shlibdeps gets the dependencies. Installs nothing on
# this machine.
#
#   cmake/arm_sysroot.sh DIRECTORY      DIRECTORY/sysroot and DIRECTORY/dpkg; made once
set -euo pipefail
[ -n "${1:-}" ] || { echo "Usage: arm_sysroot.sh DIRECTORY" >&2; exit 2; }
mkdir -p "$1"
destination=$(realpath "$1")
[ ! -e "$destination/sysroot" ] || exit 0

PACKAGES=(corosync libcpg-dev libgtest-dev libssl-dev libstdc++6)

work=$(mktemp -d "$destination/sysroot.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work"/{lists/partial,archives/partial,sysroot,dpkg/info}

# Runs apt-get with an empty package database, because this machine's has no armhf packages.
armhf_apt() {
  apt-get -o APT::Architecture=armhf -o APT::Architectures=armhf -o Dir::State::Lists="$work/lists" \
    -o Dir::Cache="$work" -o Dir::State::status=/dev/null -o APT::Sandbox::User=root "$@"
}
# Ignore an unreadable archive; the download fails if a package is missing.
armhf_apt update || true
armhf_apt install --yes --no-install-recommends --download-only "${PACKAGES[@]}"

for deb in "$work"/archives/*.deb; do
  dpkg-deb -x "$deb" "$work/sysroot"
  # The parts of the dpkg database that dpkg-shlibdeps reads. It looks for files by their paths on this
  # machine.
  name=$(dpkg-deb -f "$deb" Package)
  [ "$(dpkg-deb -f "$deb" Multi-Arch)" != same ] || name=$name:armhf
  for file in shlibs symbols; do
    dpkg-deb -I "$deb" "$file" > "$work/dpkg/info/$name.$file" 2> /dev/null ||
      rm "$work/dpkg/info/$name.$file"
  done
  dpkg-deb --fsys-tarfile "$deb" | tar -t | sed "s|^\.|$destination/sysroot|; s|/$||" > "$work/dpkg/info/$name.list"
  { dpkg-deb -f "$deb" && printf 'Status: install ok installed\n\n'; } >> "$work/dpkg/status"
done
rm -rf "$work"/sysroot/{etc,run,var}  # a program in the emulator must see this machine's
echo 1 > "$work/dpkg/info/format"  # file names include the architecture
echo armhf > "$work/dpkg/arch"

rm -rf "$destination/dpkg"
mv "$work/dpkg" "$destination/dpkg"
mv "$work/sysroot" "$destination/sysroot"
