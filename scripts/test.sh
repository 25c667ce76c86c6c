#!/bin/sh
# Builds a preset and runs its tests: test.sh [PRESET] [TEST-FILTER]
#   PRESET       release (default), debug, asan, tsan, clang
#   TEST-FILTER  regular expression over test names, as for ctest -R
set -eu
# shellcheck source=scripts/usage.sh
. "$(dirname "$0")/usage.sh"
cd "$(dirname "$0")/.."

if [ $# -gt 2 ]; then
    usage >&2
    exit 2
fi
preset=${1:-release}
filter=${2:-}

case $preset in
clang) scripts/install-dependencies.sh test check ;;
*) scripts/install-dependencies.sh test ;;
esac
echo "test: building preset $preset"
scripts/build.sh "$preset"

# One job per core: the wire tests start programs of their own, and their deadlines assume a share of a core.
set -- --preset "$preset" --parallel "$(nproc)"
if [ -n "$filter" ]; then
    set -- "$@" -R "$filter"
fi
if ctest "$@" </dev/null; then
    echo "test: PASSED (preset $preset${filter:+, filter $filter})"
else
    echo "test: FAILED (preset $preset${filter:+, filter $filter}); output of the failed tests stands above" >&2
    exit 1
fi
