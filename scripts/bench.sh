#!/usr/bin/env bash
# Builds the release preset and measures the server beside its peers; the results go to bench/results/.
#
#   scripts/bench.sh            all of it, three rounds: some minutes on a machine with nothing else to do
#   scripts/bench.sh --quick    one short round, about a minute, to check the machinery
#   scripts/bench.sh --help     all options: rows, rounds, servers, an older build to compare with
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/install-dependencies.sh bench
scripts/build.sh release
exec /usr/bin/python3 bench/run_bench.py "$@"
