#!/bin/bash
# Static checks of the whole repository. Needs a configured build directory with compile_commands.json,
# clang-format-14, clang-tidy-14, cppcheck, shellcheck, pyflakes3 and mypy.
#
#   lint/lint.sh BUILD_DIRECTORY [COMMIT]
#
# Subjects of commit messages are checked since COMMIT. Prints one line per check and "N passed, N failed"
# at the end; the exit status is 0 when nothing failed. clang-tidy and cppcheck leave tests/ out: half of the
# time would be GoogleTest's headers, and an assertion that returns early looks like a leak.
set -uo pipefail
[ $# = 1 ] || [ $# = 2 ] || { echo "Usage: lint.sh BUILD_DIRECTORY [COMMIT]" >&2; exit 2; }
build=$(realpath "$1")
since=${2:-e8e2384202e1}
cd "$(dirname "$(readlink -f "$0")")/.." || exit

PROGRAM=(client platform redundancy_health tools bench)
CPPCHECK_SUPPRESSIONS=(
  useStlAlgorithm       # we prefer plain loops
  usleepCalled          # fine on Linux
  readdirCalled         # safe when each stream has one thread
  unusedStructMember    # tables mirror their source
)

# The layers, lowest first; a file includes only its own layer and lower ones. UPWARD lists the exceptions as
# file:header ("*": any header): the two files that connect the layers, and a recursion of the protocol. The
# client library neither includes a layer nor is included by one.
LAYERS="platform frame catalog transport transfer exchange rpc"
UPWARD='
  frame/daemon_main.cc:*
  transport/sync_thread.cc:*
  catalog/digest_file.cc:transport/exchange_outcome.h
'
# Allowed include cycles within a layer: the protocol recurses, and a connection holds the file of its put.
CYCLES='
  transport/cpg_message.cc:transport/exchange_outcome.h
  client/connection.h:client/put.h
  frame/sync_context.cc:frame/state_report.h
'
# Code on the callers' threads does not include code of the sync thread.
RPC_INCLUDES='^rpc/[^:]*:(redundancy_health/)?(rpc|frame|platform)/'
# Only their callers include the two files that connect the layers.
TOP='(daemon_main|sync_thread)\.h'
STARTERS='frame/main.cc:|daemon_main.cc:|sync_thread.cc:'

passed=0
failed=0

# check COMMAND...: runs and counts one check; shows its output when it fails.
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

# files PATTERN DIRECTORY...: the files with matching names, except build output.
files() {
  local pattern=$1
  shift
  find "$@" -path './build*' -prune -o -path ./.git -prune -o -type f -name "$pattern" -print
}

# Runs one process per processor; fails when one of them fails.
in_parallel() {
  xargs --no-run-if-empty --max-args=1 --max-procs="$(nproc)" "$@"
}

clang_format() {
  { files '*.cc' . && files '*.h' .; } | xargs clang-format-14 --dry-run -Werror
}

clang_tidy() {
  # Thread safety: checks GUARDED_BY and REQUIRES in the headers (platform/mutex.h).
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
  awk -F '[/:]' -v layers="$LAYERS" -v upward="$UPWARD" '
    BEGIN {
      for (n = split(layers, layer, " "); n > 0; --n) height[layer[n]] = n
      split(upward, lines, " ")
      for (i in lines) named[lines[i]]
    }
    !($3 in height) || !($1 in height) || height[$3] > height[$1] {
      if ($1 == "client" && $3 == "client") next
      if ($0 in named || $1 "/" $2 ":*" in named) next
      print "includes a higher layer: " $0
      failed = 1
    }
    END { exit failed }' "$build/includes.txt" &&
    ! grep -E ":.*$TOP" "$build/includes.txt" | grep -vE "$STARTERS" &&
    ! grep '^rpc/' "$build/includes.txt" | grep -vE "$RPC_INCLUDES" &&
    cycles
}

# Repeatedly removes the modules that include no remaining module or are included by none. The rest are in
# cycles.
cycles() {
  awk -F : -v named="$UPWARD $CYCLES" '
    function module(file) { sub(/\.(h|cc)$/, "", file); return file }
    function layer(file) { sub(/\/.*/, "", file); return file }
    BEGIN { split(named, lines, " "); for (i in lines) except[lines[i]] }
    !($0 in except) && layer($1) == layer($2) && module($1) != module($2) {
      from[NR] = module($1); to[NR] = module($2); left[module($1)]; line[NR] = $0
    }
    END {
      do {
        delete includes; delete included; gone = 0
        for (i in from) if (from[i] in left && to[i] in left) { includes[from[i]]; included[to[i]] }
        for (m in left) if (!(m in includes && m in included)) { delete left[m]; gone = 1 }
      } while (gone)
      for (i in from) if (from[i] in left && to[i] in left) { print "in a cycle: " line[i]; failed = 1 }
      exit failed
    }' "$build/includes.txt"
}

# Checks that the documents mention every diagnostic command (in bold), every option and variable, every text
# in a constant, and the first literal of every call that logs at level 3 or answers. Prints what is missing.
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

# Strict for the package that programs import; then all, one directory at a time, because several have a
# __main__.
run_mypy() {
  local check=(mypy --config-file lint/mypy.ini --no-error-summary --cache-dir "$build/mypy") folder
  "${check[@]}" --strict client/python/cluster_sync || return 1
  while IFS= read -r folder; do
    "${check[@]}" "$folder"/*.py || return 1
  done < <(files '*.py' . | sed 's|/[^/]*$||' | sort -u)
  "${check[@]}" --scripts-are-modules testbed/pair
}

# A copy without history has no subjects to check.
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
