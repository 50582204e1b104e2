#!/usr/bin/env bash
# Measures the tool beside a yardstick, the least client that makes the same system calls, and beside what a user would
# take instead. Installs what is missing, builds all with the release flags, and prints Markdown tables; with --plots
# FOLDER it also draws the growth curves there. Run it on a machine that does nothing else.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build bench
build=$PWD/build/bench
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DPLAX_BUILD_STANDIN=OFF >/dev/null
cmake --build "$build" >&2
flags=(-O2 -Wall -Wextra -Werror)
hardening=(-fPIE -pie -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 "-Wl,-z,relro,-z,now")
library=$build/lib/plax-tool/libplax-platform.so
cc "${flags[@]}" bench/yardstick_client.c -o "$build/yardstick"
cc "${flags[@]}" "${hardening[@]}" bench/yardstick_client.c -o "$build/yardstick-hardened"
# In the programs' folder, from where the library's name leads to it.
cc "${flags[@]}" bench/yardstick_client.c -o "$build/bin/yardstick-with-library" -Wl,--no-as-needed "$library"
cc "${flags[@]}" bench/peer_daemon.c -o "$build/peer-daemon"
cc "${flags[@]}" bench/paired_timer.c -o "$build/paired-timer"
exec /usr/bin/python3 bench/measure.py "$build" "$@"
