#!/usr/bin/env bash
# Checks that every source file stands as .clang-format wants it; --fix rewrites those that do not.
source "$(dirname "$0")/lib.sh"

install_packages "${format_packages[@]}"
say "Checking the format of all sources"
options=(--dry-run -Werror)
[[ ${1:-} == --fix ]] && options=(-i)
git -c safe.directory="$root" ls-files -z '*.h' '*.cpp' | xargs -0 -r clang-format-14 "${options[@]}"
echo "The format is right."
