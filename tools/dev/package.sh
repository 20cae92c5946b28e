#!/usr/bin/env bash
#
# Makes the Debian packages and the static program, all of them twice, and is content only when both
# times gave the same bytes and lintian finds nothing to complain about.
#
# package.sh SOURCES FOLDER: the source tree, and the folder to work in; what was made is left in
# FOLDER/made, the first build's programs (with the client of the tests) in FOLDER/once.

set -euo pipefail

sources=$1 folder=$2
made=$folder/made
changelog=packaging/deb/changelog
jobs=${CORVIK_JOBS:-$(nproc)}

die() {
    printf 'package: %s\n' "$*" >&2
    exit 1
}

quietly() { # LOG COMMAND...
    local log=$1
    shift
    "$@" >>"$log" 2>&1 || {
        cat -- "$log" >&2
        die "failed: $*"
    }
}

# build SOURCES PRESET FOLDER [CMAKE ARGUMENT...]: no target but those that the packages need
build() {
    local sources=$1 preset=$2 folder=$3 log=$3/build.log
    shift 3
    mkdir -p -- "$folder"
    : >"$log"
    quietly "$log" nice cmake -S "$sources" -B "$folder" --preset "$preset" "$@"
    quietly "$log" nice cmake --build "$folder" --parallel "$jobs" --target "${targets[@]}"
}

# make_all SOURCES FOLDER RESULTS [CMAKE ARGUMENT...]
make_all() {
    local sources=$1 folder=$2 results=$3 targets=(corvik documents completions) stem
    shift 3
    rm -rf -- "$results"
    mkdir -p -- "$results"
    build "$sources" static "$folder/static"
    targets+=(regsh device)
    if [[ " $* " == *" -DCORVIK_TESTS=ON "* ]]; then
        targets+=(regsh-recorder)
    fi
    build "$sources" release "$folder/release" "$@"
    (
        umask 022 # CPack writes the builder's into the packages
        quietly "$folder/release/build.log" nice cpack -B "$folder/packages" \
            --config "$folder/release/CPackConfig.cmake"
    )
    mv -- "$folder"/packages/*.deb "$results"
    rm -rf -- "$folder/packages"
    stem=$(basename -- "$results"/corvik_*.deb .deb)
    strip -o "$results/${stem/corvik_/corvik-static_}" -- "$folder/static/bin/corvik"
}

# As another person would build them elsewhere, later.
make_all_elsewhere() { # FOLDER
    local copy=$1/at/another/place/corvik
    rm -rf -- "$1/at"
    mkdir -p -- "$copy"
    tar -C "$sources" --exclude=./build --exclude=./.git --exclude=__pycache__ -c . |
        tar -C "$copy" -x --touch --no-same-permissions
    umask 077
    chmod -R go= "$copy"
    export TZ=Pacific/Chatham LC_ALL=C HOME=$1
    make_all "$copy" "$1/built" "$1/made" -DCORVIK_TESTS=OFF
}

# The papers must not be younger than the packages that hold them claim to be.
check_dates() {
    local page day
    for page in "$sources"/packaging/man/*.[1-9]; do
        day=$(sed -n 's/^\.Dd //p' "$page")
        [[ -n $day && $(date -u -d "$day" +%s) -le $SOURCE_DATE_EPOCH ]] ||
            die "$(basename -- "$page") is of '$day': bring the date in $changelog up to it"
    done
}

compare() { # FOLDER OTHER_FOLDER
    local file count=0
    for file in "$1"/*; do
        cmp -- "$file" "$2/$(basename -- "$file")" || die "two builds gave two different files"
        count=$((count + 1))
    done
    [[ $count -eq 3 && $(find "$2" -type f | wc -l) -eq 3 ]] || die "not the files that were expected"
}

SOURCE_DATE_EPOCH=$(date -u -d "$(sed -n '/^ -- /{s/.*>  //p;q}' "$sources/$changelog")" +%s)
export SOURCE_DATE_EPOCH
check_dates
echo "Making the packages and the static program"
make_all "$sources" "$folder/once" "$made" -DCORVIK_TESTS=ON
echo "Making them again, elsewhere"
(make_all_elsewhere "$folder/twice")
compare "$made" "$folder/twice/made"
rm -rf -- "$folder/twice"
echo "The same bytes both times"
lintian --allow-root --pedantic --fail-on error,warning "$made"/*.deb || die "lintian complains"
echo "lintian does not complain"
