#!/usr/bin/env bash
# Installs those Debian packages that the named jobs need and this machine lacks, as root or with sudo.
set -euo pipefail

declare -A packages=(
    [build]="g++ cmake gzip ninja-build libcli11-dev nlohmann-json3-dev"
    [test]="bash-completion clustershell fish libgmock-dev libgtest-dev mandoc python3-jsonschema python3-pytest python3-pytest-xdist zsh"
    [coverage]="clang-19 libclang-rt-19-dev llvm-19"
    [bench]="chrony knot netcat-openbsd python3-matplotlib socat strace valgrind"
    [foreign]="g++-aarch64-linux-gnu g++-i686-linux-gnu g++-s390x-linux-gnu qemu-user"
    [package]="bash-completion debootstrap dpkg-dev gzip lintian"
    [fuzz]="clang llvm libclang-rt-14-dev"
    [sanitizers]="clang llvm libclang-rt-14-dev valgrind"
    [lint]="clang clang-format clang-tidy git mandoc shellcheck"
)

if (($# == 0)) || [[ $1 == --help ]]; then
    echo "usage: $0 JOB..."
    echo "jobs: ${!packages[*]}"
    exit 0
fi

missing=()
for job in "$@"; do
    for package in ${packages[$job]:?"no such job: $job"}; do
        if [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$package" 2>/dev/null) != installed ]]; then
            missing+=("$package")
        fi
    done
done
((${#missing[@]})) || exit 0

as_root=()
((EUID == 0)) || as_root=(sudo)
echo "Installing ${missing[*]}" >&2
{
    "${as_root[@]}" apt-get -q update
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -y install --no-install-recommends "${missing[@]}"
} >&2
