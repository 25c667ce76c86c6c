# Read by the other scripts at their start: with -h or --help they print the comment at their own head, and end.
# shellcheck shell=sh

usage() {
    sed -n '2,/^[^#]/s/^# *//p' "$0"
}

case ${1:-} in
-h | --help)
    usage
    exit 0
    ;;
esac
