#!/bin/bash
# Tests the Debian package for real: builds it, then boots a systemd of its own in namespaces over a
# copy-on-write view of this machine, installs the package there, runs the service and a peer of it
# on a Corosync, breaks and mends things, and purges. Nothing of this machine changes.
#
#   packaging/test_package.sh [PACKAGE]     with PACKAGE nothing is built
#
# Needs root, and what package.sh needs; installs lintian and corosync when they are missing. Prints
# "N passed, N failed" at the end; the status is 0 when nothing failed.
# Single quotes hold what a shell elsewhere is to expand.
# shellcheck disable=SC2016
set -uo pipefail
export LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive
repo=$(dirname "$(dirname "$(readlink -f "$0")")")
work=$(mktemp -d)
cgroup=
launcher=
init=
passed=0
failed=0

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
  else
    echo "FAIL  $text"
    sed 's/^/      /' "$work/output" | tail -n 40
    failed=$((failed + 1))
    return 1
  fi
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

fails() {
  ! "$@"
}

# The package as a file.

no_lintian_tags() {
  local tags
  tags=$(lintian --allow-root --tag-display-limit 0 "$deb" 2>&1 | grep -E '^[EW]:') || return 0
  echo "$tags"
  return 1
}

list_content() {
  dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $1, substr($6, 2)}' | sort -k 2
}

expected_content='-rw-r--r-- /etc/default/cluster_sync_daemon
-rw-r--r-- /lib/systemd/system/cluster_sync_daemon.service
-rwxr-xr-x /usr/bin/clean_up_temp_files.py
-rwxr-xr-x /usr/bin/cluster_sync_ctl
-rw-r--r-- /usr/lib/tmpfiles.d/cluster-sync-daemon.conf
-rwxr-xr-x /usr/sbin/cluster_sync_daemon
-rw-r--r-- /usr/share/bash-completion/completions/cluster_sync_ctl
-rw-r--r-- /usr/share/doc/cluster-sync-daemon/README.md
-rw-r--r-- /usr/share/doc/cluster-sync-daemon/architecture.md
-rw-r--r-- /usr/share/doc/cluster-sync-daemon/changelog.gz
-rw-r--r-- /usr/share/doc/cluster-sync-daemon/copyright
-rw-r--r-- /usr/share/doc/cluster-sync-daemon/examples/corosync.conf
-rw-r--r-- /usr/share/doc/cluster-sync-daemon/examples/em-number.conf
-rw-r--r-- /usr/share/doc/cluster-sync-daemon/examples/use-replicated-data@.service
-rwxr-xr-x /usr/share/doc/cluster-sync-daemon/examples/use_replicated_data
-rw-r--r-- /usr/share/doc/cluster-sync-daemon/operations.md
-rw-r--r-- /usr/share/lintian/overrides/cluster-sync-daemon
-rw-r--r-- /usr/share/man/man1/clean_up_temp_files.py.1.gz
-rw-r--r-- /usr/share/man/man1/cluster_sync_ctl.1.gz
-rw-r--r-- /usr/share/man/man8/cluster_sync_daemon.8.gz'

