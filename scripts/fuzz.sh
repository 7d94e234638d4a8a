#!/usr/bin/env bash
# Builds the fuzz targets and runs each of them.
#
#   scripts/fuzz.sh [seconds]    for so many seconds each; 60 by default
source "$(dirname "$0")/lib.sh"

seconds=${1:-60}
install_packages "${native_packages[@]}" "${fuzz_packages[@]}"
build linux-fuzz

for target in build/linux-fuzz/bin/*Fuzz; do
    name=${target##*/}
    say "Running $name for $seconds s"
    mkdir -p "build/fuzz/$name"
    # The first folder takes what is learnt; the seeds behind it, from the tree or the build, are only read.
    seeds=fuzz/corpus/$name
    [[ -d $seeds ]] || seeds=build/linux-fuzz/fuzz/corpus/$name
    "$target" -max_total_time="$seconds" -timeout=120 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="build/fuzz/$name-" "build/fuzz/$name" "$seeds" 2>"$(log_file "fuzz-$name")" ||
        { cat "$(log_file "fuzz-$name")" >&2; exit 1; }
    grep '^stat::' "$(log_file "fuzz-$name")"
done
echo "No findings."
