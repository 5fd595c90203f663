#!/bin/bash
# Tests a Debian package for real: boots a systemd of its own in namespaces over a copy-on-write view
# of this machine, installs the package there, runs the service and a peer of it on a Corosync,
# breaks and mends things, and purges. Nothing of this machine changes. On a machine that forbids
# what this needs only the file is checked.
#
#   packaging/test_package.sh PACKAGE       needs root, lintian, corosync and man-db
#
# Prints "N passed, N failed" at the end; the status is 0 when nothing failed.
# Single quotes hold what a shell elsewhere is to expand.
# shellcheck disable=SC2016
set -uo pipefail
export LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive
deb=$(realpath -e "$1") || exit 2
repo=$(dirname "$(dirname "$(readlink -f "$0")")")
work=$(mktemp -d)
cgroup=$(findmnt -n -t cgroup2 -o TARGET | head -n 1)/package-test.$$
launcher='' init='' passed=0 failed=0

clean_up() {
  # The end of the launcher ends the first process of its namespaces, and so everything in them.
  if [ -n "$launcher" ]; then
    kill -KILL "$launcher"
    wait "$launcher" 2> /dev/null
  fi
  if [ -d "$cgroup" ]; then
    wait_until 10 test -z "$(find "$cgroup" -name cgroup.procs -exec cat {} +)"
    find "$cgroup" -depth -type d -exec rmdir {} +
  fi
  rm -rf "$work"
}

# check TEXT COMMAND...: counts, and shows what a failing command printed.
check() {
  local text=$1
  shift
  if "$@" > "$work/output" 2>&1; then
    echo "ok    $text"
    passed=$((passed + 1))
    return
  fi
  echo "FAIL  $text"
  tail -n 40 "$work/output"
  failed=$((failed + 1))
  return 1
}

wait_until() {
  local end=$((SECONDS + $1))
  shift
  until "$@" > /dev/null 2>&1; do
    [ $SECONDS -lt $end ] || return 1
    sleep 0.2
  done
}

# output_is EXPECTED COMMAND...
output_is() {
  local expected=$1
  shift
  diff <(printf '%s' "${expected:+$expected$'\n'}") <("$@" 2>&1)
}

fails() { ! "$@"; }

# The package as a file.

list_content() {
  dpkg-deb -c "$deb" | awk '
    BEGIN { mark["-rw-r--r--"] = ""; mark["-rwxr-xr-x"] = "*" }
    $1 !~ /^d/ { print substr($6, 2) ($1 in mark ? mark[$1] : " " $1) }' | sort
}

# Every file, and a star where it is a program.
expected_content=$(printf '%s\n' /etc/default/cluster_sync_daemon \
  /lib/systemd/system/cluster_sync_daemon.service \
  /usr/bin/{clean_up_temp_files.py,cluster_sync_ctl}'*' \
  /usr/lib/tmpfiles.d/cluster-sync-daemon.conf /usr/sbin/cluster_sync_daemon'*' \
  /usr/share/bash-completion/completions/cluster_sync_ctl \
  /usr/share/doc/cluster-sync-daemon/{README.md,architecture.md,changelog.gz,copyright} \
  /usr/share/doc/cluster-sync-daemon/examples/{corosync.conf,em-number.conf} \
  /usr/share/doc/cluster-sync-daemon/examples/use{-replicated-data@.service,_replicated_data'*'} \
  /usr/share/doc/cluster-sync-daemon/operations.md \
  /usr/share/lintian/overrides/cluster-sync-daemon \
  /usr/share/man/man1/{clean_up_temp_files.py,cluster_sync_ctl}.1.gz \
  /usr/share/man/man8/cluster_sync_daemon.8.gz | sort)

# Leaves the text of each page in $work, for the next check.
man_pages_render() {
  local page
  for page in "$repo"/packaging/man/*.[18]; do
    output_is "" eval 'man --warnings -E ascii -l "$page" > "$work/${page##*/}.txt"' || return 1
    [ "$(wc -l < "$work/${page##*/}.txt")" -gt 15 ] || return 1
  done
}

# The sources say which commands, options and variables there are.
documents_cover_the_programs() {
  local word missing=0 page=$work/cluster_sync_ctl.1.txt
  local completion=$repo/packaging/bash-completion/cluster_sync_ctl words variables
  words=$(sed -nE 's/^ +\{"([a-z-]+)", (true|false), run_.*/\1/p' \
    "$repo/redundancy_health/rpc/diagnostics.cc"
    sed -nE 's/.*\{"([a-z]+)", (no|required)_argument.*/--\1/p' "$repo/tools/cluster_sync_ctl.cc")
  variables=$(sed -nE 's/.*(getenv|delay_seconds)\("([A-Z_]+)".*/\2/p' "$repo"/*/{,*/}*.cc)
  [ "$(wc -w <<< "$words")" -ge 20 ] && [ "$(wc -w <<< "$variables")" -ge 3 ] || return 1
  for word in $words; do
    grep -qE -- "(^|[ ,])$word([ ,=\[]|\$)" "$page" || { echo "ctl(1): $word"; missing=1; }
    grep -qF -- "${word#--}" "$completion" || { echo "completion: $word"; missing=1; }
  done
  for word in $variables; do
    grep -cF "$word" "$work/cluster_sync_daemon.8.txt" \
      "$repo/packaging/default/cluster_sync_daemon" | grep ':0$' && { echo "$word"; missing=1; }
  done
  return $missing
}

