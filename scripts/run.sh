#!/bin/sh
# The main job: builds the plugin, loads it as the server would, records one transaction holding a
# single statement into ./out/logs and prints the published change log.
set -eu
cd "$(dirname "$0")/.."
sh scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target fbcdc fbcdc-demo
mkdir -p out
printf 'OutputDirectory = %s/out/logs\n' "$(pwd)" > out/fbcdc.conf
exec build/tools/fbcdc-demo --plugin build/libfbcdc.so out/fbcdc.conf
