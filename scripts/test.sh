#!/usr/bin/env bash
# The test command: installs what is missing, then
#   1. builds and runs the test suite under CTest,
#   2. builds and runs it again under AddressSanitizer + UndefinedBehaviorSanitizer
#      (LeakSanitizer on),
#   3. builds the benchmarks (they are run by hand, not here),
#   4. builds every libFuzzer target with clang and runs it over its seed corpus
#      for a bounded time,
# and ends with one line "N passed, N failed". Exits non-zero on any failure.
set -uo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
cd "$ROOT"
JOBS=${JOBS:-$(nproc)}
FUZZ_SECONDS=${FUZZ_SECONDS:-20}

bash scripts/setup.sh || { echo "setup failed"; exit 1; }

passed=0
failed=0
failures=()

# ctest_counts LOG: adds the counts from ctest's closing line to the totals.
ctest_counts() {
  local line total nfail
  line=$(grep -E 'tests passed, [0-9]+ tests? failed out of [0-9]+' "$1" | tail -1)
  if [ -z "$line" ]; then
    failed=$((failed + 1)); failures+=("$2: no ctest summary"); return
  fi
  nfail=$(sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/' <<<"$line")
  total=$(sed -E 's/.* failed out of ([0-9]+).*/\1/' <<<"$line")
  passed=$((passed + total - nfail))
  failed=$((failed + nfail))
  [ "$nfail" = 0 ] || failures+=("$2: $nfail test(s) failed")
}

step() { echo; echo "==== $*"; }

build() {  # build DIR [cmake args...]; $TARGETS (optional) limits what is built
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja "$@" >"$dir.configure.log" 2>&1 \
    || { cat "$dir.configure.log"; return 1; }
  if [ -n "${TARGETS:-}" ]; then
    # shellcheck disable=SC2086
    cmake --build "$dir" -j "$JOBS" --target $TARGETS
  else
    cmake --build "$dir" -j "$JOBS"
  fi
}

run_suite() {  # run_suite DIR NAME
  local log="$1/ctest.log"
  (cd "$1" && ctest -j "$JOBS" --output-on-failure --timeout 600) 2>&1 | tee "$log"
  ctest_counts "$log" "$2"
}

step "build (RelWithDebInfo)"
if build build -DCMAKE_BUILD_TYPE=RelWithDebInfo; then
  step "tests"
  run_suite build "tests"
else
  failed=$((failed + 1)); failures+=("build failed")
fi

step "build (ASan + UBSan)"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:strict_string_checks=1:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
if build build-asan -DCMAKE_BUILD_TYPE=Debug -DQUILLON_SANITIZE=ON -DQUILLON_BUILD_BENCH=OFF; then
  step "tests under sanitizers"
  run_suite build-asan "sanitizer tests"
else
  failed=$((failed + 1)); failures+=("sanitizer build failed")
fi

step "fuzz targets (clang, libFuzzer, ${FUZZ_SECONDS}s each)"
fuzz_targets=$(for f in fuzz/*_fuzzer.cpp; do basename "$f" .cpp; done | tr '\n' ' ')
if CC=clang CXX=clang++ TARGETS="$fuzz_targets" build build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
     -DQUILLON_BUILD_TESTS=OFF -DQUILLON_BUILD_BENCH=OFF -DQUILLON_BUILD_FUZZ=ON \
     "-DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all" \
     "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=address,undefined" \
     "-DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=address,undefined"; then
  for fuzzer in build-fuzz/fuzz/*_fuzzer; do
    [ -x "$fuzzer" ] || continue
    name=$(basename "$fuzzer")
    corpus="fuzz/corpus/${name%_fuzzer}"
    work=$(mktemp -d)
    [ -d "$corpus" ] && cp -r "$corpus/." "$work/"
    echo "-- $name over $corpus"
    if "$fuzzer" -max_total_time="$FUZZ_SECONDS" -timeout=10 -rss_limit_mb=2048 \
         -print_final_stats=1 "$work" >"build-fuzz/$name.log" 2>&1; then
      passed=$((passed + 1)); echo "   ok ($(grep -E 'stat::number_of_executed_units' "build-fuzz/$name.log" | awk '{print $2}') runs)"
    else
      failed=$((failed + 1)); failures+=("fuzzer $name"); tail -40 "build-fuzz/$name.log"
    fi
    rm -rf "$work"
  done
else
  failed=$((failed + 1)); failures+=("fuzz build failed")
fi

echo
for f in "${failures[@]}"; do echo "FAILED: $f"; done
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
