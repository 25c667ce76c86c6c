#!/bin/sh
# Installs the Debian packages that building, testing and running the project needs. Does nothing when all are there.
set -eu

# The build: compiler, generator, libraries.
PACKAGES="g++ cmake ninja-build pkg-config
    libwebsockets-dev libev-dev libssl-dev libinih-dev libcli11-dev nlohmann-json3-dev"
# libwebsockets loads this plug-in at run time; no linker would miss it.
PACKAGES="$PACKAGES libwebsockets-evlib-ev"
# Tests and benchmarks, with the peers that they are compared to.
PACKAGES="$PACKAGES libgtest-dev libbenchmark-dev libspdlog-dev libboost-dev libwebsocketpp-dev
    python3 python3-websockets iproute2"
# The browser that opens the demo page in the tests.
PACKAGES="$PACKAGES chromium"
# The checks: second compiler, format, scripts, reference.
PACKAGES="$PACKAGES clang clang-format libclang-rt-14-dev clang-tidy doxygen abigail-tools shellcheck git"

is_installed() {
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

missing_packages() {
    for package in $PACKAGES; do
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

if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    echo "install-dependencies: this is no Debian system; please install by hand: $PACKAGES" >&2
    exit 1
fi

missing=$(missing_packages)
if [ -z "$missing" ]; then
    exit 0
fi

echo "Installing: $missing"
# A package list that cannot be refreshed may still be good enough, so only the installation decides.
apt_get update || echo "install-dependencies: could not refresh the package lists, going on with the old ones" >&2
# Split on purpose: one argument per package.
# shellcheck disable=SC2086
if ! apt_get install --no-install-recommends -y $missing; then
    echo "install-dependencies: could not install: $missing" >&2
    exit 1
fi
