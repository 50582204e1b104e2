#!/usr/bin/env bash
# Installs the missing Debian packages of the named jobs, as root or with sudo. Without apt-get it installs nothing: it
# lists missing programs and libraries, and fails if there are any.
set -euo pipefail

declare -A packages=(
    [build]="g++ cmake gzip ninja-build libcli11-dev libpcap-dev nlohmann-json3-dev"
    [test]="ansible-core bash-completion clustershell dpkg-dev file fish jq libgmock-dev libgtest-dev locales mandoc pdsh python3-jsonschema python3-pytest python3-pytest-xdist rpm tshark zsh"
    [compilers]="clang-14 clang-19 g++-11 g++-12"
    [coverage]="clang-19 libclang-rt-19-dev llvm-19"
    [bench]="chrony knot netcat-openbsd python3-matplotlib socat strace valgrind"
    [foreign]="g++-aarch64-linux-gnu g++-i686-linux-gnu g++-s390x-linux-gnu qemu-user"
    [package]="debootstrap dpkg-dev file git lintian python3 rpm rpmlint"
    [fuzz]="clang llvm libclang-rt-14-dev"
    [sanitizers]="clang llvm libclang-rt-14-dev valgrind"
    [distributions]="debootstrap git"
    [lint]="clang-14 clang-format-14 clang-tidy-14 codespell git mandoc shellcheck"
)

if (($# == 0)) || [[ $1 == --help ]]; then
    echo "usage: $0 JOB..."
    echo "jobs: ${!packages[*]}"
    exit 0
fi

# The content of a package to look for, if it is not a program of the same name: another program, a <header>, a python:
# module, a file, or nothing for a package that only Debian needs.
declare -A contents=(
    [bash-completion]="/usr/share/bash-completion/bash_completion"
    [clustershell]="clush"
    [dpkg-dev]=""
    [g++]="c++"
    [libcli11-dev]="<CLI/CLI.hpp>"
    [libgmock-dev]="<gmock/gmock.h>"
    [libgtest-dev]="<gtest/gtest.h>"
    [libpcap-dev]="<pcap/pcap.h>"
    [locales]="/usr/share/i18n/locales/de_DE"
    [locales]="localedef"
    [ninja-build]="ninja"
    [nlohmann-json3-dev]="<nlohmann/json.hpp>"
    [python3-jsonschema]="python:jsonschema"
    [python3-pytest]="python:pytest"
    [python3-pytest-xdist]="python:xdist"
    [rpm]=""
)

is_there() {
    case $1 in
    "") ;;
    \<*) printf '#if !__has_include(%s)\n#error\n#endif\n' "$1" | c++ -E -x c++ - >/dev/null 2>&1 ;;
    python:*) python3 -c "import ${1#python:}" 2>/dev/null ;;
    /*) [[ -e $1 ]] ;;
    *) command -v "$1" >/dev/null ;;
    esac
}

is_installed() {
    [[ $(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

on_debian=true
command -v apt-get >/dev/null && command -v dpkg-query >/dev/null || on_debian=false
missing=()
for job in "$@"; do
    for package in ${packages[$job]:?"no such job: $job"}; do
        content=${contents[$package]-$package}
        if $on_debian; then
            is_installed "$package" || missing+=("$package")
        else
            is_there "$content" || missing+=("$content")
        fi
    done
done
((${#missing[@]})) || exit 0
if ! $on_debian; then
    echo "install-packages.sh: there is no apt-get here; please install: ${missing[*]}" >&2
    exit 1
fi

as_root=()
((EUID == 0)) || as_root=(sudo)
echo "Installing ${missing[*]}" >&2
{
    "${as_root[@]}" apt-get -q update
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -y install --no-install-recommends "${missing[@]}"
} >&2
