#!/usr/bin/env bash
# Builds the libFuzzer harnesses (clang, ASan + UBSan) in build-fuzz/ and runs
# each one for a while on a scratch copy of its corpus in fuzz/corpus/.
#   scripts/fuzz.sh [SECONDS_PER_TARGET]     (default 45)
# Installs nothing: scripts/setup.sh installs clang and its fuzzer runtime.
# Fails on the first crash, leak, timeout or out-of-memory, and says where
# the reproducer is; rerun it with build-fuzz/fuzz/fuzz_<name> <file>.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-45}"
[[ "$seconds" =~ ^[0-9]+$ ]] || { echo "usage: $0 [SECONDS_PER_TARGET]" >&2; exit 2; }
build_dir=build-fuzz
jobs="$(nproc)"

# Each target with the longest input worth trying, its per-input time limit
# and whether leaks are looked for after every input or only at exit.
# Media files and frame files need room; the others are short structures.
# The frame-dump recorder encodes on its writer's thread while the next input
# runs, so a check between inputs can scan in the middle of a frame. One CI
# run reported a single 16 KB block that way (about one noise frame's
# packet); 11 runs here never showed it again. At exit every queue has
# ended, and a leak that is real is still reported there.
targets=(
  "asset_reader    24000  30  1"
  "frame_dump     240000  20  0"
  "liveness_answer  4096  10  1"
  "capture_formats  1024  20  1"
  "webcam_formats  65536  20  1"
)

echo "== configuring $build_dir"
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZAVO_SANITIZE=fuzzer -DZAVO_BUILD_TESTS=OFF -DZAVO_BUILD_BENCH=OFF -DZAVO_BUILD_APPS=OFF >/dev/null
echo "== building the harnesses"
names=()
for target in "${targets[@]}"; do
  read -r name _ <<<"$target"
  names+=("fuzz_$name")
done
cmake --build "$build_dir" -j"$jobs" --target "${names[@]}"

# Runs go in a scratch folder: what the fuzzer adds to a corpus never lands
# in the repository, and the artefacts of a failure stay until looked at.
work="$(mktemp -d "${TMPDIR:-/tmp}/zavo-fuzz.XXXXXX")"
echo "== fuzzing for ${seconds}s per target in $work"
failed=0
for target in "${targets[@]}"; do
  read -r name max_len timeout per_input_leaks <<<"$target"
  corpus="$work/corpus-$name"
  artifacts="$work/artifacts-$name"
  mkdir -p "$corpus" "$artifacts"
  cp fuzz/corpus/"$name"/* "$corpus"/
  options=(-max_total_time="$seconds" -max_len="$max_len" -timeout="$timeout" -rss_limit_mb=3072
           -seed="${ZAVO_FUZZ_SEED:-0}" -detect_leaks="$per_input_leaks"
           -artifact_prefix="$artifacts/" -print_final_stats=1)
  [ -f "fuzz/$name.dict" ] && options+=(-dict="fuzz/$name.dict")
  log="$work/$name.log"
  echo "-- $name"
  if ASAN_OPTIONS="detect_leaks=1:allocator_may_return_null=0" UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
      "$build_dir/fuzz/fuzz_$name" "${options[@]}" "$corpus" >"$log" 2>&1; then
    grep -E "^stat::number_of_executed_units|^stat::average_exec_per_sec" "$log" | sed 's/^/   /'
  else
    failed=1
    echo "!! $name failed; log: $log"
    grep -E "ERROR: |SUMMARY: |fuzz check failed|Test unit written to" "$log" | sed 's/^/   /' | head -n 12
    # The first report's stack: CI keeps only this output, not the log.
    sed -n '/ERROR: /,/^$/p;/ leak of /,/^$/p' "$log" | head -n 40 | sed 's/^/   | /'
  fi
done

if ((failed)); then
  echo "== FAILED; reproducers are in $work/artifacts-*/"
  exit 1
fi
rm -rf "$work"
echo "== no crash, leak or timeout"
