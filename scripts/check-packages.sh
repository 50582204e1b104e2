#!/usr/bin/env bash
# Builds the packages, checks them with lintian and rpmlint, and installs them into a bare Debian root: the Debian
# packages, the rpms, and the build itself below /usr/local. For each it runs the tour, reads the manual pages, tries
# the completions of bash, zsh and fish, starts the tool without /proc, and checks that removal leaves nothing behind.
# Needs root, for debootstrap and chroot. Then makes the files of a release twice and compares them.
#
# The root's rpm database is empty, so rpm installs without checking dependencies.
set -euo pipefail
cd "$(dirname "$0")/.."

if ((EUID != 0)); then
    exec sudo "$0" "$@"
fi

scripts/install-packages.sh build package

build=build/package
. scripts/bare-root.sh

# Lists the files of the root, except the databases and caches of dpkg, rpm, the loader, man and the shells.
list_root() {
    find "$root" -xdev -mindepth 1 \( -path "$root/var/lib/dpkg" -o -path "$root/var/lib/rpm" -o -path "$root/var/log" \
        -o -path "$root/var/cache/man" -o -path "$root/var/cache/ldconfig" -o -path "$root/root" \) -prune \
        -o -printf '%y %m %P %l\n' | sort
}

zsh_directories=() # searched in addition to its own

check_manual_pages() {
    local page
    for page in plax-tool.8 plaxd-standin.1 plaxd-standin-answers.5; do
        in_root man --pager=cat "$page" >"$build/$page.txt"
        head -n 1 "$build/$page.txt"
        grep --quiet "^NAME" "$build/$page.txt"
    done
}

# Compares each shell's offers for "plax-tool what-if-c". The shells find the completions as in a login shell.
check_completions() {
    in_root bash >"$build/completion" <<'END_OF_SCRIPT'
. /usr/share/bash-completion/bash_completion
_completion_loader plax-tool
complete -p plax-tool >/tmp/registered
read -r complete_words < <(sed 's/.* -F \([^ ]*\) .*/\1/' /tmp/registered)
rm /tmp/registered
COMP_LINE="plax-tool what-if-c" COMP_POINT=19 COMP_WORDS=(plax-tool what-if-c) COMP_CWORD=1
"$complete_words" plax-tool what-if-c plax-tool
printf '%s\n' "${COMPREPLY[@]% }"
END_OF_SCRIPT
    # zsh names the completion function after the file in which it found it.
    in_root zsh -f -s "${zsh_directories[@]}" >>"$build/completion" <<'END_OF_SCRIPT'
fpath+=($@)
autoload -Uz compinit
compinit -D
print -r -- $_comps[plax-tool]
END_OF_SCRIPT
    in_root fish -c 'complete -C "plax-tool what-if-c"' >>"$build/completion"
    diff - "$build/completion" <<END_OF_OFFERS
what-if-cancel
_plax-tool
what-if-cancel	Cancel on-going what-if operation
END_OF_OFFERS
    cat "$build/completion"
}

# check_installation REMOVAL...: tests the installation, removes it with the command, and checks that nothing is left.
check_installation() {
    echo "-- tour"
    in_root bash /root/tour.sh
    echo "-- manual pages"
    check_manual_pages
    echo "-- completions"
    check_completions
    echo "-- without /proc"
    isolated chroot "$root" "${root_environment[@]}" plax-tool -h | head -n 1
    echo "-- removal"
    "$@"
    list_root >"$build/after"
    diff "$build/before" "$build/after"
    echo "as before: $(wc -l <"$build/after") files and directories"
}

echo "== packages"
rm -rf "$build"
cmake --preset package >/dev/null
cmake --build --preset package
cpack --config "$build/CPackConfig.cmake" -B "$build"
debian_packages=("$build"/plax-tool_*.deb "$build"/plax-tool-standin_*.deb)
rpms=("$build"/plax-tool-[0-9]*.rpm "$build"/plax-tool-standin-[0-9]*.rpm)

echo "== lintian"
# initial-upload-closes-no-bugs: the packages are not uploaded to Debian, so there is no bug to close.
lintian --allow-root --fail-on error,warning --suppress-tags initial-upload-closes-no-bugs "${debian_packages[@]}"

echo "== rpmlint"
rpmlint --strict --config scripts/rpmlint.toml "${rpms[@]}"
rpm --query --list --package "${rpms[@]}"

echo "== bare root"
make_root bookworm bash-completion fish libpcap0.8 man-db zsh
cp scripts/tour.sh "$root/root"
# Create the files that fish writes at its first start, and rpm's database.
in_root fish -c true
rpm --root "$root" --initdb
# rpm does not know the directories of dpkg's packages and would remove this one if it were empty.
touch "$root/usr/share/fish/vendor_completions.d/other.fish"
list_root >"$build/before"

echo "== Debian packages"
cp "${debian_packages[@]}" "$root/root"
in_root sh -c 'dpkg --install /root/*.deb'
check_installation in_root dpkg --purge plax-tool plax-tool-standin

echo "== rpms"
# Debian's zsh does not search this directory; zsh on systems with rpm does.
zsh_directories=(/usr/share/zsh/site-functions)
rpm --force-debian --root "$root" --install --nodeps "${rpms[@]}"
check_installation rpm --force-debian --root "$root" --erase plax-tool plax-tool-standin
zsh_directories=()

echo "== /usr/local"
cmake --preset release >/dev/null
cmake --build --preset release
DESTDIR=$root cmake --install build/release --prefix /usr/local >/dev/null
# The target keeps directories that others could use, even if they are empty.
remove_from_local() {
    DESTDIR=$root cmake --build --preset release --target uninstall >/dev/null
    list_root | comm -13 "$build/before" - | sed -n "s,^d [0-9]* \\(.*\\) $,$root/\\1,p" | tac | xargs --no-run-if-empty rmdir
}
check_installation remove_from_local

echo "== release"
version=$(sed -n 's/^project(plax-tool VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
git -c safe.directory='*' clone --quiet . "$bare_root/clone"
git -C "$bare_root/clone" tag --force "v$version"
"$bare_root/clone/scripts/release.sh" "v$version" "$bare_root/release-1"
(umask 077 && TZ=Asia/Tokyo LC_ALL=C "$bare_root/clone/scripts/release.sh" "v$version" "$bare_root/release-2")
diff -r "$bare_root/release-1" "$bare_root/release-2"
cat "$bare_root/release-1/SHA256SUMS"
