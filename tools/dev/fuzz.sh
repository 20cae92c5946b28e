#!/usr/bin/env bash
#
# fuzz.sh PROGRAMS TARGETS FOLDER MINUTES
#
# Runs each fuzz_NAME of the folder PROGRAMS for MINUTES, two at a time. TARGETS holds seeds and
# dictionaries. In FOLDER/NAME stay the new inputs that reach more (corpus), those that made a finding
# (found), what the fuzzer printed (log) and its user and system time in seconds (computed): less than by
# the clock where others compute, too. Fails when there is a finding or a target did not run.

set -euo pipefail

side_by_side=2

die() {
    printf 'fuzz: %s\n' "$*" >&2
    exit 1
}

# What is over its time by a minute hangs.
fuzz() { # NAME
    local program=$programs/fuzz_$1 seeds=$targets/seeds/$1 dictionary=$targets/$1.dict status=0
    rm -rf -- "$folder/$1/found"
    mkdir -p -- "$folder/$1/corpus" "$folder/$1/found"
    cd -- "$folder/$1"
    TIMEFORMAT='%0U %0S'
    # The messages of the tool itself would be most of the log.
    {
        time timeout --foreground --kill-after=10 $((seconds + 60)) "$program" \
            -max_total_time="$seconds" -artifact_prefix=found/ -dict="$dictionary" -max_len=4096 \
            -timeout=20 -rss_limit_mb=1024 -print_final_stats=1 -close_fd_mask=2 corpus "$seeds" \
            >log 2>&1 </dev/null
    } 2>computed || status=$?
    echo "$status" >status
}

# One line for the target. Fails when it did not run clean to its end.
report() { # NAME
    local status=none runs found computed
    if [[ -f $folder/$1/status ]]; then
        status=$(<"$folder/$1/status")
    fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$folder/$1/log" 2>/dev/null || true)
    found=$(find "$folder/$1/found" -type f | wc -l)
    computed=$(awk '{ print $1 + $2 }' "$folder/$1/computed" 2>/dev/null || true)
    printf 'fuzz_%-14s%12s runs in %5s s of processor time, %d findings\n' "$1" "${runs:-0}" \
        "${computed:-0}" "$found"
    if [[ $found -eq 0 && $status == 0 && ${runs:-0} -gt 0 ]]; then
        return 0
    fi
    grep -E -m 3 '^(==[0-9]+==|SUMMARY|MS:|finding)|runtime error' "$folder/$1/log" || true
    find "$folder/$1/found" -type f -printf '  %p\n'
    printf '  status %s, log %s\n' "$status" "$folder/$1/log"
    return 1
}

[[ $# -eq 4 ]] || die "takes PROGRAMS TARGETS FOLDER MINUTES"
programs=$(realpath -- "$1")
targets=$(realpath -- "$2")
mkdir -p -- "$3"
folder=$(realpath -- "$3")
[[ $4 =~ ^[0-9]{1,6}$ && $((10#$4)) -gt 0 ]] || die "MINUTES is a whole number above 0"
seconds=$((10#$4 * 60))

names=()
for source in "$targets"/*_fuzz.cpp; do
    name=$(basename -- "$source" _fuzz.cpp)
    [[ -x $programs/fuzz_$name ]] || die "fuzz_$name is not built"
    names+=("$name")
done

# Each target with all that it starts is a process group, to be ended with this script.
job=
set -m
trap 'for job in $(jobs -p); do kill -- "-$job" 2>/dev/null || true; done' EXIT
trap 'exit 1' INT TERM
for name in "${names[@]}"; do
    # More than once: it may tell of one that ended together with another.
    while [[ $(jobs -rp | wc -l) -ge $side_by_side ]]; do
        wait -n || true
    done
    rm -f -- "$folder/$name/status" "$folder/$name/log"
    fuzz "$name" &
done
wait
trap - EXIT

failed=0
for name in "${names[@]}"; do
    report "$name" || failed=1
done
exit "$failed"
