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
cc "${flags[@]}" bench/yardstick_client.c -o "$build/yardstick"

# What lies between the yardstick and the tool, one thing at a time: the yardstick with something of the tool's, and the
# tool without something of its own. In the programs' folder, from where the private library's name leads to it.
library=$build/lib/plax-tool/libplax-platform.so
library_object=$build/platform/CMakeFiles/plax-platform.dir/platform_support.cpp.o
library_here=$build/libplax-platform-here.so
linking=-Wl,-z,relro,-z,noexecstack,-z,noseparate-code,--as-needed
c++ -shared -nostartfiles "$library_object" "$linking" -Wl,-z,now,-soname,"$library_here" -o "$library_here"
cc "${flags[@]}" "${hardening[@]}" bench/yardstick_client.c -o "$build/bin/yardstick-hardened"
cc "${flags[@]}" -DALLOCATES=1 bench/yardstick_client.c -o "$build/bin/yardstick-allocating"
cc "${flags[@]}" bench/yardstick_client.c -o "$build/bin/yardstick-with-library" -Wl,--no-as-needed "$library"
cc "${flags[@]}" bench/yardstick_client.c -o "$build/bin/yardstick-with-library-here" -Wl,--no-as-needed "$library_here"
link_tool() { # NAME WORD...: the tool's objects, linked as the tool is but for these words
    c++ -pie "$build/CMakeFiles/plax-tool.dir/cli/main.cpp.o" "$build"/libplax-{cli,requests,link}.a "${@:2}" \
        "$linking" -o "$build/bin/$1"
}
link_tool tool-bound-late "$library" -Wl,-z,lazy
link_tool tool-with-library-here "$library_here" -Wl,-z,now
link_tool tool-with-library-inside "$library_object" -Wl,-z,now
link_tool tool-with-library-inside-bound-late "$library_object" -Wl,-z,lazy
cc "${flags[@]}" bench/peer_daemon.c -o "$build/peer-daemon"
cc "${flags[@]}" bench/paired_timer.c -o "$build/paired-timer"
exec /usr/bin/python3 bench/measure.py "$build" "$@"
