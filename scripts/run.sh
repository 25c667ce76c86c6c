#!/bin/sh
# Builds the release preset and starts the reference host: run.sh [zenk_receiver's arguments].
set -eu
cd "$(dirname "$0")/.."

# Standard output belongs to the receiver, whose lines others read; what we say goes to standard error.
{
    scripts/install-dependencies.sh
    echo "Building zenk_receiver (the first time takes a few minutes)..."
    scripts/build.sh release zenk_receiver
    echo "Starting build/zenk_receiver $*   (Ctrl+C ends it)"
} >&2
exec build/zenk_receiver "$@"
