#!/usr/bin/env bash
# Runs the README's two commands from a clean clone of HEAD in a bare root of each Debian release, and prints the
# compiler's warnings. Then compiles the tool for older systems. Needs root, for debootstrap and chroot.
#
# usage: check-distributions.sh [RELEASE...]    bookworm, trixie and sid by default
set -euo pipefail
cd "$(dirname "$0")/.."

if ((EUID != 0)); then
    exec sudo "$0" "$@"
fi

scripts/install-packages.sh build distributions
. scripts/bare-root.sh

(($#)) || set -- bookworm trixie sid
for release; do
    start=$SECONDS
    make_root "$release" ca-certificates
    git clone --quiet --no-hardlinks . "$root/srv/plax-tool" # where every user can read
    for command in demo test; do
        echo "== $release: scripts/$command.sh"
        log=build/$release-$command.log
        in_root "/srv/plax-tool/scripts/$command.sh" >"$log" 2>&1 || {
            tail -n 100 "$log"
            exit 1
        }
        sed -n '/: warning:/p; /tests passed/p' "$log"
    done
    in_root dpkg-query --show base-files cmake g++ libc6 python3
    echo "$release: $((SECONDS - start)) s"
    remove_root
done
scripts/check-portable.sh
