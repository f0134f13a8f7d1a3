#!/bin/sh
# Installs the build into a scratch prefix, compiles a consumer against the installed reader
# header alone, and reads the log that the main job publishes.
set -eu
build=$1
source=$2
demo=$3
cxx=${CXX:-c++}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(ls -d "$work"/prefix/lib*)
$cxx -std=c++17 -Wall -Wextra -I"$work/prefix/include" "$source" -L"$libdir" -lfbcdc_blockfile \
  -o "$work/ReadLog" ${FBCDC_CONSUMER_FLAGS:-}
printf 'OutputDirectory = %s/logs\n' "$work" > "$work/fbcdc.conf"
log=$("$demo" --plugin "$libdir/libfbcdc.so" "$work/fbcdc.conf" | sed -n 1p)
out=$("$work/ReadLog" "$log")
echo "$out"
[ "$out" = "ZEFO 4 S [] 19 0 1 { 24" ] || { echo "unexpected reading"; exit 1; }
