#!/bin/sh
# Runs in the new namespaces of one EM: sets up private state, then stays to keep the namespaces alive.
#
#   em_holder.sh NUMBER own|shared PERSISTENT CLEANUP_SCRIPT VISIBLE_DIR...
#
# "shared" means that another EM's mounts are below: its /dev/shm and /etc/corosync stay in use.
# PERSISTENT is a directory to use as /mnt/part.persistent, or "-" for memory. Every VISIBLE_DIR keeps
# its path inside, although /tmp, /mnt and /run are private.
set -eu
umask 022
number=$1 state=$2 persistent=$3 cleanup_script=$4
shift 4

fresh() { mount -n -t tmpfs -o mode="$2" em"$number" "$1"; }

# Build the private mounts separately, so that directories of the old /tmp, /mnt and /run can be bound into
# them before they are covered.
stage=/var/lib/misc
fresh $stage 755
mkdir $stage/tmp $stage/mnt $stage/run $stage/upper $stage/work
for top in tmp mnt run; do fresh $stage/$top 755; done
chmod 1777 $stage/tmp
mkdir $stage/mnt/part.persistent
if [ "$persistent" != - ]; then mount -n --bind "$persistent" $stage/mnt/part.persistent; fi
for dir in "$@"; do
  case $dir in
    /tmp/* | /mnt/* | /run/*)
      mkdir -p "$stage$dir"
      mount -n --rbind "$dir" "$stage$dir"
      ;;
  esac
done

# Overlays allow additions to /etc, /usr/bin and /dev without changing the machine's own.
for dir in etc usr/bin dev; do
  mkdir -p $stage/upper/$dir $stage/work/$dir
done
mkdir -p $stage/upper/etc/em
install -m 755 "$cleanup_script" $stage/upper/usr/bin/clean_up_temp_files.py
if [ "$state" = own ]; then mkdir -p $stage/upper/etc/corosync; fi
mkdir -p $stage/below/shm $stage/below/pts
for dir in shm pts; do mount -n --rbind /dev/$dir $stage/below/$dir; done
for dir in etc usr/bin dev; do
  mount -n -t overlay -o "lowerdir=/$dir,upperdir=$stage/upper/$dir,workdir=$stage/work/$dir" \
    em"$number" /$dir
done
for dir in shm pts; do mount -n --move $stage/below/$dir /dev/$dir; done
rm -f /dev/log  # the keeper creates one

for top in tmp mnt run; do mount -n --move $stage/$top /$top; done
[ -L /var/run ] || mount -n --rbind /run /var/run
if [ "$state" = own ]; then
  fresh /dev/shm 1777
  fresh /etc/corosync 755
  fresh /var/lib/corosync 755
  hostname em"$number"
  ip link set lo up
fi

mkdir -p /run/em /run/replicated_by_active_em
for root in replicated_by_active_em replicated_by_this_em replicated_by_other_em; do
  mkdir -p /mnt/part.persistent/$root
done
echo "$number" > /run/em/number

echo ready
exec sleep infinity > /dev/null
