#!/bin/sh
# Builds the fuzzers and runs each of them: fuzz.sh [SECONDS] [TARGET...]
#   SECONDS  how long each one runs, 20 by default
#   TARGET   log_command, wall_clock, websocket; all by default
# Stops at the first finding and keeps its input in build-fuzz/findings/. What a run discovers goes to
# build-fuzz/corpus/, where the next run begins; the seeds in tests/fuzz/corpus/ stay as they are.
set -eu
# shellcheck source=scripts/usage.sh
. "$(dirname "$0")/usage.sh"
cd "$(dirname "$0")/.."

seconds=20
case ${1:-} in
[0-9]*)
    seconds=$1
    shift
    ;;
esac
case $seconds in
*[!0-9]* | 0)
    usage >&2
    exit 2
    ;;
esac
[ $# -gt 0 ] || set -- log_command wall_clock websocket
for target in "$@"; do
    if [ ! -d "tests/fuzz/corpus/$target" ]; then
        echo "fuzz: no such target: $target" >&2
        usage >&2
        exit 2
    fi
done

scripts/install-dependencies.sh test check
echo "fuzz: building"
scripts/build.sh fuzz

# Reports of undefined behaviour must count as findings too.
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
mkdir -p build-fuzz/findings build-fuzz/logs
for target in "$@"; do
    corpus=build-fuzz/corpus/$target
    log=build-fuzz/logs/$target.log
    mkdir -p "$corpus"
    echo "fuzz: $target for $seconds s"
    # Standard output is the library's own talk: closed. A run that hangs for 60 seconds is a finding.
    status=0
    "build-fuzz/${target}_fuzz" -max_total_time="$seconds" -timeout=60 -max_len=4096 -close_fd_mask=1 \
        -artifact_prefix="build-fuzz/findings/$target-" -print_final_stats=1 \
        "$corpus" "tests/fuzz/corpus/$target" >"$log" 2>&1 || status=$?
    if [ "$status" -eq 72 ]; then # libFuzzer's own: SIGINT or SIGTERM came
        echo "fuzz: $target was interrupted; no finding so far" >&2
        exit 1
    elif [ "$status" -ne 0 ]; then
        tail -n 40 "$log" >&2
        echo "fuzz: FINDING in $target; the whole report is in $log, the input in build-fuzz/findings/" >&2
        echo "fuzz: again with: build-fuzz/${target}_fuzz build-fuzz/findings/$target-FILE" >&2
        exit 1
    fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    echo "fuzz: $target: no finding in ${runs:-?} runs"
done
echo "fuzz: PASSED"
