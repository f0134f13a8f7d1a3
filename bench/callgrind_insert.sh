#!/bin/sh
# Instructions per insertRecord, counted by callgrind (repeatable, unlike times): the difference
# between runs of two record counts, divided by the difference of the counts, leaves out start-up.
#   bench/callgrind_insert.sh [build/bench/fbcdc_bench]
set -eu
bench=${1:-build/bench/fbcdc_bench}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
count() {
  valgrind --tool=callgrind --callgrind-out-file="$work/out.$1.$2" "$bench" "--$1=$2" \
    >/dev/null 2>&1
  sed -n 's/^summary: *\([0-9]*\).*/\1/p' "$work/out.$1.$2"
}
small=1000
large=21000
for mode in records hand-records; do
  a=$(count $mode $small)
  b=$(count $mode $large)
  label="insertRecord (10-field row)"
  [ $mode = records ] || label="hand encoder, same record  "
  echo "instructions per $label: $(( (b - a) / (large - small) ))"
done
