#!/bin/sh
# Runs all tests with coverage: coverage.sh [TEST-FILTER]
#   TEST-FILTER  regular expression over test names, as for ctest -R
# Prints what share of the library's lines and branches ran, and leaves a report in build-coverage/report/index.html.
set -eu
# shellcheck source=scripts/usage.sh
. "$(dirname "$0")/usage.sh"
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh test check
scripts/build.sh coverage
find build-coverage -name '*.gcda' -delete # counts of runs before
tests=passed
ctest --preset coverage --parallel "$(nproc)" ${1:+-R "$1"} </dev/null || tests=failed

mkdir -p build-coverage/report
gcovr --root . --object-directory build-coverage --exclude-unreachable-branches --exclude-throw-branches \
    --filter log/ --filter platform/ --filter wsserver/ \
    --html-details build-coverage/report/index.html --print-summary | grep -E '^(lines|branches):'
echo "coverage: tests $tests; report in build-coverage/report/index.html"
[ "$tests" = passed ]
