"""Creates the namespaces of a pair and removes everything at the end.

A separate process, started by em_pair.EmPair with a pipe as standard input. When the pipe closes, however the
starting process ended, the keeper kills every process in the namespaces, which also removes the mounts and
the link, and removes the work directory.
"""

import ctypes
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys
import time
from pathlib import Path

HOLDER = Path(__file__).resolve().with_name("em_holder.sh")
ADDRESSES = {1: "169.254.77.1", 2: "169.254.77.2"}
LINK = "em"
MTU = 9000
SO_ATTACH_FILTER = 26


def in_net(holder: int, *command: str) -> None:
    subprocess.run(["nsenter", "-t", str(holder), "-n", "--", *command], check=True)


def hold(number: int, enter: list[str], unshare: list[str], options: dict) -> subprocess.Popen:
    persistent = options["persistent"].get(str(number), "-")
    state = "own" if "--net" in unshare else "shared"
    holder = subprocess.Popen(
        ["setpriv", "--pdeathsig", "KILL", *enter, "unshare", *unshare, "--propagation", "private",
         "--", str(HOLDER), str(number), state, persistent, options["cleanup_script"],
         *options["visible"]],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    return holder


def wait_ready(holder: subprocess.Popen) -> None:
    if not holder.stdout or holder.stdout.readline() != "ready\n":
        raise RuntimeError(f"cannot make the namespaces of an EM (exit status {holder.wait()})")


def make_link(first: int, second: int) -> None:
    """Joins two network namespaces by a veth pair. One namespace gets a link without a peer."""
    other_end = ["peer", "name", LINK, "netns", str(second)]
    if first == second:
        other_end = ["peer", "name", "nobody"]
    in_net(first, "ip", "link", "add", LINK, "mtu", str(MTU), "type", "veth", *other_end)
    if first == second:
        in_net(first, "ip", "link", "set", "nobody", "up")
    for number, holder in {1: first, 2: second}.items():
        if number == 2 and first == second:
            continue
        in_net(holder, "ip", "address", "add", ADDRESSES[number] + "/24", "dev", LINK)
        in_net(holder, "ip", "link", "set", LINK, "mtu", str(MTU), "up")


def make_pair(options: dict, holders: list[subprocess.Popen]) -> None:
    everything = ["--mount", "--net", "--ipc", "--uts"]
    holders.append(hold(1, [], everything, options))
    if options["form"] == "one-node":
        wait_ready(holders[0])
        enter = ["nsenter", "-t", str(holders[0].pid), "-m", "-n", "-i", "-u", "--"]
        holders.append(hold(2, enter, ["--mount"], options))
        wait_ready(holders[1])
        make_link(holders[0].pid, holders[0].pid)
    else:
        holders.append(hold(2, [], everything, options))
        for holder in holders:
            wait_ready(holder)
        make_link(holders[0].pid, holders[1].pid)


def namespaces(pid: int) -> set[str]:
    try:
        return {os.readlink(f"/proc/{pid}/ns/{kind}") for kind in ("mnt", "net")}
    except OSError:
        return set()


def take_logs(holder: int) -> socket.socket:
    """The /dev/log of an EM. It drops all lines and wakes no process."""
    log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    drop = ctypes.create_string_buffer(struct.pack("=HBBI", 6, 0, 0, 0))  # socket filter: keep 0 bytes
    log.setsockopt(socket.SOL_SOCKET, SO_ATTACH_FILTER,
                   struct.pack("@HP", 1, ctypes.addressof(drop)))
    log.bind(f"/proc/{holder}/root/dev/log")
    return log


def end_members(holders: list[subprocess.Popen]) -> None:
    """Kills all processes inside. The holders come last, because they identify the namespaces."""
    ours = set().union(*(namespaces(holder.pid) for holder in holders)) - namespaces(os.getpid())
    keep = {holder.pid for holder in holders}
    deadline = time.monotonic() + 20
    while time.monotonic() < deadline:
        members = [pid for pid in map(int, filter(str.isdigit, os.listdir("/proc")))
                   if pid not in keep and namespaces(pid) & ours]
        if not members:
            break
        for pid in members:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        time.sleep(0.02)
    for holder in holders:
        holder.kill()
        holder.wait()


def main() -> int:
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, signal.SIG_IGN)
    options = json.loads(sys.argv[1])
    holders: list[subprocess.Popen] = []
    logs: list[socket.socket] = []
    try:
        make_pair(options, holders)
        logs += map(take_logs, (holder.pid for holder in holders))
        print(json.dumps([holder.pid for holder in holders]), flush=True)
        sys.stdin.read()
    finally:
        end_members(holders)
        for log in logs:
            log.close()
        shutil.rmtree(options["work_dir"], ignore_errors=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
