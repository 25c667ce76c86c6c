#!/bin/sh
# Configures and builds one preset: build.sh [PRESET] [TARGET...]. Without a target it builds everything.
set -eu
cd "$(dirname "$0")/.."

preset=${1:-release}
[ $# -eq 0 ] || shift

launcher=
if command -v ccache >/dev/null; then
    launcher=-DCMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

# Configuring says much and matters only when it fails.
mkdir -p build
log=build/configure-$preset.log
# shellcheck disable=SC2086
if ! cmake --preset "$preset" $launcher >"$log" 2>&1; then
    cat "$log" >&2
    echo "build: could not configure preset $preset" >&2
    exit 1
fi

if [ $# -eq 0 ]; then
    sed -n 's/^-- Left out: /build: left out: /p' "$log" >&2
    exec cmake --build --preset "$preset"
fi
exec cmake --build --preset "$preset" --target "$@"
