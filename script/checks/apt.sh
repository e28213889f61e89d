#!/usr/bin/env bash
# Shared by the scripts that use apt-get. Source it after common.sh.

# Quiet; an update that reaches no source fails, which is not the default.
# shellcheck disable=SC2034 # for the caller
apt_options=(-q=2 -o Dpkg::Use-Pty=0 -o APT::Update::Error-Mode=any)

# explain_apt LOG [FULL_DISK_REMEDY]: prints apt-get's messages and ends the script with the cause.
explain_apt() {
    tail -n 20 "$1" >&2
    if grep -qE 'No space left|enough free space' "$1"; then
        fail "the disk is full (see above); ${2-make room and start again}"
    elif grep -qE 'Hash Sum mismatch|unexpected size|[Ss]ignature|signed|NO_PUBKEY|not valid yet|is expired' "$1"; then
        fail "the package index and its signature differ (see above): the mirror is being renewed, or this machine's clock is wrong; try again later"
    elif grep -qE 'resolv|onnect|Network|[Tt]imed out|timeout' "$1"; then
        fail "the package source cannot be reached (see above); is the network up?"
    fi
    fail "apt-get failed (see above)"
}
