#!/bin/sh
# Counts lines that are neither blank nor comment: code (library, host, tools, benchmarks, scripts) and tests.
set -eu
cd "$(dirname "$0")/.."

# count PATH...
count() {
    cloc --quiet --csv --include-lang="C++,C/C++ Header,Python,Bourne Shell,Bourne Again Shell,HTML" "$@" |
        sed -n 's/.*,SUM,.*,//p'
}

code=$(count log platform wsserver examples tools bench scripts .ci)
tests=$(count tests)
echo "lines: code $code, tests $tests, that is $((100 * tests / code)) % of the code"
