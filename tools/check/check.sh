#!/usr/bin/env bash
#
# check.sh ROOT FOLDER [PART...]
#
# Looks at what is in the repository without running it; makes what it needs in FOLDER. Each part counts as one
# that passed or failed; the last line counts them, and the status is 0 only when all passed.

set -euo pipefail

# part | what looks at what; a function check_PART stands behind each row
parts=(
    "layout    | clang-format over the sources"
    "shell     | shellcheck over the shell scripts"
    "python    | pyflakes over the Python sources"
    "spelling  | codespell over all texts"
    "drift     | what is written about the tool against its sources"
    "schemas   | made forms of the schemas against the compact ones"
    "cppcheck  | cppcheck over the sources"
    "gcc       | warnings and analyzer of g++ over the rooms and tools"
    "tidy      | warnings of clang++ and clang-tidy over the sources"
)

die() {
    printf 'check: %s\n' "$*" >&2
    exit 1
}

list_files() { # PATTERN...
    git -c "safe.directory=$root" -C "$root" ls-files -z -- "$@"
}

check_layout() {
    list_files '*.cpp' '*.h' | xargs -0 clang-format --dry-run -Werror
}

# Scripts are what says so in its first line. The completions are scripts when they are filled in; the
# part that all shells share is for any of them.
check_shell() {
    local scripts shared=packaging/completions/device_types.sh.in filled=$folder/device_types.sh status=0
    mapfile -d '' -t scripts < <(list_files | xargs -0 awk -v ORS='\0' \
        'FNR == 1 && /^#!.*[\/ ](ba|da)?sh( |$)/ { print FILENAME } { nextfile }')
    [[ ${#scripts[@]} -gt 0 ]] || return
    shellcheck "${scripts[@]}" || status=1
    sed 's/^@CORVIK_TYPE_ARMS@/*) set -- RDP ;;\n/' "$shared" >"$filled"
    shellcheck --shell=sh --exclude=SC2317 "$filled" || status=1 # its functions are called elsewhere
    sed "/^@CORVIK_DEVICE_TYPES@\$/{r $filled
        d}" packaging/completions/corvik.bash.in >"$folder/corvik.bash" || status=1
    shellcheck --shell=bash "$folder/corvik.bash" || status=1
    return "$status"
}

check_python() {
    list_files '*.py' | xargs -0 "$python" -m pyflakes
}

# Drawings and generated schemas hold no text of ours.
check_spelling() {
    list_files ':!*.svg' ':!tools/check/words.txt' | xargs -0 \
        codespell --quiet-level=3 --ignore-words=tools/check/words.txt
}

check_drift() {
    "$python" -B tools/dev/drift.py
}

check_schemas() {
    local made=$folder/schemas file status=0
    rm -rf -- "$made"
    mkdir -- "$made"
    tools/schema/rebuild "$made" || return
    for file in "$made"/*; do
        cmp -- "$file" "packaging/schema/${file##*/}" || status=1
    done
    return "$status"
}

check_cppcheck() {
    mkdir -p -- "$folder/cppcheck"
    list_files '*.cpp' >"$folder/sources"
    tr '\0' '\n' <"$folder/sources" >"$folder/sources.txt"
    cppcheck --quiet --error-exitcode=1 --std=c++20 --language=c++ -j "$(nproc)" \
        --enable=warning,performance,portability,style --library=posix --library=googletest \
        '-DElfW(type)=Elf64_##type' --suppressions-list=tools/check/cppcheck_suppressions.txt \
        --cppcheck-build-dir="$folder/cppcheck" -I . --file-list="$folder/sources.txt"
}

# Configures only; the warnings of g++ in the tests are seen when they are built.
configure() { # NAME PRESET
    # Without headers compiled ahead: they would hide an include that is missing.
    cmake -S . -B "$folder/$1" --preset "$2" -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON \
        >"$folder/$1.configure.log" 2>&1 && return
    cat -- "$folder/$1.configure.log"
    return 1
}

check_gcc() {
    configure gcc release && "$python" -B tools/check/analyze.py g++ "$folder/gcc"
}

check_tidy() {
    configure clang clang && "$python" -B tools/check/analyze.py clang-tidy "$folder/clang"
}

is_wanted() { # PART WANTED...
    local part=$1 word
    shift
    for word in "${@:-$part}"; do
        if [[ $word == "$part" ]]; then
            return
        fi
    done
    return 1
}

[[ $# -ge 2 ]] || die "takes a root, a folder and names of parts"
root=$1 folder=$2 python=/usr/bin/python3
shift 2
mkdir -p -- "$folder"
cd -- "$root"
passed=0 failed=0
for row in "${parts[@]}"; do
    IFS='|' read -r part purpose <<<"$row"
    read -r part <<<"$part"
    is_wanted "$part" "$@" || continue
    printf '%-10s%s' "$part" "${purpose# }"
    SECONDS=0
    if "check_$part" >"$folder/$part.log" 2>&1 </dev/null; then
        printf ' (%d s)\n' "$SECONDS"
        passed=$((passed + 1))
    else
        printf ': not passed (%d s)\n' "$SECONDS"
        cat -- "$folder/$part.log"
        failed=$((failed + 1))
    fi
done
[[ $((passed + failed)) -gt 0 ]] || die "no such part: $*"
echo "$passed passed, $failed failed"
[[ $failed -eq 0 ]]
