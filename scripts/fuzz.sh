#!/usr/bin/env bash
# Fuzzes one target for a while: scripts/fuzz.sh TARGET SECONDS
#   TARGET   a fuzz target (fuzz/TARGET.cpp), or "all" for every target in turn
#   SECONDS  how long to fuzz each target
# Builds the libFuzzer programs with clang (-fsanitize=fuzzer,address,undefined)
# in build/fuzz, then runs the target on a copy of fuzz/corpus/TARGET in
# build/fuzz/corpus/TARGET (the committed corpus stays untouched). Crashes are
# written to build/fuzz/findings/TARGET/. Exits 77 when clang with libFuzzer is
# missing, 1 when a target found something.
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ $# -ne 2 || ! $2 =~ ^[0-9]+$ ]]; then
  echo "usage: scripts/fuzz.sh TARGET|all SECONDS" >&2
  exit 2
fi
target=$1
seconds=$2

if ! command -v clang++ >/dev/null 2>&1 ||
  ! echo 'extern "C" int LLVMFuzzerTestOneInput(const char*, unsigned long) { return 0; }' |
  clang++ -x c++ -fsanitize=fuzzer - -o /dev/null >/dev/null 2>&1; then
  echo "fuzz.sh: clang++ with libFuzzer is not available; skipped" >&2
  exit 77
fi

if [[ $target == all ]]; then
  targets=()
  for source in fuzz/*.cpp; do
    name=$(basename "$source" .cpp)
    [[ $name == replay_main ]] || targets+=("$name")
  done
else
  if [[ ! -f fuzz/$target.cpp || $target == replay_main ]]; then
    echo "fuzz.sh: no fuzz target fuzz/$target.cpp" >&2
    exit 2
  fi
  targets=("$target")
fi

build=build/fuzz
if [[ ! -f $build/build.ninja ]]; then
  CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DDISCHIVE_BUILD_FUZZ=ON -DDISCHIVE_BUILD_TESTS=OFF -DDISCHIVE_INSTALL=OFF >/dev/null
fi
cmake --build "$build" -j 2 --target "${targets[@]}" >/dev/null

status=0
for name in "${targets[@]}"; do
  corpus=$build/corpus/$name
  findings=$build/findings/$name
  mkdir -p "$corpus" "$findings"
  cp -n fuzz/corpus/"$name"/* "$corpus"/ 2>/dev/null || true
  echo "== $name: ${seconds}s"
  if ! "$build/fuzz/$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$findings/" "$corpus" 2>"$build/$name.log"; then
    echo "fuzz.sh: $name found a fault; see $build/$name.log and $findings/" >&2
    status=1
  fi
  grep -E '^(#[0-9]+.*DONE|stat::number_of_executed_units|stat::average_exec_per_sec)' \
    "$build/$name.log" || tail -n 3 "$build/$name.log"
done
exit $status
