#!/bin/sh
# Builds the benchmarks and runs them at full size: prints each benchmark, then the table of ratios
# measured side by side in this run, and writes the raw results to out/bench.json for comparison
# with another run. Extra arguments go to Google Benchmark (for example --benchmark_filter=Crc).
set -eu
cd "$(dirname "$0")/.."
sh scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc 2>/dev/null || echo 2)" --target fbcdc_bench
mkdir -p out
echo "$(date -u '+%Y-%m-%d %H:%M UTC'), $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1), $(nproc) cores"
build/bench/fbcdc_bench --benchmark_out=out/bench.json --benchmark_out_format=json \
  --benchmark_color=false "$@"
echo
sh bench/callgrind_insert.sh build/bench/fbcdc_bench