# Texts of level 3 and of answers, as the sources have them: the first literal of each such call.
error_texts_are_explained() {
  local calls='LOG\(3|LOG_NO_DUMP\(3|LOG_PLATFORM_ONLY\(\s*3|FATAL\(|REFUSE\(|end_exchange_error\('
  calls+='|end_exchange_full\(|RECORD_SCAN_FAILURE\(|storage_cfg_set_result\('
  local text count=0 missing=0
  while IFS= read -r text; do
    count=$((count + 1))
    grep -qF -- "$text" "$repo/docs/operations.md" || { echo "$text"; missing=1; }
  done < <(grep -rPzoh "(?s)($calls)[^;\"]*\"\\K[^\"\\n]{4,}(?=\")" "$repo/redundancy_health" |
    tr '\0' '\n' | sort -u)
  [ $count -ge 60 ] && return $missing
}

# The machine in namespaces.

# Says what a systemd in namespaces needs and this machine forbids; nothing when all is there.
missing_ability() {
  local probe=$work/probe
  mkdir "$probe"
  if [ -z "${cgroup%/*}" ] || ! mkdir "$cgroup" || ! sh -c 'echo $$ > "$0/cgroup.procs"' "$cgroup"; then
    echo "a writable cgroup2 hierarchy"
  elif ! unshare -m -p -n -i -u -C --fork sh -c 'mount -n -t proc p "$0" &&
      mount -n -t cgroup2 g "$0"' "$probe"; then
    echo "namespaces with mounts of their own"
  elif ! unshare -m sh -c 'mount -n -t tmpfs t "$0" && mkdir "$0/u" "$0/w" &&
      mount -n -t overlay -o "lowerdir=/,upperdir=$0/u,workdir=$0/w" o "$0"' "$probe"; then
    echo "overlay mounts"
  fi
} 2> /dev/null

# Becomes the first process of the namespaces: a systemd over this machine's files.
boot() {
  local top=$work/top
  mount -n -t tmpfs top "$top" && mkdir "$top"/{upper,work,root} &&
    mount -n -t overlay -o "lowerdir=/,upperdir=$top/upper,workdir=$top/work" root "$top/root" &&
    cd "$top/root" || exit 1
  mount -n -t proc proc proc
  mount -n -t sysfs sys sys
  mount -n -t cgroup2 cgroup2 sys/fs/cgroup
  mount -n --rbind /dev dev
  mount -n -t tmpfs shm dev/shm
  local dir
  for dir in run tmp mnt; do mount -n -t tmpfs -o mode=755 $dir $dir; done
  chmod 1777 tmp
  cp "$work/package.deb" "$work/peer.sh" root/
  cp "$work/corosync.conf" etc/corosync/corosync.conf
  printf '[Unit]\nRequires=basic.target\nAfter=basic.target\n' > etc/systemd/system/package-test.target
  rm -f usr/sbin/policy-rc.d  # which may forbid services on this machine
  ip link set lo up
  pivot_root . mnt
  umount -l /mnt
  mount -n -t tmpfs -o mode=755 mnt /mnt
  exec env -i container=package-test PATH="$PATH" /lib/systemd/systemd --unit=package-test.target
}

inside() { nsenter -t "$init" -m -p -n -i -u -C -r -w -- "$@"; }
check_inside() { check "$1" inside sh -e -c "$2"; }

