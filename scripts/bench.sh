#!/usr/bin/env bash
# Measures the tool and prints Markdown tables. Installs missing packages, and builds with the flags of a release. Run
# it on an idle machine.
#
# usage: bench.sh [--rounds N] [--update DOCUMENT]   compare with a yardstick, the smallest client with the same
#                                                    system calls, and with other programs; --update writes the tables
#                                                    into the document, and the curves into its directory
#        bench.sh [--rounds N] --against BUILD       compare with the tool in another build directory
#        bench.sh --standin [--rounds N] [--update DOCUMENT]
#                                                    measure the stand-in daemon: its relay beside socat, and its
#                                                    service of many clients
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build bench
build=$PWD/build/bench
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >/dev/null
cmake --build "$build" >&2

flags=(-O2 -Wall -Wextra)
hardening=(-fPIE -pie -fstack-protector-strong -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2
    "-Wl,-z,relro,-z,now,-z,noexecstack,--as-needed")
yardstick=(cc "${flags[@]}" "${hardening[@]}" bench/yardstick_client.c)
"${yardstick[@]}" -o "$build/bin/yardstick"
"${yardstick[@]}" -o "$build/bin/yardstick-with-library" \
    -Wl,--no-as-needed "$build/lib/plax-tool/libplax-platform.so" \
    "-Wl,-rpath,\$ORIGIN/../lib/plax-tool:/usr/local/lib/plax-tool"
c++ "${hardening[@]}" "$build/CMakeFiles/plax-tool.dir/cli/main.cpp.o" "$build"/libplax-{cli,requests,link}.a \
    "$build/platform/CMakeFiles/plax-platform.dir/platform_support.cpp.o" -o "$build/bin/tool-with-library-inside"
cc "${flags[@]}" bench/peer_daemon.c -o "$build/peer-daemon"
cc "${flags[@]}" bench/paired_timer.c -o "$build/paired-timer"
program=bench/measure.py
if [[ ${1-} == --standin ]]; then
    program=bench/measure_standin.py
    shift
fi
exec /usr/bin/python3 -B "$program" "$build" "$@"