man_pages_render() {
  local page warnings
  for page in "$repo"/packaging/man/*.[18]; do
    warnings=$(man --warnings -E ascii -l "$page" 2>&1 > "$work/$(basename "$page").txt") || return 1
    [ -z "$warnings" ] || { echo "$page: $warnings"; return 1; }
    [ "$(wc -l < "$work/$(basename "$page").txt")" -gt 15 ] || return 1
  done
}

# The sources say which commands, options and variables there are.
documents_cover_the_programs() {
  local word missing=0
  local page=$work/cluster_sync_ctl.1.txt completion=$repo/packaging/bash-completion/cluster_sync_ctl
  local diagnostics options variables
  diagnostics=$(sed -nE 's/^ +\{"([a-z-]+)", (true|false), run_.*/\1/p' \
    "$repo/redundancy_health/rpc/diagnostics.cc")
  options=$(grep -ohE '\{"[a-z]+", (no|required)_argument' "$repo"/tools/cluster_sync_ctl.cc |
    sed -E 's/\{"([a-z]+)".*/--\1/')
  variables=$(grep -ohE '(getenv|delay_seconds)\("[A-Z_]+"' -r "$repo/platform" \
    "$repo/redundancy_health" | sed -E 's/.*"(.*)"/\1/')
  [ "$(wc -w <<< "$diagnostics")" -ge 14 ] && [ "$(wc -w <<< "$options")" -ge 6 ] &&
    [ "$(wc -w <<< "$variables")" -ge 3 ] || return 1
  for word in $diagnostics $options; do
    grep -qE -- "(^|[ ,])$word([ ,=\[]|\$)" "$page" || { echo "ctl(1): $word"; missing=1; }
    grep -qF -- "${word#--}" "$completion" || { echo "completion: $word"; missing=1; }
  done
  for word in $variables; do
    grep -qF "$word" "$work/cluster_sync_daemon.8.txt" || { echo "daemon(8): $word"; missing=1; }
    grep -qF "$word" "$repo/packaging/default/cluster_sync_daemon" || missing=1
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

inside() {
  nsenter -t "$init" -m -p -n -i -u -C -r -w -- "$@"
}

# The shipped template, with both addresses here and no key.
write_corosync_conf() {
  sed -e 's/transport: knet/transport: udpu/; s/crypto_\(.*\): .*/crypto_\1: none/' \
    -e 's/169.254.77.1/127.0.0.1/; s/169.254.77.2/127.0.0.2/' "$repo/packaging/corosync.conf"
  printf 'system {\n  sched_rr: no\n  move_to_root_cgroup: no\n}\n'
}

# A second daemon on the same Corosync, with state and trees of its own: the active EM 2.
write_peer_script() {
  cat << 'END'
mkdir -p /tmp/peer
mount -n -t tmpfs peer /tmp/peer
mkdir -p /tmp/peer/em /tmp/peer/volatile /tmp/peer/mnt/part.persistent
for tree in active this other; do mkdir /tmp/peer/mnt/part.persistent/replicated_by_${tree}_em; done
mount -n --bind /tmp/peer/mnt /mnt
mount -n --bind /tmp/peer/em /run/em
mount -n --bind /tmp/peer/volatile /run/replicated_by_active_em
echo 2 > /run/em/number
touch /run/em/active
echo secret > /mnt/part.persistent/replicated_by_active_em/passwd
head -c 300000 /dev/urandom > /mnt/part.persistent/replicated_by_active_em/large
exec /usr/sbin/cluster_sync_daemon -x
END
}

boot_machine() {
  local groups
  groups=$(findmnt -n -t cgroup2 -o TARGET | head -n 1)
  cgroup=$groups/package-test.$$
  mkdir "$work/top" && mkdir "$cgroup" || return 1
  write_corosync_conf > "$work/corosync.conf"
  write_peer_script > "$work/peer.sh"
  cp "$deb" "$work/package.deb"
  export -f boot
  export work
  (
    echo "$BASHPID" > "$cgroup/cgroup.procs"
    exec unshare -m -p -n -i -u -C --fork --kill-child bash -c boot
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

directories_are_made() {
  inside test -d /mnt/part.persistent/replicated_by_active_em \
    -a -d /mnt/part.persistent/replicated_by_this_em \
    -a -d /mnt/part.persistent/replicated_by_other_em \
    -a -d /run/em/events -a -d /run/replicated_by_active_em
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

daemon_pid() {
  inside cat /run/CLUS_SYNC.pid
}

# Runs a command with the file system as the running service sees it.
as_service() {
  inside nsenter -t "$(daemon_pid)" -m -- "$@"
}

service_is_confined() {
  local path
  for path in /etc/x /usr/bin/x /var/lib/x /home/x /root/x; do
    ! as_service touch $path || return 1
  done
  as_service touch /tmp/x /run/em/x /mnt/part.persistent/x &&
    as_service mv -T /mnt/part.persistent/x /mnt/part.persistent/replicated_by_this_em/x &&
    as_service rm /tmp/x /run/em/x /mnt/part.persistent/replicated_by_this_em/x
}

start_peer() {
  inside systemd-run -q --collect --unit=peer -p PrivateMounts=yes sh /root/peer.sh
  wait_until 20 inside cluster_sync_ctl status &&
    wait_until 20 inside test -s /mnt/part.persistent/replicated_by_active_em/passwd
}

install_hook() {
  inside sh -e << 'END'
examples=/usr/share/doc/cluster-sync-daemon/examples
mkdir -p /etc/em
cp $examples/use_replicated_data /etc/em/
cp $examples/use-replicated-data@.service /etc/systemd/system/
printf '#!/bin/sh\necho "$1" > /etc/em/received\n' > /usr/local/sbin/use-replicated-data
chmod 755 /usr/local/sbin/use-replicated-data
systemctl daemon-reload
END
}

publish_a_file() {
  inside sh -c 'echo own > /mnt/part.persistent/TempUpdate_own
    cluster_sync_ctl update /mnt/part.persistent/TempUpdate_own \
      /mnt/part.persistent/replicated_by_this_em/own' &&
    inside sh -c 'cmp /mnt/part.persistent/replicated_by_this_em/own \
      /proc/$(systemctl show -P MainPID peer)/root/mnt/part.persistent/replicated_by_other_em/own'
}

both_hold_the_same() {
  inside sh -c 'nsenter -t $(systemctl show -P MainPID peer) -m cluster_sync_ctl verify --list |
    cluster_sync_ctl verify --against -'
}

cleans_up_old_files() {
  inside sh -c 'touch -d "2 hours ago" /mnt/part.persistent/replicated_by_this_em/TempUpdate_old
    touch /mnt/part.persistent/replicated_by_this_em/TempUpdate_new
    clean_up_temp_files.py &&
    test ! -e /mnt/part.persistent/replicated_by_this_em/TempUpdate_old &&
    rm /mnt/part.persistent/replicated_by_this_em/TempUpdate_new'
}

# Kills Corosync while its configuration is broken; both must be back after the repair.
survives_corosync() {
  local before
  before=$(daemon_pid)
  inside mv /etc/corosync/corosync.conf /root/
  inside systemctl kill -s KILL corosync
  wait_until 30 inside systemctl is-failed corosync || return 1
  inside mv /root/corosync.conf /etc/corosync/
  wait_until 60 eval 'inside systemctl is-active corosync &&
    inside systemctl is-active cluster_sync_daemon &&
    [ "$(daemon_pid)" != "'"$before"'" ] && inside cluster_sync_ctl diag stats'
}

upgrade_restarts() {
  local before
  before=$(daemon_pid)
  inside sh -c 'echo BREL_LOG_LEVEL=7 >> /etc/default/cluster_sync_daemon'
  inside dpkg -i /root/package.deb && [ "$(daemon_pid)" != "$before" ] &&
    inside cluster_sync_ctl diag stats && inside cluster_sync_ctl diag log-size=1000000 &&
    inside grep -qx BREL_LOG_LEVEL=7 /etc/default/cluster_sync_daemon
}

stops_in_order() {
  inside systemctl stop cluster_sync_daemon &&
    inside journalctl -q -n 3 -u cluster_sync_daemon | grep 'Exiting cluster_sync_daemon$' &&
    ! inside systemctl is-failed cluster_sync_daemon
}

stays_installed_data() {
  inside test -s /mnt/part.persistent/replicated_by_active_em/passwd -a ! -e /run/CLUS_SYNC.pid \
    -a -e /etc/default/cluster_sync_daemon -a ! -e /usr/sbin/cluster_sync_daemon
}

traces_of_use() {
  inside sh -e -c 'cluster_sync_ctl role active
    test -s /tmp/cluster_sync_daemon.log
    echo moved > /tmp/cluster_sync_daemon.log.0
    test -s "/mnt/part.persistent/replicated_by_active_em/.\$SyncDigest\$large"'
}

leaves_only_data() {
  output_is '/mnt/part.persistent
/mnt/part.persistent/replicated_by_active_em
/mnt/part.persistent/replicated_by_active_em/large
/mnt/part.persistent/replicated_by_active_em/passwd
/mnt/part.persistent/replicated_by_this_em
/mnt/part.persistent/replicated_by_this_em/own' \
    comm -13 "$work/before" <(list_machine)
}

machine_state() {
  mount
  dpkg -l cluster-sync-daemon
  ls -d /usr/sbin/cluster_sync_daemon /mnt/part.persistent /etc/default/cluster_sync_daemon \
    /etc/systemd/system/package-test.target /run/CLUS_SYNC.pid
} 2>&1

install_tools() {
  local missing=()
  local tool
  for tool in lintian corosync man-db; do
    dpkg -s $tool 2> /dev/null | grep -q '^Status: install ok installed' || missing+=("$tool")
  done
  [ ${#missing[@]} = 0 ] ||
    { apt-get update && apt-get install -y --no-install-recommends "${missing[@]}"; }
}

test_file() {
  check "lintian finds no error and no warning" no_lintian_tags
  check "the package holds what it should, with these modes" output_is "$expected_content" list_content
  check "the manual pages render without a warning" man_pages_render
  check "manual pages and completion know every command, option and variable" \
    documents_cover_the_programs
  check "the operator's table explains every error text" error_texts_are_explained
}

test_installation() {
  list_machine > "$work/before"
  check "it installs" inside dpkg -i /root/package.deb || return
  check "what is installed is what was packed" output_is "" inside dpkg --verify cluster-sync-daemon
  check "the directories are made" directories_are_made
  check "the unit file is valid" output_is "" \
    inside systemd-analyze verify /lib/systemd/system/cluster_sync_daemon.service
  check "the service waits for the operator" output_is disabled \
    inside systemctl is-enabled cluster_sync_daemon
  check "bash completes a command" completes "verify" ver
  check "bash completes an argument" completes "dump reset" diag stats = ""
  check "bash completes an option of verify" completes "--list" verify --l
}

test_service() {
  check "the service starts, and Corosync with it" inside systemctl start cluster_sync_daemon
  check "a second instance is refused" fails inside cluster_sync_daemon
  check "alone, the status is a failure" fails inside cluster_sync_ctl status
  inside cluster_sync_ctl diag log-size=1000000 > /dev/null
  install_hook
  check "an active peer joins and its files arrive" start_peer
  check "the hook for known files has run" wait_until 10 inside grep -qx 12 /etc/em/received
  check "a published file reaches the peer" publish_a_file
  check "a full exchange succeeds" inside cluster_sync_ctl sync
  check "both hold the same" both_hold_the_same
  check "nothing but trees, /run and /tmp can be written" service_is_confined
  check "the cleanup script removes old temporary files alone" cleans_up_old_files
  inside systemctl stop peer
  check "killed, Corosync and daemon come back, even after a failed start" survives_corosync
  check "an upgrade restarts it" upgrade_restarts
  check "the service stops in order" stops_in_order
  inside systemctl start cluster_sync_daemon
}

test_purge() {
  check "traces of use are there" traces_of_use
  check "it is removed" inside dpkg -r cluster-sync-daemon
  check "  with service and programs, without data and configuration" stays_installed_data
  inside systemctl stop corosync
  inside rm -r /etc/em /etc/systemd/system/use-replicated-data@.service /tmp/peer \
    /usr/local/sbin/use-replicated-data
  check "it is purged" inside dpkg -P cluster-sync-daemon
  check "  and nothing but the data is left" leaves_only_data
}

trap clean_up EXIT
[ "$(id -u)" = 0 ] || { echo "needs root" >&2; exit 1; }
machine_state > "$work/machine"
check "the tools are there" install_tools
deb=${1:-}
if [ -z "$deb" ]; then
  check "the package builds" "$repo/packaging/package.sh" "$work" &&
    deb=$(ls "$work"/cluster-sync-daemon_*.deb)
fi
if [ -n "$deb" ]; then
  test_file
  if check "a systemd boots in namespaces" boot_machine; then
    test_installation
    test_service
    test_purge
  else
    cat "$work/boot.log"
  fi
fi
check "this machine is as it was" output_is "$(cat "$work/machine")" machine_state
echo "$passed passed, $failed failed"
[ $failed = 0 ]
