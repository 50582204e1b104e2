# shellcheck shell=bash
# Sourced by the scripts that try something in a bare Debian root, which is removed however the script ends. Making one
# takes root, for debootstrap and chroot.

bare_root=
root= # within bare_root, since users other than root must be able to enter a root directory
archives=
child=

remove_root() {
    if [[ -n $child ]]; then
        kill -KILL "$child" 2>/dev/null || true
        wait "$child" 2>/dev/null || true
        child=
    fi
    [[ -n $bare_root ]] || return 0
    # What died just now may still have been writing.
    rm -rf --one-file-system "$bare_root" || { sleep 1 && rm -rf --one-file-system "$bare_root"; }
    bare_root=
}
trap remove_root EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# Mounts and processes of the command end with it. It runs beside the script, which can be interrupted at any time then.
isolated() {
    local status=0
    unshare --mount --pid --fork --kill-child "$@" <&0 &
    child=$!
    wait "$child" || status=$?
    child=
    return "$status"
}

# make_root RELEASE PACKAGE...: makes a root with these packages, all of which are kept in build/archives for the next.
make_root() {
    local release=$1 log=build/debootstrap-$1.log packages
    shift
    printf -v packages '%s,' "$@"
    archives=$PWD/build/archives/$release
    bare_root=$(mktemp -d)
    root=$bare_root/root
    mkdir -p "$archives/partial" "$root"
    isolated debootstrap --variant=minbase --cache-dir="$archives" --include="$packages" "$release" "$root" >"$log" || {
        tail "$log"
        exit 1
    }
    # How this machine reaches the archive is right for the root as well.
    apt-config dump | grep -E '^Acquire::(Check|ForceIP|http)' >"$root/etc/apt/apt.conf.d/99machine" || true
}

root_environment=(env --ignore-environment HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin)

# in_root WORD...: runs a command in the root, which becomes that of its namespace: what is merely chrooted may make no
# namespaces of its own.
in_root() {
    # shellcheck disable=SC2016
    isolated sh -c 'mount --bind "$0" "$0" && cd "$0" && mount -t proc proc proc &&
        mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts && mount --bind "$1" var/cache/apt/archives && shift &&
        pivot_root . . && umount --lazy . && exec "$@"' \
        "$root" "$archives" "${root_environment[@]}" "$@"
}