boot_machine() {
  mkdir "$work/top"
  # The shipped template, with both addresses here and no key.
  { sed -e 's/transport: knet/transport: udpu/; s/crypto_\(.*\): .*/crypto_\1: none/' \
    -e 's/169.254.77.1/127.0.0.1/; s/169.254.77.2/127.0.0.2/' "$repo/packaging/corosync.conf"
    printf 'system {\n  sched_rr: no\n  move_to_root_cgroup: no\n}\n'; } > "$work/corosync.conf"
  # A second daemon on the same Corosync, with state and trees of its own: the active EM 2.
  cat << 'END' > "$work/peer.sh"
mkdir -p /tmp/peer
mount -n -t tmpfs peer /tmp/peer
mkdir -p /tmp/peer/em /tmp/peer/volatile /tmp/peer/mnt/part.persistent
mount -n --bind /tmp/peer/mnt /mnt
mount -n --bind /tmp/peer/em /run/em
mount -n --bind /tmp/peer/volatile /run/replicated_by_active_em
cd /mnt/part.persistent
mkdir replicated_by_active_em replicated_by_this_em replicated_by_other_em
echo 2 > /run/em/number
touch /run/em/active
echo secret > replicated_by_active_em/passwd
head -c 300000 /dev/urandom > replicated_by_active_em/large
exec /usr/sbin/cluster_sync_daemon -x
END
  cp "$deb" "$work/package.deb"
  export -f boot
  export work
  (
    echo "$BASHPID" > "$cgroup/cgroup.procs"
    exec setpriv --pdeathsig KILL unshare -m -p -n -i -u -C --fork --kill-child bash -c boot
  ) > "$work/boot.log" 2>&1 &
  launcher=$!
  wait_until 60 eval 'init=$(pgrep -P $launcher) && grep -q systemd /proc/$init/comm' &&
    wait_until 60 eval 'inside systemctl is-system-running | grep -qE "running|degraded"'
}

# Everything that an installation could leave, without what the machine itself writes.
list_machine() {
  inside find /bin /etc /lib /mnt /root /run /sbin /tmp /usr /var -xdev \( -path /var/log \
    -o -path /var/lib/dpkg -o -path /var/cache -o -path /run/systemd -o -path /run/log \
    -o -path /run/credentials -o -path /var/lib/corosync -o -path '*/systemd-private-*' \) \
    -prune -o -print | sort -u
}

completes() {
  local expected=$1
  shift
  # shellcheck disable=SC2016
  output_is "$expected" inside bash -c '
    . /usr/share/bash-completion/completions/cluster_sync_ctl
    COMP_WORDS=(cluster_sync_ctl "$@") COMP_CWORD=$#
    _cluster_sync_ctl cluster_sync_ctl "${!#}" "${COMP_WORDS[COMP_CWORD - 1]}"
    echo "${COMPREPLY[@]}"' bash "$@"
}

daemon_pid() { inside cat /run/CLUS_SYNC.pid; }
serves_anew() { [ "$(daemon_pid)" != "$1" ] && inside cluster_sync_ctl diag stats; }

# restarts COMMAND...: succeeds when another daemon serves afterwards.
restarts() {
  local before
  before=$(daemon_pid)
  "$@" && wait_until 60 serves_anew "$before"
}

break_and_mend_corosync() {
  inside mv /etc/corosync/corosync.conf /root/
  inside systemctl kill -s KILL corosync
  wait_until 30 inside systemctl is-failed corosync && inside mv /root/corosync.conf /etc/corosync/
}

machine_state() {
  mount
  dpkg -l cluster-sync-daemon
  ls -d /usr/sbin/cluster_sync_daemon /mnt/part.persistent /etc/default/cluster_sync_daemon \
    /etc/systemd/system/package-test.target /run/CLUS_SYNC.pid
} 2>&1

test_installation() {
  list_machine > "$work/before"
  check "it installs" inside dpkg -i /root/package.deb || return 1
  check "what is installed is what was packed" output_is "" inside dpkg --verify cluster-sync-daemon
  check "the directories are made" inside ls -d /run/em/events /run/replicated_by_active_em \
    /mnt/part.persistent/replicated_by_{active,this,other}_em
  check "the unit file is valid" output_is "" \
    inside systemd-analyze verify /lib/systemd/system/cluster_sync_daemon.service
  check "the service waits for the operator" output_is disabled \
    inside systemctl is-enabled cluster_sync_daemon
  check "bash completes a command" completes "verify" ver
  check "bash completes an argument" completes "dump reset" diag stats = ""
  return 0
}

