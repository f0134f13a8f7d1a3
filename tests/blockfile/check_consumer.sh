#!/bin/sh
# The main job end to end, as a consumer outside the build meets it: installs the build into a
# scratch prefix, runs the demo on the installed plugin (loaded with dlopen), expects the one 24-byte
# log with the known bytes alone in the output directory, and reads that log with a consumer built
# against the installed reader header and block file library alone.
set -eu
build=$1
source=$2
demo=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(ls -d "$work"/prefix/lib*)
${CXX:-c++} -std=c++17 -Wall -Wextra -I"$work/prefix/include" "$source" -L"$libdir" \
  -lfbcdc_blockfile -o "$work/ReadLog" ${FBCDC_CONSUMER_FLAGS:-}
printf 'OutputDirectory = %s/logs\n' "$work" > "$work/fbcdc.conf"
out=$("$demo" --plugin "$libdir/libfbcdc.so" "$work/fbcdc.conf")
echo "$out"
log=$(echo "$out" | sed -n 1p)
[ "$log" = "$work/logs/$(ls "$work/logs")" ] || { echo "not the one file of $work/logs"; exit 1; }
case "$log" in *.fbl) ;; *) echo "not published"; exit 1 ;; esac
[ "$(echo "$out" | sed -n '2,4p')" = "24 bytes:
5A 45 46 4F 04 53 00 00 13 00 00 01 00 00 00 00
00 00 00 7B 26 F4 89 80" ] || { echo "unexpected bytes"; exit 1; }
reading=$("$work/ReadLog" "$log")
echo "$reading"
[ "$reading" = "ZEFO 4 S [] 19 0 1 { 24" ] || { echo "unexpected reading"; exit 1; }
