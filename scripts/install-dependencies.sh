#!/bin/sh
# Installs the Debian packages that a piece of work needs: install-dependencies.sh [GROUP...]
#   build  the library, the reference host and the tools; the default
#   test   what the tests need too
#   bench  what the benchmarks and their peers need too
#   check  what every check needs too: second compiler, fuzzers, formats, coverage
#   interop  what the companions of another library need too
#   all    everything
# Does nothing when all is there.
set -eu
# shellcheck source=scripts/usage.sh
. "$(dirname "$0")/usage.sh"

BUILD="g++ cmake ninja-build pkg-config
    libwebsockets-dev libev-dev libssl-dev libinih-dev libcli11-dev nlohmann-json3-dev
    libcpp-httplib-dev libqrencode-dev"
# libwebsockets loads this plug-in at run time; no linker would miss it.
BUILD="$BUILD libwebsockets-evlib-ev"
# The last line is of tests that are skipped without: the page, reference, binary interface.
TEST="libgtest-dev python3 python3-websockets iproute2
    chromium doxygen abigail-tools"
BENCH="libbenchmark-dev libboost-dev python3"
CHECK="clang libclang-rt-14-dev clang-format clang-tidy shellcheck gcovr cloc git"

# Node may come from elsewhere, with its own npm, which Debian's packages would not stand beside.
interop_packages() {
    command -v npm >/dev/null || echo "nodejs npm"
}

# packages_of GROUP...
packages_of() {
    echo "$BUILD"
    for group in "$@"; do
        case $group in
        build) ;;
        test) echo "$TEST" ;;
        bench) echo "$BENCH" ;;
        check) echo "$CHECK" ;;
        interop) interop_packages ;;
        all) echo "$TEST $BENCH $CHECK" "$(interop_packages)" ;;
        *)
            echo "install-dependencies: there is no group '$group'" >&2
            usage >&2
            return 2
            ;;
        esac
    done
}

is_installed() {
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# missing_of PACKAGE...
missing_of() {
    for package in "$@"; do
        is_installed "$package" || printf '%s ' "$package"
    done
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo -- "$@"
    else
        echo "install-dependencies: needs root or sudo to run: $*" >&2
        return 1
    fi
}

apt_get() {
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq -o Dpkg::Use-Pty=0 "$@" </dev/null
}

packages=$(packages_of "$@")
if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    echo "install-dependencies: this is no Debian system; please install by hand: $packages" >&2
    exit 1
fi

# Split on purpose, here and below: one argument per package.
# shellcheck disable=SC2086
missing=$(missing_of $packages)
if [ -z "$missing" ]; then
    exit 0
fi

echo "Installing: $missing"
# A package list that cannot be refreshed may still be good enough, so only the installation decides.
apt_get update || echo "install-dependencies: could not refresh the package lists, going on with the old ones" >&2
# shellcheck disable=SC2086
if ! apt_get install --no-install-recommends -y $missing; then
    echo "install-dependencies: could not install: $missing" >&2
    exit 1
fi
