#!/bin/bash
# test_package.sh [--arm | --before DIRECTORY] PACKAGE...
#
# Boots a second systemd in namespaces, over a copy-on-write view of this machine. Installs the packages there,
# runs the service on a Corosync, breaks and repairs things, and purges the packages. This machine does not
# change. If it does not allow such namespaces, only the packages' files are checked. Needs root, lintian,
# corosync, man-db, pkgconf and a C compiler.
#   --arm               use a Debian for armhf in an emulator, created once in build-arm/root; needs
#                       debootstrap and qemu-user-static
#   --before DIRECTORY  also test an upgrade from the previous release, whose packages are there
# The variable PROMTOOL has the path of promtool. The last line is "N passed, N failed"; the exit status is 0 if
# nothing failed.
# shellcheck disable=SC2016  # a shell elsewhere expands what is in single quotes
set -uo pipefail
export LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive
repo=$(dirname "$(dirname "$(readlink -f "$0")")")
root=/
before=''
if [ "${1:-}" = --arm ]; then
  shift
  root=$repo/build-arm/root
elif [ "${1:-}" = --before ]; then
  before=$2
  shift 2
fi
mapfile -t debs < <(realpath -e "$@")
[ ${#debs[@]} = $# ] || exit 2
mapfile -t packages < <(for deb in "${debs[@]}"; do dpkg-deb -f "$deb" Package; done)
work=$(mktemp -d)
cgroup=$(findmnt -n -t cgroup2 -o TARGET | head -n 1)/package-test.$$
launcher='' init='' passed=0 failed=0

clean_up() {
  # When the launcher ends, the kernel ends all processes in its namespaces.
  if [ -n "$launcher" ]; then
    kill -KILL "$launcher"
    wait "$launcher" 2> /dev/null
  fi
  if [ -d "$cgroup" ]; then
    wait_until 10 eval 'test -z "$(find "$cgroup" -name cgroup.procs -exec cat {} +)"'
    find "$cgroup" -depth -type d -exec rmdir {} +
  fi
  rm -rf "$work"
}

# check TEXT COMMAND...: runs and counts a check. Shows the output of a command that fails.
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

# Lists the files that the packages install outside /usr/share, with a star after each program.
list_content() {
  for deb in "${debs[@]}"; do dpkg-deb -c "$deb"; done | awk '
    BEGIN { mark["-rw-r--r--"] = ""; mark["-rwxr-xr-x"] = "*" }
    $1 !~ /^d/ && $6 !~ /^.\/usr\/share/ { print substr($6, 2) ($1 in mark ? mark[$1] : " " $1) }' | sort
}

architecture=$(dpkg-deb -f "${debs[0]}" Architecture)
library=/usr/lib/$(dpkg-architecture -a "$architecture" -q DEB_HOST_MULTIARCH 2> /dev/null)/libcluster-sync.so
expected_content="/etc/default/cluster_sync_daemon
/etc/init.d/cluster_sync_daemon*
/lib/systemd/system/cluster_sync_daemon.service
/lib/systemd/system/cluster_sync_metrics.service
/lib/systemd/system/cluster_sync_metrics.timer
/usr/bin/clean_up_temp_files.py*
/usr/bin/cluster_sync_ctl*
/usr/include/cluster_sync.h
/usr/lib/python3/dist-packages/cluster_sync/__init__.py
/usr/lib/python3/dist-packages/cluster_sync/py.typed
/usr/lib/ocf/resource.d/cluster_sync/role*
/usr/lib/tmpfiles.d/cluster-sync-daemon.conf
$library lrwxrwxrwx
$library.1 lrwxrwxrwx
$library.1.1.0
${library%/*}/pkgconfig/cluster-sync.pc
/usr/libexec/cluster_sync_role*
/usr/sbin/cluster_sync_daemon*"

# Whether a systemd can run in namespaces on this machine.
namespaces_work() {
  mkdir "$work/probe" "$cgroup" && [ -e "$cgroup/cgroup.procs" ] &&
    sh -c 'echo $$ > "$0/cgroup.procs"' "$cgroup" &&
    unshare -m -p -n -i -u -C --fork sh -e -c '
      mount -n -t proc p "$0"
      mount -n -t cgroup2 g "$0"
      mount -n -t tmpfs t "$0"
      mkdir "$0/u" "$0/w"
      mount -n -t overlay -o "lowerdir=/,upperdir=$0/u,workdir=$0/w" o "$0"' "$work/probe"
}

# emulate_arm DIRECTORY: mounts binfmt_misc there. While it is mounted, the kernel runs programs for 32-bit ARM
# (machine 40 in their ELF header) in the emulator.
emulate_arm() {
  mount -n -t binfmt_misc binfmt "$1" &&
    { [ -e "$1/package-test" ] ||
      printf %s ':package-test:M:18:\x28\x00::/usr/bin/qemu-arm-static:F' > "$1/register"; }
}

make_arm_root() {
  local content=corosync,g++,inotify-tools,libc6-dev,pkgconf,python3,systemd
  [ ! -d "$root" ] || return 0
  rm -rf "$root.new"
  debootstrap --foreign --arch armhf --variant minbase --include $content \
    "$(sed -n 's/^VERSION_CODENAME=//p' /etc/os-release)" "$root.new" &&
    echo force-unsafe-io > "$root.new/etc/dpkg/dpkg.cfg.d/throw-away" &&
    unshare -m bash -c "$(declare -f emulate_arm)"'
      emulate_arm "$1" && chroot "$0" /debootstrap/debootstrap --second-stage' \
      "$root.new" "$work/probe" &&
    mv "$root.new" "$root"
}

# Runs as the first process of the namespaces, prepares their mounts, and becomes systemd.
boot() {
  local top=$work/top
  mount -n -t tmpfs top "$top" && mkdir "$top"/{upper,work,root} &&
    mount -n -t overlay -o "lowerdir=$root,upperdir=$top/upper,workdir=$top/work" root "$top/root" &&
    cd "$top/root" || exit 1
  mount -n -t proc proc proc
  [ "$root" = / ] || emulate_arm srv  # systemd manages the usual place itself
  mount -n -t sysfs sys sys
  mount -n -t cgroup2 cgroup2 sys/fs/cgroup
  mount -n --rbind /dev dev
  mount -n -t tmpfs shm dev/shm
  mount -n --bind "$top" media  # shows what was written to the overlay
  # etc/corosync, too, because a 32-bit readdir in the emulator fails on an overlay.
  for dir in run tmp mnt etc/corosync; do mount -n -t tmpfs -o mode=755 $dir $dir; done
  chmod 1777 tmp
  mkdir root/packages
  cp "$work"/*.deb root/packages
  cp -r "$work/programs" "$work/previous" root/
  cp "$work"/{corosync.conf,authkey} etc/corosync/
  printf '[Unit]\nRequires=basic.target\nAfter=basic.target\n' > etc/systemd/system/package-test.target
  rm -f usr/sbin/policy-rc.d  # it may prevent services from starting
  ip link set lo up
  ip link add em1 type veth peer name em2
  ip addr add 169.254.77.1/24 dev em1
  ip link set em1 up
  ip link set em2 up
  pivot_root . mnt
  umount -l /mnt
  mount -n -t tmpfs -o mode=755 mnt /mnt
  exec env -i container=package-test PATH="$PATH" /lib/systemd/systemd --unit=package-test.target
}

inside() { nsenter -t "$init" -m -p -n -i -u -C -r -w -- "$@"; }
check_inside() { check "$1" inside sh -e -c "$2"; }

boot_machine() {
  mkdir "$work/top"
  # The shipped template, which has the addresses of the link.
  head -c 256 /dev/urandom > "$work/authkey"
  { cat "$repo/packaging/corosync.conf"
    printf 'system {\n  sched_rr: no\n  move_to_root_cgroup: no\n}\n'; } > "$work/corosync.conf"
  cp "${debs[@]}" "$work"
  mkdir "$work/previous"
  [ -z "$before" ] || cp "$before"/*.deb "$work/previous"
  cp -r "$repo/packaging/programs" "$work"
  export -f boot emulate_arm
  export root work
  (
    echo "$BASHPID" > "$cgroup/cgroup.procs"
    exec setpriv --pdeathsig KILL unshare -m -p -n -i -u -C --fork --kill-child bash -c boot
  ) > "$work/boot.log" 2>&1 &
  launcher=$!
  wait_until 60 eval 'init=$(pgrep -P $launcher) && grep -q systemd /proc/$init/comm' &&
    wait_until 60 eval '[[ $(inside systemctl is-system-running) =~ running|degraded ]]'
}

# Runs EM 2 at the other end of the link until it is killed.
other_em() {
  for dir in /run /dev/shm /mnt /var/lib/corosync; do mount -n -t tmpfs $dir $dir; done
  mkdir -p /run/em /run/replicated_by_active_em \
    /mnt/part.persistent/replicated_by_{active,this,other}_em
  echo 2 > /run/em/number
  until ip link show em2; do sleep 0.1; done
  ip addr add 169.254.77.2/24 dev em2
  ip link set lo up
  ip link set em2 up
  corosync -f &
  until corosync-cpgtool; do sleep 0.2; done
  exec cluster_sync_daemon -x
}

on_other_em() { inside sh -c 'nsenter -t "$(cat /run/other_em)" -m -n -i -u -- "$@"' - "$@"; }
with_other_em() {
  inside bash -c "$(declare -f other_em)
    export -f other_em"'
    unshare -m -n -i -u -p --fork --kill-child --mount-proc bash -c other_em > /run/other_em.log 2>&1 &
    echo $! > /run/other_em
    until [ "$(readlink /proc/$!/ns/net)" != "$(readlink /proc/self/ns/net)" ]; do sleep 0.1; done
    ip link set em2 netns $!'
  wait_until 60 inside sh -c 'cluster_sync_ctl sync | grep -q "synchronised with"' || { inside cat /run/other_em.log; return 1; }
}

# Lists what an installation may have left: the files that are new in the overlay or in memory, without those that
# the machine itself writes, and without directories that were there before.
list_machine() {
  inside find /media/upper /mnt /run /tmp -xdev \( -path '*/var/log' -o -path '*/var/lib/dpkg' -o -path '*/var/lib/apt' \
    -o -path '*/var/lib/PackageKit' -o -path '*/var/lib/systemd' \
    -o -path '*/var/cache' -o -path '*/etc/ld.so.cache' -o -path '/run/systemd' -o -path /run/log -o -path /run/credentials \
    -o -path '*/var/lib/corosync' -o -path '*/systemd-private-*' -o -type c \) -prune -o -print |
    while IFS= read -r path; do
      [ -d "$root${path#/media/upper}/" ] && [ "$path" != "${path#/media}" ] || echo "$path"
    done | sort -u
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

# The line of the manual that installs the packages.
install_line=$(sed -n 's/^[0-9]. `\(apt-get install [^`]*\)`.*/\1/p' "$repo/docs/operations.md")

# Upgrades the previous release while requests wait for an EM that is frozen. Each request gets an answer or loses
# its connection. Afterwards both EMs have its change, or neither has.
upgrade_previous_release() {
  inside env install="$install_line -y" bash -e -c '
    trees=/mnt/part.persistent; file=$trees/replicated_by_active_em/file
    dpkg -i /root/previous/*.deb
    systemctl start corosync cluster_sync_daemon
    cluster_sync_ctl role active
    unshare -m bash -e -c "mount -t tmpfs run /run; mount -t tmpfs mnt $trees
      mkdir -p $trees/replicated_by_{active,this,other}_em /run/replicated_by_active_em /run/em/events
      echo 2 > /run/em/number; while :; do cluster_sync_daemon -x || sleep 1; done" > /dev/null 2>&1 & peer=$!
    timeout 60 sh -c "until echo 0 | cluster_sync_ctl put - $file | grep \"remote_ok: *yes\"; do sleep 1; done"
    mkdir /root/client
    cp -L /usr/bin/cluster_sync_ctl /usr/lib/*/libcluster-sync.so.? /root/client
    frozen=$(pgrep -P $peer)
    kill -STOP $frozen
    for ((n = 1; ; ++n)); do
      status=0
      LD_LIBRARY_PATH=/root/client /root/client/cluster_sync_ctl put - $file <<< $n || status=$?
      echo "$n $status" >> /tmp/requests
    done & requests=$!
    daemon=$(cat /run/CLUS_SYNC.pid)
    sleep 1
    (cd /root/packages; $install)
    [ "$(cat /run/CLUS_SYNC.pid)" != $daemon ]
    cluster_sync_ctl status | grep "version $(dpkg-query -f \${Version} -W cluster-sync-daemon)"
    kill $requests
    wait $requests || true
    kill -CONT $frozen  # its daemon may exit now, as after every hang
    cat /tmp/requests
    grep -q " 3$" /tmp/requests  # one was cut; the only other answer is a failure of the other EM
    ! grep -v " [13]$" /tmp/requests
    told=$(sed -n "s/ 1$//p" /tmp/requests | tail -n 1)
    timeout 60 sh -c "until cluster_sync_ctl sync | grep \"synchronised with\"; do sleep 1; done"
    [ "$(cat $file)" -ge "${told:-0}" ]
    nsenter -t $peer -m cat $file | cmp - $file
    ! ls $trees/*/TempUpdate_*
    kill -KILL $peer $(pgrep -P $peer)
    systemctl stop cluster_sync_daemon corosync
    dpkg -P '"${packages[*]}"' $(cd /root/previous; ls | cut -d_ -f1)
    rm -r $file /tmp/requests /root/client'
}

machine_state() {
  mount
  dpkg -l "${packages[@]}"
  ls -d {/usr/sbin,/etc/default}/cluster_sync_daemon /mnt/part.persistent /run/CLUS_SYNC.pid
} 2>&1

# Tests the examples for programs that use a replicated file. A reload records the number in the file. Change N
# was seen if a number recorded is N or more.
watch_for_changes() {
  inside env changes="$([ "$root" = / ] && echo 1000 || echo 100)" bash -e -c '
    cd /usr/share/doc/cluster-sync-daemon/examples
    trees=/mnt/part.persistent; shared=$trees/replicated_by_active_em; own=$trees/replicated_by_this_em
    install reload_on_change watch_replicated /usr/local/sbin
    printf "#!/bin/sh\ncat $shared/app.conf >> /run/seen.\$1\n" > /usr/local/sbin/reload
    chmod 755 /usr/local/sbin/reload
    cp ./*-on-change.* /etc/systemd/system
    sed -i "s|systemctl try.*|reload path|" /etc/systemd/system/reload-on-change.service
    systemctl daemon-reload
    systemctl start {reload,sync}-on-change.path
    systemd-run --quiet --unit watch watch_replicated $shared sh -c "case \$1 in *app.conf) reload inotify; esac" -
    touch $own/app.db
    sleep 1
    seen() { [ "$(tail -qn 1 /run/seen.path /run/seen.inotify | sort -n | head -n 1)" -ge "$1" ]; }
    for ((n = 1; n <= changes; ++n)); do
      if ((n % 2)); then  # as a whole, and in place
        echo $n | cluster_sync_ctl put - $shared/app.conf > /dev/null
      else
        echo $n > $shared/app.conf
      fi
      if ((n % 25 == 0)); then
        timeout 20 bash -c "$(declare -f seen); until seen $n 2> /dev/null; do sleep 0.1; done" ||
          { tail -n 3 /run/seen.*; exit 1; }
      fi
    done
    wc -l /run/seen.*
    sort -nc /run/seen.path
    for n in 1 2 3; do
      echo $n > $own/app.db
      timeout 20 sh -c "until [ \$(journalctl -q -u sync-on-change | grep -c exchanged) -ge $n ]; do sleep 0.1; done"
    done
    systemctl stop watch {reload,sync}-on-change.path
    sleep 3  # the services check once more after each change
    rm /usr/local/sbin/* /etc/systemd/system/*-on-change.* /run/seen.* /run/*-on-change.service.seen
    rm $shared/app.conf $own/app.db'
}

# The emulator cannot set up the loopback device of a new network namespace.
without_private_network='mkdir -p /run/systemd/system/cluster_sync_metrics.service.d
  printf "[Service]\nPrivateNetwork=no\n" > /run/systemd/system/cluster_sync_metrics.service.d/network.conf
  systemctl daemon-reload'

test_machine() {
  list_machine > "$work/before"
  check_inside "it installs as the manual says, and waits for the operator" 'cd /root/packages
    '"$install_line"' -y
    dpkg -i ./*.deb
    cd /mnt/part.persistent
    ls -d replicated_by_active_em replicated_by_this_em replicated_by_other_em /run/em/events
    ! systemctl is-enabled cluster_sync_daemon' || return
  check "the service starts, and Corosync with it" inside systemctl start cluster_sync_daemon
  [ "$root" != / ] || check_inside "ocf-tester finds no error in the agent" 'ocf-tester -n role /usr/lib/ocf/resource.d/cluster_sync/role'
  check_inside "a second instance is refused" '! cluster_sync_daemon'
  check_inside "a file is published" 'cluster_sync_ctl role active
    cd /mnt/part.persistent
    echo own > TempUpdate_own
    cluster_sync_ctl update $PWD/TempUpdate_own $PWD/replicated_by_active_em/own
    test -s replicated_by_active_em/own -a ! -e TempUpdate_own'
  check_inside "the example publishes" 'cd /mnt/part.persistent
    cc -std=c99 -Wall -Wextra -Wpedantic -Werror -o /root/example \
      /usr/share/doc/libcluster-sync-dev/examples/example.c $(pkg-config --cflags --libs cluster-sync)
    echo data | /root/example replicated_by_active_em/new | grep "published here"
    rm /root/example replicated_by_active_em/new'
  check_inside "a C program publishes from a loop around poll(2)" 'cd /mnt/part.persistent/replicated_by_active_em
    cc -std=c99 -Wall -Wextra -Wpedantic -Werror -o /root/program /root/programs/event_loop.c \
      $(pkg-config --cflags --libs cluster-sync)
    /root/program loop | grep "library $(pkg-config --modversion cluster-sync)"
    grep -qx loop loop
    rm /root/program'
  check_inside "a C++ program tells reasons apart" 'cd /mnt/part.persistent/replicated_by_active_em
    c++ -Wall -Wextra -Werror -o /root/program /root/programs/cautious.cc $(pkg-config --cflags --libs cluster-sync)
    test "$(/root/program loop) $(/root/program loop)" = "deleted was not there"
    rm /root/program'
  check_inside "a Python program gives up in time, and nothing is published later" '
    cd /mnt/part.persistent/replicated_by_active_em
    /usr/bin/python3 -B /root/programs/time_limit.py $PWD/limited $(cat /run/CLUS_SYNC.pid)
    rm limited'
  check_inside "a shell script acts on JSON" 'cd /mnt/part.persistent
    echo data | sh /root/programs/monitor.sh replicated_by_active_em/own | grep "other EM is away"
    sh /root/programs/monitor.sh replicated_by_active_em/TempUpdate_x < /dev/null | grep -x "wrong name"
    cluster_sync_ctl role standby
    sh /root/programs/monitor.sh replicated_by_active_em/own < /dev/null | grep -x "ask the other EM"
    cluster_sync_ctl role active
    grep -qx data replicated_by_active_em/own'
  check_inside "a program for the library before 1.1 does not compile" \
    '! cc -o /root/program /root/programs/old_face.c $(pkg-config --cflags --libs cluster-sync) 2> /root/errors
    grep "poisoned .*cluster_sync_connect" /root/errors
    rm /root/errors'
  check "a reload follows every change of a replicated file" watch_for_changes
  # In the mount namespace of the running service.
  check "nothing but trees, /run and /tmp can be written" \
    nsenter -t "$(pgrep --ns "$init" --nslist pid -x cluster_sync_da)" -m -r -w -- sh -e -c '
      for path in /etc/x /usr/bin/x /var/lib/x /home/x /root/x /run/systemd/x; do ! touch $path || exit 1; done
      cd /mnt/part.persistent
      touch /tmp/x /run/em/x replicated_by_this_em/x
      rm /tmp/x /run/em/x replicated_by_this_em/x'
  check "its exposure is 1.7 at most" \
    inside systemd-analyze security --no-pager --threshold=17 cluster_sync_daemon
  check_inside "diagnostic commands work under these limits" 'for command in sync stats=dump \
      log-size=1000 flight-rec=dump flight-rec=resume fail-none; do
      cluster_sync_ctl diag $command || exit 1
    done
    test "$(stat -c %a /tmp/cluster_sync_daemon.log)" = 600
    cluster_sync_ctl diag log-size=0
    rm /tmp/cluster_sync_daemon.log'
  if [ "$root" = / ] && check "the other EM joins" with_other_em; then
    check_inside "under these limits files reach it" '
      echo data | cluster_sync_ctl put - /mnt/part.persistent/replicated_by_this_em/f | grep "both EMs"
      mkdir -p /etc/em
      printf "#!/bin/sh\necho \$1 > /run/announced\n" > /etc/em/use_replicated_data
      chmod 755 /etc/em/use_replicated_data'
    check "  and its files come, and are announced" eval '
      echo data | on_other_em cluster_sync_ctl put - /mnt/part.persistent/replicated_by_this_em/shadow &&
      inside grep -qx data /mnt/part.persistent/replicated_by_other_em/shadow &&
      wait_until 10 inside grep -x 10 /run/announced'
    inside bash -c 'nsenter -t "$(cat /run/other_em)" -n ip link set em2 netns 1  # or it ends with the namespace
      kill -KILL "$(cat /run/other_em)"  # unshare ignores SIGTERM
      rm -r /run/other_em* /run/announced /etc/em /mnt/part.persistent/replicated_by_{this_em/f,other_em/shadow}'
  fi
  check "killed, Corosync and daemon come back, even after a failed start" \
    restarts break_and_mend_corosync
  for signal in HUP TERM INT PIPE; do
    check "ended by $signal it is started again" restarts inside systemctl kill -s $signal cluster_sync_daemon
  done
  check "and after an orderly end" restarts inside cluster_sync_ctl diag exit
  check_inside "the service manager and metrics tell what status tells" '
    systemctl enable cluster_sync_daemon
    cluster_sync_ctl status > /tmp/status || [ $? = 1 ]
    grep -qF "$(systemctl show -P StatusText cluster_sync_daemon)" /tmp/status
    [ "$(systemctl show -P SubState cluster_sync_daemon)" = running ]
    ! env -i cluster_sync_daemon --nonsense
    mkdir -p /var/lib/prometheus/node-exporter
    '"$([ "$root" = / ] || echo "$without_private_network")"'
    systemctl start cluster_sync_metrics
    grep -qx "cluster_sync_up 1" /var/lib/prometheus/node-exporter/cluster_sync.prom
    rm -r /var/lib/prometheus/node-exporter; rmdir /var/lib/prometheus || true; rm /tmp/status'
  inside cluster_sync_ctl metrics > "$work/metrics"
  check "promtool takes the metrics" "$PROMTOOL" check metrics < "$work/metrics"
  check "  and the alert rules" "$PROMTOOL" check rules "$repo/packaging/examples/alerts.yml"
  check "Corosync stopped and started brings it back" restarts inside sh -c '
    systemctl stop corosync; ! systemctl is-active cluster_sync_daemon; systemctl start corosync'
  check_inside "  and without Corosync it waits" 'mv /etc/corosync/corosync.conf /root/
    systemctl kill -s KILL corosync; sleep 15
    [ "$(systemctl show -P SubState cluster_sync_daemon)" = start-pre ]
    mv /root/corosync.conf /etc/corosync/; systemctl start corosync'
  check "  until it is there" wait_until 60 inside cluster_sync_ctl diag stats
  inside sh -c 'echo BREL_LOG_LEVEL=7 >> /etc/default/cluster_sync_daemon'
  check "an upgrade restarts it" restarts inside sh -c 'dpkg -i /root/packages/*'
  check "  and keeps the configuration" \
    inside grep -qx BREL_LOG_LEVEL=7 /etc/default/cluster_sync_daemon
  check_inside "the service stops in order" 'systemctl stop cluster_sync_daemon
    journalctl -q -n 5 -u cluster_sync_daemon | grep "Exiting cluster_sync_daemon$"
    ! systemctl is-failed cluster_sync_daemon'
  check_inside "it is removed, without data and configuration" 'systemctl start cluster_sync_daemon
    touch "/mnt/part.persistent/replicated_by_active_em/.\$SyncDigest\$own"
    dpkg -r cluster-sync-daemon
    test -s /mnt/part.persistent/replicated_by_active_em/own -a ! -e /run/CLUS_SYNC.pid \
      -a -e /etc/default/cluster_sync_daemon -a ! -e /usr/sbin/cluster_sync_daemon'
  check_inside "it is purged" "systemctl stop corosync; dpkg -P ${packages[*]}"
  [ -z "$before" ] || check "the previous release is upgraded while requests are running" upgrade_previous_release
  check "  and nothing but the data is left" output_is \
    "$(printf '/mnt/part.persistent%s\n' '' /replicated_by_active_em{,/own})" \
    comm -13 "$work/before" <(list_machine)
}

trap clean_up EXIT
machine_state > "$work/machine"
check "lintian finds no error and no warning" output_is "" \
  lintian --allow-root --tag-display-limit 0 --fail-on error,warning --display-level '>=warning' "${debs[@]}"
check "the packages hold what they should, with these modes" output_is "$(sort <<< "$expected_content")" list_content
if ! namespaces_work > /dev/null 2>&1; then
  echo "skipped: installation and service, because this machine forbids a systemd in namespaces"
elif { [ "$root" = / ] || check "a Debian for armhf is there" make_arm_root; } &&
  check "a systemd boots in namespaces" boot_machine; then
  test_machine
else
  cat "$work/boot.log"
fi
check "this machine is as it was" output_is "$(cat "$work/machine")" machine_state
echo "$passed passed, $failed failed"
[ $failed = 0 ]
