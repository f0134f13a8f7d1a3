#!/bin/sh
# The main job: builds the plugin and the fbcdc command, then shows the whole road on an embedded
# database, with no server: a seeded workload of about a thousand transactions captured through the
# plugin into out/demo/logs, the logs verified and applied to a replica, and the replica compared
# with the source (out/demo/source.fdb and out/demo/replica.fdb). Extra arguments go to fbcdc demo;
# a --dir among them takes the place of out/demo.
set -eu
cd "$(dirname "$0")/.."
sh scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target fbcdc fbcdc-cli
for arg in "$@"; do
  case $arg in --dir | --dir=*) exec build/tools/fbcdc demo "$@" ;; esac
done
exec build/tools/fbcdc demo --dir out/demo "$@"
