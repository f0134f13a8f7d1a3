#!/bin/sh
# Builds the benchmarks and runs them at full size: prints each benchmark, then the table of ratios
# measured side by side in this run, and writes the raw results to out/bench.json for comparison
# with another run. Extra arguments go to Google Benchmark (for example --benchmark_filter=Crc).
# FBCDC_BUILD names the build directory (build by default). The load average is printed before
# and after the run: ratios are measured side by side, but a loaded machine makes them noisier.
set -eu
cd "$(dirname "$0")/.."
build=${FBCDC_BUILD:-build}
sh scripts/install-deps.sh
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
# The dump benchmark runs the fbcdc command as a process.
cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" --target fbcdc_bench fbcdc-cli
mkdir -p out
echo "$(date -u '+%Y-%m-%d %H:%M UTC'), $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1), $(nproc) cores"
echo "load average before: $(cut -d' ' -f1-3 /proc/loadavg)"
"$build"/bench/fbcdc_bench --benchmark_out=out/bench.json --benchmark_out_format=json \
  --benchmark_color=false "$@"
echo "load average after: $(cut -d' ' -f1-3 /proc/loadavg)"
echo
sh bench/callgrind_insert.sh "$build"/bench/fbcdc_bench
