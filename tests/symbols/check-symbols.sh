#!/bin/sh
# check-symbols.sh LIBRARY DIRECTORY [--update]
# Compares the library's dynamic symbol table with the lists in DIRECTORY: what it defines, what it
# leaves to the host, and which libraries it needs.
set -eu
library=$1
directory=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

nm -D --defined-only --format=posix "$library" | cut -d' ' -f1 | LC_ALL=C sort -u >"$work/exported.txt"
nm -D --undefined-only --format=posix "$library" | cut -d' ' -f1 | grep -v '@' |
    grep -v -e '^_ITM_' -e '^__gmon_start__' -e '^__cxa_finalize' | LC_ALL=C sort -u >"$work/imported.txt"
objdump -p "$library" | awk '$1 == "NEEDED" {print $2}' | LC_ALL=C sort >"$work/needed.txt"

status=0
for list in exported imported needed; do
    if [ "${3:-}" = --update ]; then
        cp "$work/$list.txt" "$directory/$list.txt"
    fi
    diff -u "$directory/$list.txt" "$work/$list.txt" >"$work/diff" || status=1
    c++filt <"$work/diff"
done
exit $status
