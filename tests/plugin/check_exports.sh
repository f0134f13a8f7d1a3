#!/bin/sh
# The plugin library defines exactly one dynamic symbol, the entry function getReplPlugin.
set -eu
lib=$1
symbols=$(nm -D --defined-only "$lib" | awk '{print $2 " " $3}')
echo "defined dynamic symbols of $lib:"
echo "$symbols"
[ "$symbols" = "T getReplPlugin" ] || { echo "expected only 'T getReplPlugin'"; exit 1; }
