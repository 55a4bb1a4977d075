#!/bin/sh
# check-install.sh CMAKE BUILD SOURCE
# Installs BUILD into a fresh folder, builds the example host against it by CMake and by pkg-config,
# and runs both on an image; then compiles every installed header alone.
set -eu
cmake=$1
build=$2
source=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$cmake" --install "$build" --prefix "$work/root" >/dev/null
"$cmake" -S "$source/examples/host" -B "$work/host" -DCMAKE_PREFIX_PATH="$work/root" >/dev/null
"$cmake" --build "$work/host" >/dev/null

export PKG_CONFIG_PATH="$work/root/lib/pkgconfig"
# shellcheck disable=SC2046 # flags are words
c++ -std=c++20 "$source/examples/host/main.cpp" -o "$work/host/host2" \
    $(pkg-config --cflags --libs dorado kmhost) -Wl,-rpath,"$work/root/lib"

mkdir "$work/files"
seq 1 5000 >"$work/files/numbers"
mke2fs -q -t ext4 -d "$work/files" "$work/image" 8M
inode=$(debugfs -R 'stat /numbers' "$work/image" 2>/dev/null | sed -n 's/^Inode: \([0-9]*\).*/\1/p')
"$work/host/host" "$work/root" "$work/image" "$inode" >"$work/runs"
"$work/host/host2" "$work/root" "$work/image" "$inode" | cmp - "$work/runs"
first=$(awk 'NR == 1 {print $2}' "$work/runs")
dd if="$work/image" bs=1 skip="$first" count=20 status=none | head -n 3 | tr '\n' ' ' | grep -q '^1 2 3 '
"$work/root/bin/rvpmap" stat --json "$work/image" /numbers >/dev/null

find "$work/root/include" -name '*.h' | while read -r header; do
    c++ -std=c++20 -fsyntax-only -Wall -Wextra -Werror -x c++ -I "$work/root/include" \
        -I "$work/root/include/dorado" "$header" -Wno-pragma-once-outside-header
done
