#!/usr/bin/env bash
# Makes docs/capture.png: Wireshark with the capture of a rehearsal on the examples' bad day. It needs the packages
# wireshark, xvfb, xdotool and imagemagick, which nothing else here needs.
#
# usage: screenshot.sh [BUILD_DIRECTORY]    build/release when none is named
set -euo pipefail
cd "$(dirname "$0")/.."

build=$(realpath "${1:-build/release}")
directory=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$directory"' EXIT
export HOME=$directory PATH=$build/sbin:$PATH RETRY_SECONDS=0 QT_QPA_PLATFORM=xcb
mkdir -p "$directory/.local/lib/wireshark/plugins" "$directory/.config/wireshark"
cp standin/wireshark/plaxd.lua "$directory/.local/lib/wireshark/plugins"
printf '%s\n' "gui.geometry_main_x: 0" "gui.geometry_main_y: 0" "gui.geometry_main_width: 1100" \
    "gui.geometry_main_height: 640" >"$directory/.config/wireshark/recent_common"

"$build/bin/plaxd-standin" rehearse --answers standin/examples/bad-day.json --capture "$directory/rehearsal.pcap" \
    -- standin/examples/can-evacuate.sh 5b2f9c1e-44d0-4a37-9e8b-c3f1a06d7725 >/dev/null 2>&1

Xvfb :97 -screen 0 1100x640x24 >/dev/null 2>&1 &
export DISPLAY=:97
until [[ -S /tmp/.X11-unix/X97 ]]; do sleep 0.1; done
wireshark -o gui.layout_type:1 -o gui.layout_content_3:NONE -r "$directory/rehearsal.pcap" -g 2 >/dev/null 2>&1 &
sleep "${SECONDS_TO_DRAW:-15}"
xdotool mousemove 200 383 click 1 key Right # expands the tree of the dissector
sleep 2
import -window root +dither -colors 32 -strip docs/capture.png
