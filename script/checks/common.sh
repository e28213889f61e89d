#!/usr/bin/env bash
# Shared by all scripts; each sources it first. Answers --help with the comment at the top of the script, before it
# checks or installs anything.

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd -P)
self=$(realpath "$0")
this_script=${self#"$top/"}

usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$self"; }

case ${1-} in
    -h | --help)
        usage
        exit 0
        ;;
esac

# misuse [MESSAGE]: reports a wrong argument and ends the script.
misuse() {
    [ -z "$*" ] || echo "$this_script: $*" >&2
    usage >&2
    exit 2
}

# fail MESSAGE: reports a problem and its remedy, and ends the script.
fail() {
    complaint=$*
    echo "$this_script: $*" >&2
    exit 1
}

# only_on_bookworm TOOLS: ends the script with status 77 on another release, where the tools judge differently.
only_on_bookworm() {
    grep -qx 'VERSION_CODENAME=bookworm' /etc/os-release && return
    echo "$this_script: skipped: only Debian 12 has the reference version of $1" >&2
    exit 77
}

# why LOG: prints the part of a log that shows why a step failed: the first compiler error, otherwise the end without
# passed tests.
why() {
    if grep -q '^FAILED: ' "$1"; then
        awk '/^FAILED: / { on = 1; print; getline; next } on && n++ < 60' "$1" # without the command
    else
        grep -vE '^\[ *(OK|RUN|-+)|Test +#[0-9]+: .* Passed |^ +Start +[0-9]+: ' "$1" | tail -n 60 || true
    fi
}

# fail_with LOG MESSAGE: prints the reason from the log, then fails.
fail_with() {
    why "$1" >&2
    fail "${*:2} (see above)"
}

# cache_folder: sets cache to the folder for downloads and other things made once, outside the tree.
cache_folder() {
    local remedy="set CORVANE_CACHE_DIR to a folder that has room for 1 GB"
    cache=${XDG_CACHE_HOME:-${HOME:+$HOME/.cache}}
    cache=${CORVANE_CACHE_DIR:-${cache:+$cache/corvane}}
    [ -n "$cache" ] || fail "HOME is not set, so there is no place for downloads; $remedy"
    { mkdir -p "$cache" && [ -w "$cache" ]; } || fail "the folder for downloads, $cache, cannot be written; $remedy"
    cache=$(realpath "$cache")
    export CORVANE_CACHE_DIR=$cache
}

# explain_full_disk FOLDER REMEDY: for a script that fails. Tools report a full disk in many ways, or not at all.
explain_full_disk() {
    local left
    left=$(df --output=avail -BM "$1" | tail -n 1)
    if [[ ${left%M} -lt 20 && ${complaint-} != *"disk is full"* ]]; then
        echo "$this_script: the disk is full: ${left// /} are left in $1; $2" >&2
    fi
}

# lines ARRAY COMMAND...: stores a command's output, one element per line. Ends the script if the command fails or
# prints nothing; a process substitution would hide that.
lines() {
    local -n into=$1
    local output
    output=$("${@:2}") || fail "this failed: ${*:2}"
    [ -n "$output" ] || fail "this printed nothing: ${*:2}"
    # shellcheck disable=SC2034 # an array of the caller
    mapfile -t into <<< "$output"
}

# tree_files ARRAY [PATTERN...]: lists the tree's files, including those not committed yet.
tree_files() {
    [ -e "$top/.git" ] || fail "$top is not a git clone, so its files are unknown; clone the repository"
    git -C "$top" rev-parse --git-dir > /dev/null ||
        fail "git cannot read this clone; if it belongs to another user, run: git config --global --add safe.directory '$top'"
    lines "$1" git ls-files --cached --others --exclude-standard -- "${@:2}"
}
