#!/usr/bin/env bash
#
# Installs the packages in a bare Debian 12, uses them there, removes and purges them, and compares the
# tree with what it was before. Needs root. The bare tree is made once and kept.
#
# try_packages.sh FOLDER DEMO VERSION PACKAGE...: the folder for the trees, the script of the
# demonstration, the version of the tool, and the packages.

set -euo pipefail

folder=$1 demo=$2 version=$3
shift 3
packages=("$@")
tree=$folder/tried
home=/var/tmp/home # in the tree; what users of the packages may leave behind stays in there
kit=/usr/lib/corvik-dev-kit/bin
samples=/usr/share/corvik-dev-kit/samples

die() {
    printf 'package: not tried in a bare Debian 12: %s\n' "$*" >&2
    exit 1
}

fail() {
    printf 'package: in a bare Debian 12: %s\n' "$*" >&2
    exit 1
}

# The packages that ours depend on, without versions and without ours.
needed_packages() {
    local package
    for package in "${packages[@]}"; do
        dpkg-deb -f "$package" Depends | tr ',' '\n'
    done | sed -e 's/^ *//' -e 's/ .*//' -e '/^corvik/d' | sort -u | paste -s -d ,
}

# Where this machine has its Debian from.
mirror() {
    # shellcheck disable=SC2016 # apt-get fills it in
    apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Codename: bookworm' \
        'Label: Debian' | head -n 1
}

make_base() { # NEEDED_PACKAGES
    local base=$folder/bookworm log=$folder/debootstrap.log
    if [[ -f $folder/needed && $(<"$folder/needed") == "$1" ]]; then
        return
    fi
    echo "Making a bare Debian 12, which may take some minutes"
    rm -rf -- "$base" "$folder/needed"
    mkdir -p -- "$folder"
    # shellcheck disable=SC2046 # no mirror, no argument
    if ! debootstrap --variant=minbase --include="$1" bookworm "$base" $(mirror) >"$log" 2>&1; then
        tail -n 20 -- "$log" >&2
        die "debootstrap failed"
    fi
    echo "$1" >"$folder/needed"
}

# Everything in the tree with its rights and its content, without the records of the package manager
# about itself.
listing() {
    local left_out=('(' -path ./proc -o -path ".$home" -o -path ./var/lib/dpkg -o -path ./var/log ')')
    (
        cd -- "$tree"
        find . -xdev "${left_out[@]}" -prune -o -printf '%p %y %m %U:%G %l\n'
        find var/lib/dpkg/info -printf '%p\n'
        find . -xdev "${left_out[@]}" -prune -o -type f -exec sha256sum -- {} +
    ) | sort
}

# same LISTING: whether the tree is as it was
same() {
    listing >"$folder/after"
    diff -- "$1" "$folder/after" >"$folder/difference" || {
        head -n 20 -- "$folder/difference" >&2
        return 1
    }
}

# Runs a command in the home folder of the tree.
in_tree() {
    env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME="$home" \
        LC_ALL=C.UTF-8 unshare --root="$tree" --wd="$home" -- "$@"
}

use_packages() {
    local way said
    said=$(in_tree setpriv --reuid=nobody --regid=nogroup --clear-groups -- corvik -v)
    [[ $said == "Quorvel: $version" ]] || fail "corvik -v says '$said'"
    if in_tree sh -c 'command -v regsh || command -v device' >/dev/null; then
        fail "a program of the kit is on PATH"
    fi
    for way in namespace chroot; do
        said=$(in_tree "$kit/device" --way "$way" --registry "$samples/zero.xml" -- \
            sh -c 'corvik -v; regsh contains root/ConnectionType/freerdp' 2>&1) ||
            fail "a device by the way $way: $said"
        [[ $said == "Quorvel: $version"* ]] || fail "a device by the way $way: corvik -v says '$said'"
    done
    cp -- "$demo" "$tree$home/demo.sh"
    in_tree bash "$home/demo.sh" "$kit" "$samples" "$home/device" >"$folder/demo.log" 2>&1 || {
        cat -- "$folder/demo.log" >&2
        fail "the demonstration failed"
    }
}

# Runs in namespaces of its own: what is mounted here is gone with them.
try_packages() {
    local names package
    mount --bind "$tree" "$tree"
    mount -t proc proc "$tree/proc"
    mkdir -m 0777 -- "$tree$home"
    cp -- "${packages[@]}" "$tree$home"
    listing >"$folder/before"
    in_tree sh -c 'dpkg -i ./*.deb' >"$folder/dpkg.log" 2>&1 || {
        cat -- "$folder/dpkg.log" >&2
        fail "the packages cannot be installed"
    }
    listing >"$folder/between"
    names=()
    for package in "${packages[@]}"; do
        names+=("$(dpkg-deb -f "$package" Package)")
    done
    [[ -z $(in_tree dpkg --audit; in_tree dpkg --verify "${names[@]}") ]] ||
        fail "dpkg is not content with what it installed"
    use_packages
    same "$folder/between" || fail "using the packages left something behind"
    in_tree dpkg --remove "${names[@]}" >>"$folder/dpkg.log" 2>&1 || fail "cannot be removed"
    in_tree dpkg --purge "${names[@]}" >>"$folder/dpkg.log" 2>&1 || fail "cannot be purged"
    same "$folder/before" || fail "the packages left something behind"
    echo "Installed, used, removed and purged in a bare Debian 12; nothing was left behind"
}

if [[ ${CORVIK_TRY_INSIDE:-} == yes ]]; then
    try_packages
    exit
fi
[[ $EUID -eq 0 ]] || die "that needs root"
unshare --mount --pid --fork true 2>/dev/null || die "nothing can be mounted here"
make_base "$(needed_packages)"
rm -rf --one-file-system -- "$tree"
cp -a -- "$folder/bookworm" "$tree"
CORVIK_TRY_INSIDE=yes unshare --mount --pid --fork --kill-child -- \
    bash "$0" "$folder" "$demo" "$version" "${packages[@]}"
rm -rf --one-file-system -- "$tree"
