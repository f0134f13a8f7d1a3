#!/bin/sh
# Instructions per insertRecord, counted by callgrind (repeatable, unlike times): the difference
# between runs of two record counts, divided by the difference of the counts, leaves out start-up.
#   bench/callgrind_insert.sh [build/bench/fbcdc_bench]
set -eu
bench=${1:-build/bench/fbcdc_bench}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
count() {
  valgrind --tool=callgrind --callgrind-out-file="$work/out.$1" "$bench" --records="$1" \
    >/dev/null 2>&1
  sed -n 's/^summary: *\([0-9]*\).*/\1/p' "$work/out.$1"
}
small=1000
large=21000
a=$(count $small)
b=$(count $large)
echo "instructions per insertRecord (10-field row): $(( (b - a) / (large - small) ))"
