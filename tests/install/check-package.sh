#!/bin/bash
# check-package.sh CPACK BUILD CMAKE SOURCE
# Makes the Debian package of BUILD, unpacks it into an empty root and does there what a user does
# first: list, map and read back a volume, and build a host. Nothing outside the root belongs to the
# package.
set -euo pipefail
cpack=$1
build=$2
cmake=$3
source=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "$*" >&2
    exit 1
}

"$cpack" --config "$build/CPackConfig.cmake" -B "$work/cpack" >"$work/log" 2>&1 || fail "$(cat "$work/log")"
package=$(echo "$work"/cpack/*.deb)
field() { dpkg-deb -f "$package" "$1"; }
[[ $(basename "$package") == dorado_"$(field Version)"_amd64.deb && $(field Section) == admin ]]
for library in libc6 libstdc++6 libext2fs2 libsqlite3-0; do
    [[ $(field Depends) == *"$library ("* ]] || fail "no dependency on $library: $(field Depends)"
done

root=$work/root
dpkg-deb -x "$package" "$root"
cd "$root/usr"
for file in share/man/man1/rvpmap.1.gz share/man/man3/libdorado.3.gz share/man/man7/libfso.7.gz \
    share/bash-completion/completions/rvpmap share/zsh/vendor-completions/_rvpmap \
    share/fish/vendor_completions.d/rvpmap.fish share/doc/dorado/copyright lib/pkgconfig/dorado.pc \
    share/doc/dorado/changelog.gz include/fso/IFileSystemObjectV1.h include/dorado/RvpRaid.h; do
    [ -s "$file" ] || fail "the package lacks $file"
done
for library in dorado kmhost; do
    objdump -p "lib/lib$library.so" | grep -q "SONAME *lib$library.so.1$" ||
        fail "lib$library.so has no versioned name"
done
if strings -a bin/rvpmap lib/*.so.1 lib/map/rvp/*.so | grep -F "$build"; then
    fail "the build folder is named in the package"
fi
find include -name '*.h' | while read -r header; do
    c++ -std=c++20 -fsyntax-only -Wall -Wextra -Werror -x c++ -I include -I include/dorado "$header" \
        -Wno-pragma-once-outside-header
done
"$cmake" -S "$source/examples/host" -B "$work/host" -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
"$cmake" --build "$work/host" >/dev/null

# The volume of scripts/demo, smaller.
cd "$work"
mkdir -p files/many
for number in $(seq 300); do echo "file number $number" >"files/many/name-$number"; done
seq 1 40000 >files/numbers
truncate -s 100M files/sparse
printf 'in the middle' | dd of=files/sparse bs=1 seek=50000000 conv=notrunc status=none
ln -s many/name-1 files/link
PATH=$PATH:/usr/sbin:/sbin mke2fs -q -t ext4 -b 1024 -L demo -d files demo.img 32M >/dev/null

# Only the system's own libraries and the root's may serve.
rvpmap() { env -u LD_LIBRARY_PATH -u RVPMAP_ROOT "$root/usr/bin/rvpmap" "$@"; }
[ "$(rvpmap claim demo.img)" = secondary ] || fail "not claimed"
[ "$(rvpmap ls demo.img / | tr '\n' ' ')" = "link lost+found many numbers sparse " ] || fail "ls"
rvpmap info demo.img | grep -qx 'name: *demo' || fail "no name"
rvpmap extents demo.img /sparse | tail -n 1 | grep -qx '1 extent, 1.0K' || fail "extents"
rvpmap extract -r demo.img / -o restored
rmdir restored/lost+found
diff -r --no-dereference files restored
index=$(rvpmap stat --json demo.img /sparse | grep -o '"index":[0-9]*' | cut -d: -f2)
"$work/host/host" "$root/usr" demo.img "$index" | grep -q ' 1024 ' || fail "the host"
