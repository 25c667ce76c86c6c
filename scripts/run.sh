#!/bin/bash
# Builds the release preset and starts the reference host: run.sh [zenk_receiver's arguments].
# Prints the URL of the demo page when the host is ready.
set -eu
cd "$(dirname "$0")/.."

# as_parameter NAME URL: one parameter of a query.
as_parameter() {
    local encoded=${2//:/%3A}
    printf '%s=%s&' "$1" "${encoded//\//%2F}"
}

# Passes the receiver's lines on and makes the demo's URL of them.
announce_demo() {
    trap '' INT TERM # we end with the receiver's output, which goes on while it shuts down
    local query="" line plain
    while IFS= read -r line; do
        printf '%s\n' "$line"
        plain=${line#$'\033[0m'} # the colour of a log line ends at the beginning of the line that follows
        case $plain in
        "app2app-local "*) query+=$(as_parameter local "${plain#* }") ;;
        "app2app-remote "*) query+=$(as_parameter remote "${plain#* }") ;;
        "css-cii "*) query+=$(as_parameter cii "${plain#* }") ;;
        "css-ts "*) query+=$(as_parameter ts "${plain#* }") ;;
        ready)
            echo "The demo: file://${PWD// /%20}/examples/demo/index.html?${query%&}" >&2
            exec cat # as fast as a detailed log needs it
            ;;
        esac
    done
    printf '%s' "$line" # the receiver ended before, perhaps within a line
}

# Standard output belongs to the receiver, whose lines others read; what we say goes to standard error.
{
    scripts/install-dependencies.sh build
    echo "Building zenk_receiver (the first time takes a few minutes)..."
    scripts/build.sh release zenk_receiver
    echo "Starting build/zenk_receiver $*   (Ctrl+C ends it)"
} >&2
# In the shell's place, so that signals and the exit code are the receiver's own.
exec build/zenk_receiver "$@" > >(announce_demo)
