#!/bin/bash
# Makes the base volumes of the fuzz target `libfso`: small, with metadata of every kind and next to
# no file content.
#
#     make_bases.sh FOLDER
set -euo pipefail
PATH=$PATH:/usr/sbin:/sbin
out=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
uuid=6a1f7d5e-3c1b-4a53-9d0e-0123456789ab
export SOURCE_DATE_EPOCH=1700000000 E2FSPROGS_FAKE_TIME=1700000000

# tree FOLDER: files of every kind that need no rights to make.
tree() {
    mkdir -p "$1/dir/sub"
    printf small >"$1/small"
    ln -s small "$1/link"
    ln -s "$(printf 'far/%.0s' {1..25})" "$1/dir/longlink"
    for at in 0 3 6 20 300; do
        printf x | dd of="$1/sparse" bs=1024 seek=$at conv=notrunc status=none
    done
    ln "$1/small" "$1/dir/again"
}

# base NAME SIZE OPTION... : makes an image of $work/tree; commands for debugfs come on standard
# input.
base() {
    local name=$1 size=$2
    shift 2
    mke2fs -q -F -U $uuid -E "root_owner=0:0,hash_seed=$uuid" -m 0 "$@" -d "$work/tree" \
        "$work/$name.img" "$size"
    cat >"$work/commands"
    debugfs -w -f "$work/commands" "$work/$name.img" >/dev/null 2>&1
}

pack() {
    gzip -9nc "$work/$1.img" >"$out/$1.img.gz"
}

tree "$work/tree"
attributes="ea_set small user.short abc
ea_set small user.long $(printf 'v%.0s' {1..200})
mknod fifo p
mknod device c 5 6"

base ext2 128k -t ext2 -b 1024 -I 128 -N 40 <<<"$attributes"
base extents 192k -t ext4 -b 1024 -I 256 -N 40 -O ^has_journal,^metadata_csum,^64bit,^resize_inode \
    <<<"$attributes
fallocate sparse 30 60
fallocate sparse 310 320"
base checksums 192k -t ext4 -b 1024 -I 256 -N 40 -O ^has_journal,metadata_csum,64bit,^resize_inode \
    <<<"$attributes"
mkdir -p "$work/tree/many"
for number in {1..9}; do : >"$work/tree/many/inline-entry-$number"; done
base inline 192k -t ext4 -b 1024 -I 256 -N 48 \
    -O ^has_journal,^metadata_csum,inline_data,^resize_inode <<<"$attributes"
base groups 1m -t ext4 -b 1024 -I 256 -N 128 -g 256 \
    -O ^has_journal,^metadata_csum,uninit_bg,meta_bg,^resize_inode,^flex_bg <<<"$attributes"
base bigalloc 512k -t ext4 -b 1024 -C 4096 -I 256 -N 40 \
    -O ^has_journal,^metadata_csum,bigalloc,^resize_inode <<<"$attributes"
# One file by many names: a hashed directory of two levels of blocks without many inodes.
for number in {1..150}; do
    ln "$work/tree/small" "$work/tree/many/$(printf 'hashed-%03d-%060d' "$number" 0)"
done
base hashed 256k -t ext4 -b 1024 -I 256 -N 48 \
    -O ^has_journal,^metadata_csum,dir_index,^resize_inode <<<"$attributes"
e2fsck -fyD "$work/hashed.img" >/dev/null || [ $? = 1 ]

for name in ext2 extents checksums inline hashed groups bigalloc; do
    pack $name
done
