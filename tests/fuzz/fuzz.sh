#!/bin/bash
# fuzz.sh [SECONDS] [TARGET...]: builds the fuzzer with clang, gives it the daemon's own messages as
# seeds and runs each target for SECONDS (default 30), one on every processor. Needs root. The
# build, what the runs found new and the inputs that crashed (crashes/) are kept in build-fuzz/.
# Exit status 0 only when nothing crashed or hung.
set -euo pipefail
source_dir=$(cd "$(dirname "$(readlink -f "$0")")/../.." && pwd)
build=$source_dir/build-fuzz
seconds=30
if [[ ${1:-} =~ ^[0-9]+$ ]]; then
  seconds=$1
  shift
fi
targets=("$@")
[ $# -gt 0 ] || targets=(group listing update digest rpc diagnostic command)

mkdir -p "$build/crashes" "$build/logs"
cd "$build"
if ! { cmake -S "$source_dir" -B . -G Ninja -DCMAKE_CXX_COMPILER=clang++-14 -DCSD_FUZZ=ON \
    -DCSD_TESTS=OFF -DCSD_SANITIZE=fuzzer-no-link,address,undefined &&
    ninja fuzz; } > fuzz-build.log 2>&1; then
  tail -n 50 fuzz-build.log >&2
  exit 1
fi

export ASAN_OPTIONS=quarantine_size_mb=16  # the default only costs page faults
rm -rf seeds
cp "$source_dir/tests/fuzz/fuzz.dict" .  # the fuzzer sees nothing else of a source below /tmp
./fuzz seeds seeds

# Prints one line; the log of a failed run and its input follow it.
run_target() {
  local target=$1 log=logs/$1.log status=0
  mkdir -p "corpus/$target" "seeds/$target"
  touch "logs/$target.start"
  timeout --foreground --kill-after=10 $((seconds + 60)) ./fuzz "$target" "corpus/$target" \
    "seeds/$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=1024 -handle_xfsz=0 \
    -max_len=8192 -len_control=0 -dict=fuzz.dict -artifact_prefix="crashes/$target-" \
    -print_final_stats=1 > "$log" 2>&1 || status=$?
  awk -v target="$target" '
    / cov: / { for (i = 1; i < NF; ++i) if ($i == "cov:") coverage = $(i + 1) }
    /number_of_executed_units/ { executions = $2 }
    END { printf "%-11s %9d executions, coverage %d\n", target, executions, coverage }' "$log"
  [ "$status" = 0 ] && return
  echo "$target failed with status $status:"
  tail -n 60 "$log"
  find "$build/crashes" -name "$target-*" -newer "logs/$target.start" -print -exec od -A x -t x1z {} +
  return 1
}

passed=0
failed=0
running=0
finish_one() {
  if wait -n; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
  running=$((running - 1))
}

# Every target is a process group of its own, which ends with this script.
set -m
# shellcheck disable=SC2154  # it does not see that the loop sets it
trap 'for group in $(jobs -p); do kill -- "-$group"; done' EXIT
trap 'exit 130' INT TERM
for target in "${targets[@]}"; do
  [ "$running" -lt "$(nproc)" ] || finish_one
  (status=0; report=$(run_target "$target") || status=1; echo "$report"; exit $status) &
  running=$((running + 1))
done
while [ "$running" -gt 0 ]; do finish_one; done
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
