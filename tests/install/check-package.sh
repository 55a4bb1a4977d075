#!/bin/bash
# check-package.sh CPACK BUILD
# Makes the Debian package of BUILD, unpacks it into an empty root and does there what a user does
# first: list, map and read back a volume. Nothing outside the root belongs to the package.
set -euo pipefail
cpack=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "$*" >&2
    exit 1
}

"$cpack" --config "$build/CPackConfig.cmake" -B "$work/cpack" >"$work/log" 2>&1 || fail "$(cat "$work/log")"
package=$(echo "$work"/cpack/*.deb)
field() { dpkg-deb -f "$package" "$1"; }
[ "$(field Package)" = dorado ] && [ "$(field Section)" = admin ]
[[ $(basename "$package") == dorado_"$(field Version)"_amd64.deb ]]
for library in libc6 libstdc++6 libext2fs2 libsqlite3-0; do
    [[ $(field Depends) == *"$library ("* ]] || fail "no dependency on $library: $(field Depends)"
done

root=$work/root
dpkg-deb -x "$package" "$root"
for file in bin/rvpmap lib/libdorado.so.1 lib/libkmhost.so.1 lib/map/rvp/libfso.so include/kmp/rvp_map.h \
    include/fso/IFileSystemObjectV1.h include/dorado/RvpRaid.h lib/cmake/dorado/dorado-config.cmake \
    lib/pkgconfig/dorado.pc share/man/man1/rvpmap.1.gz share/man/man3/libdorado.3.gz \
    share/man/man7/libfso.7.gz share/bash-completion/completions/rvpmap \
    share/zsh/vendor-completions/_rvpmap share/fish/vendor_completions.d/rvpmap.fish \
    share/doc/dorado/copyright share/doc/dorado/changelog.gz; do
    [ -s "$root/usr/$file" ] || fail "the package lacks $file"
done
for library in dorado kmhost; do
    objdump -p "$root/usr/lib/lib$library.so" | grep -q "SONAME *lib$library.so.1$" ||
        fail "lib$library.so has no versioned name"
done
if strings -a "$root"/usr/bin/rvpmap "$root"/usr/lib/*.so.1 "$root"/usr/lib/map/rvp/*.so |
    grep -F "$build"; then
    fail "the build folder is named in the package"
fi

# The volume of scripts/demo, smaller.
files=$work/files
mkdir -p "$files/many"
for number in $(seq 300); do echo "file number $number" >"$files/many/name-$number"; done
seq 1 40000 >"$files/numbers"
truncate -s 100M "$files/sparse"
printf 'in the middle' | dd of="$files/sparse" bs=1 seek=50000000 conv=notrunc status=none
ln -s many/name-1 "$files/link"
cd "$work"
PATH=$PATH:/usr/sbin:/sbin
mke2fs -q -t ext4 -b 1024 -L demo -d files demo.img 32M >/dev/null

# Only the system's own libraries and the root's may serve.
rvpmap() { env -u LD_LIBRARY_PATH -u RVPMAP_ROOT "$root/usr/bin/rvpmap" "$@"; }
[ "$(rvpmap claim demo.img)" = secondary ] || fail "not claimed"
rvpmap info demo.img | grep -qx 'name: *demo' || fail "no name"
[ "$(rvpmap ls demo.img / | tr '\n' ' ')" = "link lost+found many numbers sparse " ] || fail "ls"
rvpmap extents demo.img /sparse | tail -n 1 | grep -qx '1 extent, 1.0K' || fail "extents"
rvpmap extract -r demo.img / -o restored
rmdir restored/lost+found
diff -r --no-dereference files restored
[ "$(rvpmap catalog --format ndjson demo.img | wc -l)" = 306 ] || fail "catalog"
