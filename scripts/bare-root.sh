# shellcheck shell=bash
# Sourced by scripts that test in a bare Debian root. The root is removed however the script ends. Needs root, for
# debootstrap and chroot.

bare_root=
root= # within bare_root, which only root can enter; other users must be able to enter the root directory
archives=
child=

remove_root() {
    if [[ -n $child ]]; then
        kill -KILL "$child" 2>/dev/null || true
        wait "$child" 2>/dev/null || true
        child=
    fi
    [[ -n $bare_root ]] || return 0
    # A process that was just killed can still have been writing.
    rm -rf --one-file-system "$bare_root" || { sleep 1 && rm -rf --one-file-system "$bare_root"; }
    bare_root=
}
trap remove_root EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# The command's mounts and processes end with it. It runs in the background, so that the script can be interrupted.
isolated() {
    local status=0
    unshare --mount --pid --fork --kill-child "$@" <&0 &
    child=$!
    wait "$child" || status=$?
    child=
    return "$status"
}

# make_root RELEASE PACKAGE...: makes a root with these packages, and caches all of them in build/archives.
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
    # The root reaches the archive with this machine's settings.
    apt-config dump | grep -E '^Acquire::(Check|ForceIP|http)' >"$root/etc/apt/apt.conf.d/99machine" || true
}

root_environment=(env --ignore-environment HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin)

# in_root WORD...: runs a command with the root as the root of its namespace. A chrooted command could not create
# namespaces.
in_root() {
    # shellcheck disable=SC2016
    isolated sh -c 'mount --bind "$0" "$0" && cd "$0" && mount -t proc proc proc &&
        mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts && mount --bind "$1" var/cache/apt/archives && shift &&
        pivot_root . . && umount --lazy . && exec "$@"' \
        "$root" "$archives" "${root_environment[@]}" "$@"
}
