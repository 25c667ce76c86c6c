#!/bin/bash
# Builds the release preset and starts the reference host with its page: run.sh [zenk_receiver's arguments].
# The page is served at port 8080 or the next free one, unless --page-port names another.
set -eu
cd "$(dirname "$0")/.."

is_taken() {
    (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

page=()
if [[ " $*" != *" --page-port"* ]]; then
    port=8080
    while is_taken "$port" && [ "$port" -lt 8180 ]; do
        port=$((port + 1))
    done
    page=(--page-port "$port")
fi

# Standard output belongs to the receiver, whose lines others read; what we say goes to standard error.
{
    scripts/install-dependencies.sh build
    echo "Building zenk_receiver (the first time takes a few minutes)..."
    scripts/build.sh release zenk_receiver
    echo "Starting build/zenk_receiver ${page[*]} $*   (Ctrl+C ends it)"
} >&2
# In the shell's place, so that signals and the exit code are the receiver's own.
exec build/zenk_receiver "${page[@]}" "$@"
