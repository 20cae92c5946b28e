#!/usr/bin/env bash
#
# Shows what the tool does, on a simulated device that is thrown away afterwards, and checks each step:
# the status is 0 only when the files hold what the registry holds.
#
# demo.sh PROGRAMS SAMPLES FOLDER: folder of the programs, folder of the sample registry, and the
# folder to make the device in.

set -euo pipefail

programs=$1 samples=$2 device=$3

say() {
    printf '\n== %s\n\n' "$*"
}

fail() {
    printf 'demo: %s\n' "$*" >&2
    exit 1
}

# Runs a command on the device, in the home folder of the device.
on_device() {
    (cd -- "$device/home" && exec "$programs/device" --keep "$device" -- "$@")
}

# show LINES: as much of standard input as fits on a screen
show() {
    sed -E -e 's/^(.{74}).{3,}$/\1.../' -e 's/^/  /' -e "$1q" || true
    cat >/dev/null
}

number_of() { # PATTERN TEXT
    grep -o -e "$1" <<<"$2" | wc -l
}

# export_type TYPE REGISTRY_NAME FILE
export_type() {
    local type=$1 directory=root/ConnectionType/$2/connections file=$3 text status=0 expected found
    say "Export every connection of the type $type"
    echo "  \$ corvik -get $type -f $file"
    on_device corvik -get "$type" -f "$file" 2>&1 | sed 's/^/  /' || status=$?
    [[ $status -eq 0 ]] || fail "corvik -get $type ended with status $status"
    echo "  (status 0; the line about UUID only says that the list was read to its end)"
    say "$file begins with one Connection for each connection; General carries the rest"
    text=$(<"$device/home/$file")
    show 14 <<<"$text"
    expected=$(number_of '^dir ' "$(on_device regsh get "$directory")")
    found=$(number_of '<Connection ' "$text")
    [[ $expected -gt 0 && $found -eq $expected ]] ||
        fail "$file has $found connections, the registry has $expected of the type $2"
    [[ $(number_of '<General>' "$text") -eq 1 ]] || fail "$file has no General"
    echo
    echo "  $found connections in the registry, $found in $file."
    say "The run log, corvik.log"
    show 4 <"$device/home/corvik.log"
    grep -q -x 'rc=0' "$device/home/corvik.log" || fail "corvik.log does not say rc=0"
}

rm -rf -- "$device"
say "A simulated device: an /etc, a /tmp and a registry of its own"
"$programs/device" --keep "$device" --registry "$samples/standard.xml" \
    --sessions "$samples/tavrin" -- regsh get root/ConnectionType >/dev/null ||
    fail "the device could not be made"
echo "  The registry's entries of the type RDP, which this build calls freerdp:"
echo "  \$ regsh tree root/ConnectionType/freerdp"
on_device regsh tree root/ConnectionType/freerdp | show 16

export_type RDP freerdp rdp.xml
export_type Tavrin tavrin tavrin.xml

text=$(<"$device/home/tavrin.xml")
[[ $(number_of '<KSS>' "$text") -gt 0 ]] || fail "tavrin.xml holds no session file"

say "Done"
echo "  The terminal emulator's connections carry their session files (KSS, WS) along."
echo "  Try it yourself: ./dev device, then corvik -get ICA -f ica.xml"
