#!/bin/sh
# Compares the library's binary interface with the kept one: check-abi.sh [--update] [BUILD-DIR]
#   --update   keeps the interface of this build instead; after a change that is meant
#   BUILD-DIR  a release build of g++; build if not given
# Exit status: 0 the same, 1 changed, 77 cannot be compared on this machine
set -eu
update=no
if [ "${1:-}" = --update ]; then
    update=yes
    shift
fi
source=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$source/build}
machine=$(uname -m)
kept=$source/abi/libzenk_hbbtv_wsserver-$machine.xml.gz

if ! command -v abidw >/dev/null || ! command -v abidiff >/dev/null; then
    echo "check-abi: skipped, abidw and abidiff are missing (package abigail-tools)"
    exit 77
fi
if [ $update = no ] && [ ! -f "$kept" ]; then
    echo "check-abi: skipped, no interface is kept for $machine"
    exit 77
fi

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

# Only what the installed headers show counts; places and paths in the source do not.
cmake --install "$build" --component dev --prefix "$folder" >/dev/null
abidw --headers-dir "$folder/include/zenk_hbbtv_wsserver" --drop-private-types --exported-interfaces-only \
    --no-corpus-path --no-comp-dir-path --no-show-locs --type-id-style hash \
    --out-file "$folder/now.xml" "$build/libzenk_hbbtv_wsserver.so.4"

if [ $update = yes ]; then
    mkdir -p "$source/abi"
    gzip -9n <"$folder/now.xml" >"$kept"
    echo "check-abi: kept in $kept"
    exit 0
fi
gunzip <"$kept" >"$folder/kept.xml"
if ! abidiff "$folder/kept.xml" "$folder/now.xml"; then
    echo "check-abi: the binary interface has changed; if that is meant: scripts/check-abi.sh --update" >&2
    exit 1
fi
