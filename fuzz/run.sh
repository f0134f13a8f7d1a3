#!/bin/sh
# Builds the fuzz targets with clang (libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer) in
# build-fuzz/ and runs each for FBCDC_FUZZ_SECONDS seconds (default 60), starting from the seed
# corpus in fuzz/corpus and keeping what it finds in out/fuzz/<target>. A crash stops the script
# with its input saved as out/fuzz/crash-*; copy it into fuzz/regressions/<target>/ once fixed.
#
#   sh fuzz/run.sh                         # one minute each, as CI runs it
#   FBCDC_FUZZ_SECONDS=1800 sh fuzz/run.sh # half an hour each
#   sh fuzz/run.sh LogDecoderFuzz          # one target
set -eu
cd "$(dirname "$0")/.."
seconds=${FBCDC_FUZZ_SECONDS:-60}
targets=${*:-TReadFileFuzz LogDecoderFuzz RecordPathFuzz}
cmake -S . -B build-fuzz -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DFBCDC_FUZZ=ON -DFBCDC_TESTS=OFF -DFBCDC_BENCH=OFF >/dev/null
# shellcheck disable=SC2086
cmake --build build-fuzz -j "$(nproc 2>/dev/null || echo 2)" --target $targets
# The targets' scratch files, removed however a run ends.
FBCDC_FUZZ_DIR=$(mktemp -d /dev/shm/fbcdc-fuzz.XXXXXX 2>/dev/null || mktemp -d)
export FBCDC_FUZZ_DIR
trap 'rm -rf "$FBCDC_FUZZ_DIR"' EXIT
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1:suppressions=$(pwd)/fuzz/ubsan.supp"
export ASAN_OPTIONS="detect_leaks=1"
export LSAN_OPTIONS="suppressions=$(pwd)/tests/lsan.supp"
for target in $targets; do
  mkdir -p "out/fuzz/$target"
  # Every input that once crashed runs first, then the search.
  if [ -d "fuzz/regressions/$target" ]; then
    "build-fuzz/fuzz/$target" fuzz/regressions/"$target"/*
  fi
  "build-fuzz/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 \
    -artifact_prefix="out/fuzz/crash-$target-" "out/fuzz/$target" "fuzz/corpus/$target" 2>&1 |
    grep -E "stat::number_of_executed_units|^Done|==[0-9]+==|SUMMARY" || true
  ls out/fuzz/crash-"$target"-* >/dev/null 2>&1 && { echo "$target: crash, see out/fuzz"; exit 1; }
  echo "$target: ran $seconds s, no crash"
done
