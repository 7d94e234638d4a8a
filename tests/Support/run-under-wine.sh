#!/usr/bin/env bash
# Runs a test program under wine: run-under-wine.sh <wine> <program> [arguments...]
#
# About once in some thousand starts wine ends within milliseconds without having started the program. A test program
# says something first of all; only if it has said nothing at all, and failed, is it started a second time.
set -uo pipefail

said=$(mktemp)
trap 'rm -f "$said"' EXIT

"$@" | tee "$said"
status=${PIPESTATUS[0]}
if [[ $status != 0 && ! -s $said ]]; then
    echo "wine ended with $status and without a word: once more"
    "$@"
    status=$?
fi
exit "$status"
