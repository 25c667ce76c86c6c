#!/bin/sh
# Unpacks Debian's libraries of another architecture into a folder for the cross presets: make-sysroot.sh ARCH FOLDER
#   ARCH    arm64 or armhf; needs "dpkg --add-architecture ARCH && apt-get update" before
#   FOLDER  is made; give it to cmake in the environment as ZENK_SYSROOT
# Nothing is installed on this machine.
set -eu
# shellcheck source=scripts/usage.sh
. "$(dirname "$0")/usage.sh"
if [ $# -ne 2 ]; then
    usage >&2
    exit 2
fi
arch=$1
mkdir -p "$2/usr/lib"
root=$(cd "$2" && pwd)
# The packages still ship a part of their files below /lib.
ln -sfn usr/lib "$root/lib"

wanted=
for package in libwebsockets-dev libwebsockets-evlib-ev libev-dev libssl-dev libinih-dev libcpp-httplib-dev \
    libqrencode-dev libgtest-dev libboost-dev; do
    wanted="$wanted $package:$arch"
done
# apt-get knows what these need in turn; the header-only ones serve all architectures and may be installed already.
# shellcheck disable=SC2086
packages=$(apt-get -s install --no-install-recommends $wanted | sed -n "s/^Inst \([^ ]*:$arch\) .*/\1/p")
if [ -z "$packages" ]; then
    echo "make-sysroot: nothing to unpack; the packages are installed, leave ZENK_SYSROOT empty" >&2
    exit 1
fi

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
# shellcheck disable=SC2086
apt-get -q download $packages libcli11-dev nlohmann-json3-dev
for package in *.deb; do
    dpkg-deb --fsys-tarfile "$package" | tar -x --keep-directory-symlink -C "$root"
done
echo "make-sysroot: done, export ZENK_SYSROOT=$root"
