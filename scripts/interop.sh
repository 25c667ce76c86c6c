#!/bin/sh
# Lets companions of an independent library follow the reference host: CII, wall clock and timeline.
# Prints how far each command of the television leaves them from it. Exit status: 0 when all follow, 1 when not
set -eu
# shellcheck source=scripts/usage.sh
. "$(dirname "$0")/usage.sh"
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh interop
scripts/build.sh release zenk_receiver
mkdir -p build/interop
cp tests/system/interop/* build/interop/
cd build/interop
echo "interop: installing the companions' library"
npm ci --no-audit --no-fund --loglevel=error
if timeout 120 node interop.js ../zenk_receiver; then
    echo "interop: PASSED"
else
    echo "interop: FAILED; the table above shows where" >&2
    exit 1
fi
