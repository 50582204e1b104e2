#!/usr/bin/env bash
# Makes the files of a release from a tag: a source tarball, a bill of materials (SPDX) of the libraries that the
# programs are linked with, and the SHA-256 sums of both. Two runs on the same system give the same bytes, as all times
# are that of the tagged commit.
#
# usage: release.sh TAG [DIRECTORY]     for example v1.0.0; the default directory is build/release-files
set -euo pipefail

if (($# < 1 || $# > 2)); then
    sed -n 's/^# usage: /usage: scripts\//p' "$0" >&2
    exit 2
fi
tag=$1
mkdir -p "${2:-$(dirname "$0")/../build/release-files}"
files=$(cd "${2:-$(dirname "$0")/../build/release-files}" && pwd)
cd "$(dirname "$0")/.."

version=${tag#v}
name=plax-tool-$version
commit=$(git rev-parse --verify --quiet "refs/tags/$tag^{commit}") || {
    echo "release.sh: no such tag: $tag" >&2
    exit 1
}
if ! git show "$commit:CMakeLists.txt" | grep --quiet "^project(plax-tool VERSION $version "; then
    echo "release.sh: CMakeLists.txt of $tag has another version" >&2
    exit 1
fi

directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

git -c tar.umask=0022 archive --format=tar --prefix="$name/" "$commit" | gzip -9n >"$files/$name.tar.gz"

# Builds from the tarball, so that uncommitted files do not matter.
scripts/install-packages.sh build
tar -xzf "$files/$name.tar.gz" -C "$directory"
(cd "$directory/$name" && cmake --preset package >/dev/null && cmake --build --preset package) >&2
created=$(TZ=UTC0 git show --no-patch --date=format-local:%Y-%m-%dT%H:%M:%SZ --format=%cd "$commit")
scripts/bill_of_materials.py "$version" "$created" "$files/$name.tar.gz" "$directory/$name/build/package" \
    >"$files/$name.spdx.json"

cd "$files"
sha256sum "$name.tar.gz" "$name.spdx.json" | tee SHA256SUMS
