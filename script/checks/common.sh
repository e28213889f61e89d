#!/usr/bin/env bash
# What the scripts share; each sources it first. Answers --help with the comment at the top of the script, before
# anything is looked at or installed.

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)
self=$(realpath "$0")
name=${self#"$top/"}

usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$self"; }

case ${1-} in
    -h | --help)
        usage
        exit 0
        ;;
esac

# misuse [MESSAGE]: a wrong argument.
misuse() {
    [ -z "$*" ] || echo "$name: $*" >&2
    usage >&2
    exit 2
}

# fail MESSAGE: what is missing, and its remedy. Comes last.
fail() {
    echo "$name: $*" >&2
    exit 1
}

# lines ARRAY COMMAND...: what a command prints, an element a line. A command that fails or finds nothing ends the script;
# a process substitution would hide it.
lines() {
    local -n into=$1
    local output
    output=$("${@:2}") || fail "this failed: ${*:2}"
    [ -n "$output" ] || fail "this found nothing: ${*:2}"
    # shellcheck disable=SC2034 # an array of the caller
    mapfile -t into <<< "$output"
}

# tree_files ARRAY [PATTERN...]: the tree's files, also those that are not committed yet.
tree_files() {
    [ -e "$top/.git" ] || fail "$top is no git clone, so its files are not known; clone the repository"
    git -C "$top" rev-parse --git-dir > /dev/null ||
        fail "git does not read this clone; if it belongs to another user, run: git config --global --add safe.directory '$top'"
    lines "$1" git ls-files --cached --others --exclude-standard -- "${@:2}"
}
