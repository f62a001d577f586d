#!/usr/bin/env bash
# Runs the fuzz targets with clang's libFuzzer, one after another, SECONDS
# each, and prints what each reached: executions per second, coverage (cov:
# edges, ft: features, as libFuzzer counts them) and findings.
#   bash bench/fuzz.sh SECONDS [target ...]      every target when none is named
# The targets are built with clang (-fsanitize=fuzzer,address,undefined) in
# build-fuzz, apart from the presets' builds. A run starts from the seed corpus
# in fuzz/corpus/<target> and grows a working copy in build-fuzz/corpus/<target>;
# a crash, hang (10 s) or leak stops that target and its input is kept in
# build-fuzz/findings/<target> (the count is of this run's). libFuzzer's own
# output is in build-fuzz/logs.
# Runs under nice; FUZZ_BUILD_JOBS (2) sets the build's parallelism.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:?usage: bash bench/fuzz.sh SECONDS [target ...]}
shift
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(accounts device_sign_in endpoints infra_status meet_answers meterly_snapshot
           notify_feed setup_steps update_feed zip_listing)
fi
build=build-fuzz

cmake -S . -B "$build" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DTESSEL_SANITIZE="address;undefined;fuzzer-no-link" -DTESSEL_LIBFUZZER=ON \
  -DTESSEL_BUILD_TESTS=OFF -DTESSEL_BUILD_BENCH=OFF >/dev/null
nice cmake --build "$build" -j "${FUZZ_BUILD_JOBS:-2}" --target "${targets[@]/#/fuzz_}"

# libFuzzer reports a leak at exit; the sanitizers stop at the first fault.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

printf '%-17s %7s %9s %7s %7s %7s  %s\n' target seconds exec/s cov ft corpus findings
for target in "${targets[@]}"; do
  work=$build/corpus/$target
  findings=$build/findings/$target
  log=$build/logs/$target.log
  mkdir -p "$work" "$findings" "$build/logs"
  dictionary=()
  if [ -f "fuzz/$target.dict" ]; then
    dictionary=(-dict="fuzz/$target.dict")
  fi
  started=$(date +%s)
  touch "$build/logs/$target.started"
  status=0
  nice "$build/bin/fuzz_$target" "$work" "fuzz/corpus/$target" "${dictionary[@]}" \
    -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$findings/" >"$log" 2>&1 || status=$?
  ran=$(($(date +%s) - started))
  # The last status line holds the coverage; the final stats the speed.
  last=$(grep -E '^#[0-9]+' "$log" | tail -1 || true)
  cov=$(sed -nE 's/.* cov: ([0-9]+).*/\1/p' <<<"$last")
  ft=$(sed -nE 's/.* ft: ([0-9]+).*/\1/p' <<<"$last")
  corpus=$(sed -nE 's/.* corp: ([0-9]+).*/\1/p' <<<"$last")
  speed=$(sed -nE 's/^stat::average_exec_per_sec: *([0-9]+).*/\1/p' "$log" | tail -1)
  found=$(find "$findings" -type f -newer "$build/logs/$target.started" | wc -l)
  summary=$found
  if [ "$status" -ne 0 ]; then
    summary="$found (stopped: $(grep -m1 -oE 'ERROR: [A-Za-z]+: [^ ]+|ERROR: libFuzzer: [a-z-]+|SUMMARY: [A-Za-z]+: [^ ]+' "$log" || echo "status $status"))"
  fi
  printf '%-17s %7s %9s %7s %7s %7s  %s\n' "$target" "$ran" "${speed:-?}" "${cov:-?}" \
    "${ft:-?}" "${corpus:-?}" "$summary"
done
