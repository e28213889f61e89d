#!/usr/bin/env bash
# What the scripts that use apt-get share. To be sourced after common.sh.

# Quiet; and an update that reached nothing is a failure, which it is not by itself.
# shellcheck disable=SC2034 # for the caller
apt_options=(-q=2 -o Dpkg::Use-Pty=0 -o APT::Update::Error-Mode=any)

# explain_apt LOG [FULL_DISK_REMEDY]: ends the script with what apt-get said, and last with which of many troubles it is.
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