test_service() {
  check "the service starts, and Corosync with it" inside systemctl start cluster_sync_daemon
  check "a second instance is refused" fails inside cluster_sync_daemon
  check "alone, the status is a failure" fails inside cluster_sync_ctl status
  check_inside "the hook for known files is installed" 'cluster_sync_ctl diag log-size=1000000
    mkdir -p /etc/em
    cp /usr/share/doc/cluster-sync-daemon/examples/use_replicated_data /etc/em/
    cp /usr/share/doc/cluster-sync-daemon/examples/*@.service /etc/systemd/system/
    printf "#!/bin/sh\necho \$1 > /etc/em/received\n" > /usr/local/sbin/use-replicated-data
    chmod 755 /usr/local/sbin/use-replicated-data
    systemctl daemon-reload'
  inside systemd-run -q --collect --unit=peer -p PrivateMounts=yes sh /root/peer.sh
  check "an active peer joins" wait_until 20 inside cluster_sync_ctl status
  check "  and its files arrive" \
    wait_until 20 inside test -s /mnt/part.persistent/replicated_by_active_em/passwd
  check "the hook for known files has run" wait_until 10 inside grep -qx 12 /etc/em/received
  check_inside "a published file reaches the peer" 'cd /mnt/part.persistent
    echo own > TempUpdate_own
    cluster_sync_ctl update $PWD/TempUpdate_own $PWD/replicated_by_this_em/own
    cmp replicated_by_this_em/own \
      /proc/$(systemctl show -P MainPID peer)/root/$PWD/replicated_by_other_em/own'
  check "a full exchange succeeds" inside cluster_sync_ctl sync
  check_inside "both hold the same" '
    nsenter -t $(systemctl show -P MainPID peer) -m cluster_sync_ctl verify --list |
      cluster_sync_ctl verify --against -'
  # With the file system as the running service sees it.
  check "nothing but trees, /run and /tmp can be written" \
    inside nsenter -t "$(daemon_pid)" -m -- sh -e -c '
      for path in /etc/x /usr/bin/x /var/lib/x /home/x /root/x; do ! touch $path || exit 1; done
      cd /mnt/part.persistent
      touch /tmp/x /run/em/x x
      mv -T x replicated_by_this_em/x
      rm /tmp/x /run/em/x replicated_by_this_em/x'
  check_inside "the cleanup script removes old temporary files alone" '
    cd /mnt/part.persistent/replicated_by_this_em
    touch -d "2 hours ago" TempUpdate_old
    touch TempUpdate_new
    clean_up_temp_files.py
    test ! -e TempUpdate_old
    rm TempUpdate_new'
  inside systemctl stop peer
  check "killed, Corosync and daemon come back, even after a failed start" \
    restarts break_and_mend_corosync
  inside sh -c 'echo BREL_LOG_LEVEL=7 >> /etc/default/cluster_sync_daemon'
  check "an upgrade restarts it" restarts inside dpkg -i /root/package.deb
  check_inside "  and keeps the configuration" 'cluster_sync_ctl diag log-size=1000000
    grep -qx BREL_LOG_LEVEL=7 /etc/default/cluster_sync_daemon'
  check_inside "the service stops in order" 'systemctl stop cluster_sync_daemon
    journalctl -q -n 3 -u cluster_sync_daemon | grep "Exiting cluster_sync_daemon$"
    ! systemctl is-failed cluster_sync_daemon'
  check_inside "traces of use are there" 'systemctl start cluster_sync_daemon
    cluster_sync_ctl role active
    test -s /tmp/cluster_sync_daemon.log
    echo moved > /tmp/cluster_sync_daemon.log.0
    test -s "/mnt/part.persistent/replicated_by_active_em/.\$SyncDigest\$large"'
  check_inside "it is removed, without data and configuration" 'dpkg -r cluster-sync-daemon
    test -s /mnt/part.persistent/replicated_by_active_em/passwd -a ! -e /run/CLUS_SYNC.pid \
      -a -e /etc/default/cluster_sync_daemon -a ! -e /usr/sbin/cluster_sync_daemon'
  check_inside "it is purged" 'systemctl stop corosync
    rm -r /etc/em /etc/systemd/system/use-replicated-data@.service /tmp/peer \
      /usr/local/sbin/use-replicated-data
    dpkg -P cluster-sync-daemon'
  check "  and nothing but the data is left" output_is "$(printf '/mnt/part.persistent%s\n' '' \
    /replicated_by_active_em{,/large,/passwd} /replicated_by_this_em{,/own})" \
    comm -13 "$work/before" <(list_machine)
}

trap clean_up EXIT
machine_state > "$work/machine"
check "lintian finds no error and no warning" output_is "" \
  lintian --allow-root --tag-display-limit 0 --fail-on error,warning --display-level '>=warning' "$deb"
check "the package holds what it should, with these modes" output_is "$expected_content" list_content
check "the manual pages render without a warning" man_pages_render
check "manual pages and completion know every command, option and variable" \
  documents_cover_the_programs
check "the operator's table explains every error text" error_texts_are_explained
missing=$(missing_ability)
if [ -n "$missing" ]; then
  echo "skipped: installation and service, because this machine forbids $missing"
elif check "a systemd boots in namespaces" boot_machine; then
  test_installation && test_service
else
  cat "$work/boot.log"
fi
check "this machine is as it was" output_is "$(cat "$work/machine")" machine_state
echo "$passed passed, $failed failed"
[ $failed = 0 ]
