#!/bin/bash
# Static checks of the whole repository. Needs a configured build directory with the compiler's
# command lines, clang-format-14, clang-tidy-14, cppcheck, shellcheck, pyflakes3 and mypy. The first check, of our
# own, is that includes run down and in no circle.
#
#   lint/lint.sh BUILD_DIRECTORY [COMMIT]
#
# COMMIT is the one since which subjects of commit messages keep to 72 characters.
# One check per tool; prints "N passed, N failed" at the end, and the status is 0 when nothing
# failed. clang-tidy and cppcheck leave tests/ out: half of the time would be GoogleTest's headers,
# and an assertion that returns early looks like a leak.
set -uo pipefail
[ $# = 1 ] || [ $# = 2 ] || { echo "Usage: lint.sh BUILD_DIRECTORY [COMMIT]" >&2; exit 2; }
build=$(realpath "$1")
since=${2:-e8e2384202e1}
cd "$(dirname "$(readlink -f "$0")")/.." || exit

PROGRAM=(client platform redundancy_health tools bench)
CPPCHECK_SUPPRESSIONS=(
  useStlAlgorithm       # plain loops are wanted
  usleepCalled          # fine on Linux
  readdirCalled         # safe on a stream of one's own
  unusedStructMember    # tables mirror their source
)

# The rooms from the ground up; includes run down. Those that run up are named, with the file that
# they are in ("*": any room): the two files that put the rooms together, and where the protocol
# recurses. The client library neither includes a room nor is included by one.
ROOMS="platform frame catalog transport transfer exchange rpc"
UPWARD='
  frame/daemon_main.cc:*
  transport/sync_thread.cc:*
  catalog/digest_file.cc:transport/exchange_outcome.h
'
# Within a room no module includes itself by way of others, but where the protocol recurses, and a
# connection holds the file that is being put over it.
CIRCLES='
  transport/cpg_message.cc:transport/exchange_outcome.h
  client/connection.h:client/put.h
  frame/sync_context.cc:frame/state_report.h
'
# What runs on the callers' threads knows nothing of what runs on the replicating one.
RPC_INCLUDES='^rpc/[^:]*:(redundancy_health/)?(rpc|frame|platform)/'
# Only their starters include the two files that put the rooms together.
TOP='(daemon_main|sync_thread)\.h'
STARTERS='frame/main.cc:|daemon_main.cc:|sync_thread.cc:'

passed=0
failed=0

# check COMMAND...: counts, and shows what a failing command printed.
check() {
  local start=$SECONDS output
  if output=$("$@" 2>&1); then
    echo "ok    $1, $((SECONDS - start)) s"
    passed=$((passed + 1))
  else
    echo "FAIL  $1"
    printf '%s\n' "$output"
    failed=$((failed + 1))
  fi
}

# The files below the places given whose names match, apart from what a build made.
files() {
  local pattern=$1
  shift
  find "$@" -path './build*' -prune -o -path ./.git -prune -o -type f -name "$pattern" -print
}

# Starts as many as there are processors; fails when one does.
in_parallel() {
  xargs --no-run-if-empty --max-args=1 --max-procs="$(nproc)" "$@"
}

clang_format() {
  { files '*.cc' . && files '*.h' .; } | xargs clang-format-14 --dry-run -Werror
}

clang_tidy() {
  # Thread safety: what GUARDED_BY and REQUIRES in the headers promise (platform/mutex.h).
  files '*.cc' "${PROGRAM[@]}" |
    in_parallel clang-tidy-14 -p "$build" --quiet --extra-arg=-Wthread-safety
}

run_cppcheck() {
  cppcheck -j "$(nproc)" --quiet --language=c++ --std=c++20 --library=posix,gnu --inline-suppr \
    --enable=warning,style,performance,portability --error-exitcode=1 -I . -D_GNU_SOURCE \
    "${CPPCHECK_SUPPRESSIONS[@]/#/--suppress=}" "${PROGRAM[@]}"
}

run_shellcheck() {
  # shellcheck disable=SC2016  # fields are awk's
  files '*' . | xargs awk 'FNR == 1 && /^#!\/bin\/(ba)?sh/ { print FILENAME } { nextfile }' |
    xargs shellcheck && shellcheck --shell=bash packaging/bash-completion/cluster_sync_ctl
}

includes() {
  grep -rn '^#include "' --include='*.h' --include='*.cc' client platform redundancy_health |
    sed -E 's|redundancy_health/||g; s|:[0-9]+:#include "(.*)"|:\1|' > "$build/includes.txt"
  awk -F '[/:]' -v rooms="$ROOMS" -v upward="$UPWARD" '
    BEGIN {
      for (n = split(rooms, room, " "); n > 0; --n) height[room[n]] = n
      split(upward, lines, " ")
      for (i in lines) named[lines[i]]
    }
    !($3 in height) || !($1 in height) || height[$3] > height[$1] {
      if ($1 == "client" && $3 == "client") next
      if ($0 in named || $1 "/" $2 ":*" in named) next
      print "runs up: " $0
      failed = 1
    }
    END { exit failed }' "$build/includes.txt" &&
    ! grep -E ":.*$TOP" "$build/includes.txt" | grep -vE "$STARTERS" &&
    ! grep '^rpc/' "$build/includes.txt" | grep -vE "$RPC_INCLUDES" &&
    circles
}

# Takes away, again and again, the modules that include none of those that are left, or are included
# by none: what stays is a circle.
circles() {
  awk -F : -v named="$UPWARD $CIRCLES" '
    function module(file) { sub(/\.(h|cc)$/, "", file); return file }
    function room(file) { sub(/\/.*/, "", file); return file }
    BEGIN { split(named, lines, " "); for (i in lines) except[lines[i]] }
    !($0 in except) && room($1) == room($2) && module($1) != module($2) {
      from[NR] = module($1); to[NR] = module($2); left[module($1)]; line[NR] = $0
    }
    END {
      do {
        delete includes; delete included; gone = 0
        for (i in from) if (from[i] in left && to[i] in left) { includes[from[i]]; included[to[i]] }
        for (m in left) if (!(m in includes && m in included)) { delete left[m]; gone = 1 }
      } while (gone)
      for (i in from) if (from[i] in left && to[i] in left) { print "in a circle: " line[i]; failed = 1 }
      exit failed
    }' "$build/includes.txt"
}

# What the sources have is in the documents: every diagnostic command, in bold, every option and
# variable, every text in a constant, and the first literal of every call that logs at level 3 or
# answers. Prints what is missing.
documents() {
  local calls='LOG\(3|LOG_NO_DUMP\(3|LOG_PLATFORM_ONLY\(\s*3|FATAL\(|REFUSE\(|end_exchange_error\('
  calls+='|end_exchange_full\(|RECORD_SCAN_FAILURE\(|storage_cfg_set_result\('
  local constants='constexpr char k\w+\[\] =\s*"\K[A-Z][^"\n]* [^"\n]*(?=")'
  sed 's/\\-/-/g' packaging/man/*.[138] docs/operations.md > "$build/documents" &&
    sed -n '/^\.SH DIAGNOSTIC/,/^\.SH OPTIONS/s/^\.B[RI]* / /p' "$build/documents" > "$build/bold" &&
    sed -nE 's/^ +\{"([a-z-]+)", (true|false), run_.*/\1/p' redundancy_health/rpc/diagnostics.cc \
      > "$build/commands" && [ "$(wc -l < "$build/commands")" -ge 10 ] &&
    { sed -nE 's/.*\{"([a-z]+)", (no|required)_argument.*/--\1/p' tools/cluster_sync_ctl.cc
      sed -nE 's/.*(getenv|delay_seconds)\("([A-Z_]+)".*/\2/p' {platform,redundancy_health/*}/*.cc
      grep -rPzoh "(?s)$constants|($calls)[^;\"]*\"\\K[^\"\\n]{4,}(?=\")" redundancy_health |
        tr '\0' '\n'; } > "$build/words" &&
    [ "$(wc -l < "$build/words")" -ge 70 ] || return 1
  { while IFS= read -r word; do grep -qE " $word([ =]|\$)" "$build/bold" || echo "$word"; done \
      < "$build/commands"
    while IFS= read -r word; do grep -qF -e "$word" "$build/documents" || echo "$word"; done \
      < "$build/words"; } | sed 's/^/in no document: /' | { ! grep .; }
}

run_pyflakes() {
  files '*.py' . | xargs pyflakes3
}

# What programs import, strictly; then all, folder by folder, because two of them have a __main__.
run_mypy() {
  local check=(mypy --config-file lint/mypy.ini --no-error-summary --cache-dir "$build/mypy") folder
  "${check[@]}" --strict client/python/cluster_sync || return 1
  while IFS= read -r folder; do
    "${check[@]}" "$folder"/*.py || return 1
  done < <(files '*.py' . | sed 's|/[^/]*$||' | sort -u)
  "${check[@]}" --scripts-are-modules testbed/pair
}

# A copy without the history has no subjects to check.
subjects() {
  git cat-file -e "$since^{commit}" 2> /dev/null || return 0
  git log --format=%s "$since..HEAD" | { ! grep -E '.{73}'; }
}

check includes
check documents
check subjects
check run_pyflakes
check run_mypy
check clang_format
check run_shellcheck
check run_cppcheck
check clang_tidy
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
