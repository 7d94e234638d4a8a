#!/usr/bin/env bash
# Installs what is missing, builds the library and runs every test.
#
#   scripts/test.sh              Linux, g++, optimised
#   scripts/test.sh --windows    Windows x86-64: cross-built with mingw-w64, run under wine
#   scripts/test.sh --sanitize   Linux with the address and undefined-behaviour sanitizers, then with the
#                                thread sanitizer
source "$(dirname "$0")/lib.sh"

case "${1:-}" in
    "") presets=(linux-release) ;;
    --sanitize) presets=(linux-asan linux-tsan) ;;
    --windows) presets=(windows-release) ;;
    *)
        sed -n 's/^# \{0,1\}//; 2,7p' "$0" >&2
        exit 2
        ;;
esac

install_packages "${native_packages[@]}" "${test_packages[@]}"
if [[ ${presets[0]} == windows-release ]]; then
    install_packages "${windows_packages[@]}"
    # Built once and kept; a folder given by the user is used instead.
    [[ -n ${OPENSSL_ROOT_DIR:-} ]] || cmake/openssl-mingw64.sh
    start_wine
fi
for preset in "${presets[@]}"; do
    build "$preset"
    run_tests "$preset"
done
