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

registry_value() { # KEY
    on_device regsh get "$1" | sed 's/^[^ ]* //'
}

labels() { # REGISTRY_DIRECTORY
    on_device regsh tree "$1" | grep -E '^ *label = ' | sed -E 's/^ */  /'
}

# import_type TITLE REGISTRY DEVICE_OPTIONS...: takes the type RDP through export, edit, wipe and import
# on a new device of that kind
import_type() {
    local title=$1 registry=$2 directory=root/ConnectionType/freerdp/connections
    local before after status=0 default
    shift 2
    say "$title"
    rm -rf -- "$device"
    "$programs/device" --keep "$device" --registry "$samples/$registry" "$@" -- true ||
        fail "the device could not be made"
    default=$(on_device regsh get "$directory" | sed -n '1s/.*[/]//p')
    if [[ " $* " == *" 6 "* ]]; then
        echo "  This build exports only the default connection, unless the default names the type:"
        echo "  \$ regsh set root/ConnectionManager/defaultConnection Default-freerdp"
        on_device sh -c 'regsh set root/ConnectionManager/defaultConnection Default-freerdp; regsh commit'
    fi
    on_device corvik -get RDP -f rdp.xml 2>/dev/null || fail "the export failed"
    echo "  Before:"
    echo "  \$ regsh tree $directory | grep label"
    before=$(labels "$directory")
    echo "$before"
    echo
    echo "  The file is edited: one label changed, that connection marked as the default one. Then"
    echo "  the registry's connections are wiped and the file is brought in."
    sed -i -e 's/Büro München/Head office/g' \
        -e 's/<Connection Name="Head office" Enabled="yes"/& Default="yes"/' "$device/home/rdp.xml"
    echo "  \$ regsh delete $directory; regsh commit"
    on_device sh -c "regsh delete $directory; regsh commit"
    [[ -z $(on_device regsh get "$directory") ]] || fail "the registry still has connections"
    echo "  \$ corvik -set RDP -f rdp.xml -r"
    on_device corvik -set RDP -f rdp.xml -r >"$device/home/messages" 2>&1 || status=$?
    [[ $status -eq 0 ]] || fail "corvik -set RDP ended with status $status: $(<"$device/home/messages")"
    echo
    echo "  After:"
    echo "  \$ regsh tree $directory | grep label"
    after=$(labels "$directory")
    echo "$after"
    [[ $after == "${before/Büro München/Head office}" ]] || fail "the labels are not those of the file"
    echo "  default connection: $(registry_value root/ConnectionManager/defaultConnection)"
    echo "  desktop theme:      $(registry_value root/background/desktop/theme)"
    echo "  autostart of it:    $(registry_value "$directory/$default/autostart")"
}

# Whether the first connection is the default one.
default_is() { # yes|no
    local first found=no
    first=$(on_device regsh get root/ConnectionType/freerdp/connections | sed -n '1s/.*[/]//p')
    [[ $(registry_value root/ConnectionManager/defaultConnection) != "$first" ]] || found=yes
    [[ $found == "$1" ]] || fail "the default connection is not what the import makes it here"
}

import_type "Bring connections in: a standard device leaves its default connection alone" \
    standard.xml --image-type 9
default_is no
import_type "A zero client takes the default connection from the file and starts it by itself" \
    zero.xml --image-type 9 --zero
default_is yes
import_type "Image type 6 makes the file's first connection the default one, whatever is marked" \
    standard.xml --image-type 6
default_is yes

say "Done"
echo "  The terminal emulator's connections carry their session files (KSS, WS) along."
echo "  Try it yourself: ./dev device, then corvik -get ICA -f ica.xml"
