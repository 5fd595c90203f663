#!/bin/bash
# fuzz.sh [SECONDS] [TARGET...]: runs each fuzz target in build-fuzz/ for SECONDS (default 30), one per
# processor. Needs root. Keeps new inputs in corpus/ and inputs that crashed in crashes/. The exit
# status is 0 only if nothing crashed or hung.
set -euo pipefail
source_dir=$(cd "$(dirname "$(readlink -f "$0")")/../.." && pwd)
build=$source_dir/build-fuzz
seconds=30
if [[ ${1:-} =~ ^[0-9]+$ ]]; then
  seconds=$1
  shift
fi
[ $# -gt 0 ] || set -- group listing update digest rpc repeat diagnostic command trace trees

mkdir -p "$build/crashes" "$build/logs"
cd "$build"
cp "$source_dir/tests/fuzz/fuzz.dict" .  # a source directory below /tmp is hidden from the fuzzer

# Prints one line. After a failure, prints the log, which names the input.
run_target() {
  local target=$1 log=logs/$1.log status=0
  mkdir -p "corpus/$target"
  # The defaults of the sanitizer would cost more time than the runs: page faults, deep stacks. The log goes
  # through cat, because a target cannot create a file above 1 MiB.
  FUZZ_TARGET=$target ASAN_OPTIONS=quarantine_size_mb=16:malloc_context_size=3 \
    timeout --foreground --kill-after=10 $((seconds + 60)) ./fuzz "corpus/$target" \
    -max_total_time="$seconds" -timeout=20 -rss_limit_mb=1024 -handle_xfsz=0 \
    -max_len=300 -len_control=0 -dict=fuzz.dict \
    -artifact_prefix="crashes/$target-" 2>&1 | cat > "$log" || status=$?
  echo "$target: $(grep -o 'cov: [0-9]*' "$log" | tail -n 1), $(tail -n 1 "$log")"
  [ $status = 0 ] || tail -n 60 "$log"
  return $status
}

passed=0
failed=0
running=0
finish_one() {
  if wait -n; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
  running=$((running - 1))
}

# Every target is a separate process group, which ends with this script.
set -m
# shellcheck disable=SC2154  # it does not see that the loop sets it
trap 'for group in $(jobs -p); do kill -- "-$group"; done' EXIT
trap 'exit 130' INT TERM
for target; do
  [ "$running" -lt "$(nproc)" ] || finish_one
  run_target "$target" &
  running=$((running + 1))
done
while [ "$running" -gt 0 ]; do finish_one; done
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
