#!/bin/sh
# The plugin and the consumer side as users outside the build meet them: installs the build into a
# scratch prefix, captures a small workload with the installed fbcdc (which loads the installed
# plugin with dlopen), checks the logs with the installed fbcdc verify, and decodes every log with
# a consumer built against the installed headers and libraries alone: each log holds as many
# events as fbcdc dump prints for it.
set -eu
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(ls -d "$work"/prefix/lib*)
${CXX:-c++} -std=c++17 -Wall -Wextra -I"$work/prefix/include" "$source" -L"$libdir" \
  -lfbcdc_decoder -lfbcdc_blockfile -o "$work/ReadLog" ${FBCDC_CONSUMER_FLAGS:-}
fbcdc="$work/prefix/bin/fbcdc"
"$fbcdc" capture --database "$work/source.fdb" --output "$work/logs" --transactions 20 --seed 3
"$fbcdc" verify "$work/logs"
count=0
for log in "$work"/logs/*.fbl; do
  expected="$log $("$fbcdc" dump "$log" | wc -l)"
  got=$("$work/ReadLog" "$log")
  [ "$got" = "$expected" ] || { echo "consumer read \"$got\", dump \"$expected\""; exit 1; }
  count=$((count + 1))
done
[ "$count" -gt 10 ] || { echo "only $count logs published"; exit 1; }
echo "$count logs read by the installed consumer"
