#!/bin/sh
# Runs clients of all kinds against the reference host and watches it: soak.sh [MINUTES]
#   MINUTES  1 if not given
# Prints a line every ten seconds and a verdict. Exit status: 0 clean, 1 not
set -eu
# shellcheck source=scripts/usage.sh
. "$(dirname "$0")/usage.sh"
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh test
scripts/build.sh release zenk_receiver
# Debian's own, which has the WebSocket package.
exec /usr/bin/python3 -B tests/system/soak.py --minutes "${1:-1}"
