#!/bin/sh
# check-api.sh DOXYGEN DOXYFILE
# The API pages can be made without a warning, and nothing that a host or a library author includes is
# without a word on it.
set -eu
doxygen=$1
doxyfile=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

pages() { # EXTRA-LINE...
    { cat "$doxyfile" && printf '%s\n' "OUTPUT_DIRECTORY=$work" "$@"; } | "$doxygen" -
}
pages
grep -q rvp_map_get_extent "$work/html/rvp__map_8h.html"
grep -q calculatePartitionRun "$work/html/classRvpRaid.html"
pages EXTRACT_ALL=NO "INPUT=include host/kmhost.h"
