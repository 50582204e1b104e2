#!/usr/bin/env bash
# Builds the Debian packages, has lintian read them, installs them into a bare Debian root, and runs the tour there with
# manual pages and completion. Then removes them and looks for what they left. Needs root, for debootstrap and chroot.
set -euo pipefail
cd "$(dirname "$0")/.."

if ((EUID != 0)); then
    exec sudo "$0" "$@"
fi

scripts/install-packages.sh build package

build=build/packages
folder=$(mktemp -d)
root=$folder/root # within it, since users other than root must be able to enter a root folder
child=
clean_up() {
    if [[ -n $child ]]; then
        kill -KILL "$child" 2>/dev/null || true
        wait "$child" 2>/dev/null || true
    fi
    # What died just now may still have been writing.
    rm -rf --one-file-system "$folder" || { sleep 1 && rm -rf --one-file-system "$folder"; }
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# Mounts and processes of the command end with it. It runs beside the script, which can be interrupted at any time then.
isolated() {
    unshare --mount --pid --fork --kill-child "$@" <&0 &
    child=$!
    wait "$child"
    child=
}

in_root() {
    isolated sh -c "mount -t proc proc '$root/proc' && exec chroot '$root' \"\$@\"" sh env --ignore-environment \
        HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"
}

# What is there, but for the notes that dpkg, the loader and the manual keep about all that is installed.
list_root() {
    find "$root" -xdev -mindepth 1 \( -path "$root/var/lib/dpkg" -o -path "$root/var/log" \
        -o -path "$root/var/cache/man" -o -path "$root/var/cache/ldconfig" \) -prune -o -printf '%y %m %P %l\n' | sort
}

echo "== packages"
rm -rf "$build"
cmake --preset release -B "$build" -DBUILD_TESTING=OFF >/dev/null
cmake --build "$build"
cpack --config "$build/CPackConfig.cmake" -B "$build"
packages=("$build"/plax-tool_*.deb "$build"/plax-tool-standin_*.deb)

echo "== lintian"
# initial-upload-closes-no-bugs: the packages are not uploaded to Debian, so there is no request for them to close.
lintian --allow-root --fail-on error,warning --suppress-tags initial-upload-closes-no-bugs "${packages[@]}"

echo "== bare root"
mkdir "$root"
isolated debootstrap --variant=minbase --include=bash-completion,man-db bookworm "$root" >"$build/debootstrap.log" || {
    tail "$build/debootstrap.log"
    exit 1
}
list_root >"$build/before"

echo "== installation"
cp "${packages[@]}" scripts/tour.sh "$root/root"
in_root sh -c 'dpkg --install /root/*.deb'

echo "== tour"
in_root bash /root/tour.sh

echo "== manual pages"
for page in plax-tool.8 plaxd-standin.1; do
    in_root man --pager=cat "$page" >"$build/$page.txt"
    head -n 4 "$build/$page.txt"
    grep --quiet "^NAME" "$build/$page.txt"
done

echo "== completion"
# What bash offers behind "plax-tool what-if-c", with its completions loaded as for a login.
in_root bash >"$build/completion" <<'END'
. /usr/share/bash-completion/bash_completion
_completion_loader plax-tool
complete -p plax-tool >/tmp/registered
read -r complete_words < <(sed 's/.* -F \([^ ]*\) .*/\1/' /tmp/registered)
rm /tmp/registered
COMP_LINE="plax-tool what-if-c" COMP_POINT=19 COMP_WORDS=(plax-tool what-if-c) COMP_CWORD=1
"$complete_words" plax-tool what-if-c plax-tool
printf '%s\n' "${COMPREPLY[@]% }"
END
diff - "$build/completion" <<<what-if-cancel
cat "$build/completion"

echo "== removal"
in_root dpkg --purge plax-tool plax-tool-standin
rm "$root"/root/*.deb "$root/root/tour.sh"
list_root >"$build/after"
diff "$build/before" "$build/after"
echo "as before: $(wc -l <"$build/after") files and folders"
