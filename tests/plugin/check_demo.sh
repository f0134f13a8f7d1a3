#!/bin/sh
# Runs the main job against a fresh directory: one published log of 24 bytes with the known bytes.
set -eu
demo=$1
lib=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf 'OutputDirectory = %s/logs\n' "$work" > "$work/fbcdc.conf"
out=$("$demo" --plugin "$lib" "$work/fbcdc.conf")
echo "$out"
expected="5A 45 46 4F 04 53 00 00 13 00 00 01 00 00 00 00
00 00 00 7B 26 F4 89 80"
[ "$(echo "$out" | sed -n 2p)" = "24 bytes:" ] || { echo "expected a 24-byte log"; exit 1; }
[ "$(echo "$out" | sed -n '3,4p')" = "$expected" ] || { echo "unexpected bytes"; exit 1; }
path=$(echo "$out" | sed -n 1p)
case "$path" in "$work"/logs/*.fbl) ;; *) echo "log not in the output directory"; exit 1 ;; esac
[ "$(ls "$work/logs" | grep -c '\.tmp$' || true)" = 0 ] || { echo "temporary file left"; exit 1; }
