"""An EM of the simulated pair: a mount namespace with the daemon's real paths, and a real daemon with the group
service, clock and waits of group.c."""

import os
import shutil
import socket
import struct
import subprocess
from collections import namedtuple
from pathlib import Path

import keeper
from em_pair import ACTIVE, COMMAND_SOCKET, OWN, PEERS, REPO, VOLATILE
from trees import UNREPLICATED

BUILD = Path(os.environ.get("EM_PAIR_BUILD", REPO / "build"))
ROOTS = (ACTIVE, VOLATILE, OWN, PEERS)
KEPT = "/mnt/part.persistent/replaced"  # files that exchanges have replaced
ORDER, REPORT = struct.Struct("<q6I"), struct.Struct("<4ciq")
PASS, HOLD, TICK = 1, 2, 4
PATIENCE = 120  # real seconds to wait for a report
NEVER = (1 << 63) - 1

Report = namedtuple("Report", "waits_in_poll request_announced interrupted thread deadline")


class Hang(Exception):
    """A daemon computes endlessly, or waits for something that is not simulated."""


class Machine:
    def __init__(self, number: int, log_level: int = 0, visible=()):
        self.number, self.log_level, self.build = number, log_level, BUILD
        self._holder = keeper.hold(number, [], ["--mount"], {
            "persistent": {}, "cleanup_script": "/bin/true",
            "visible": [str(path) for path in {REPO, BUILD.resolve(), *map(Path, visible)}]})
        keeper.wait_ready(self._holder)
        self.root = f"/proc/{self._holder.pid}/root"
        self.starts = 0
        self.process: subprocess.Popen | None = None
        self.log: str | None = None
        self.environment: dict[str, str] = {}  # settings of the daemon
        self._buffer = bytearray(1 << 20)

    def close(self) -> None:
        self.kill()
        self._holder.kill()
        self._holder.wait()

    def path(self, inside: str) -> str:
        # An absolute symlink would lead out of the EM.
        return self.root + inside.removeprefix("/var" if inside.startswith("/var/run") else "")

    def reset(self) -> None:
        """No daemon, empty trees, standby, no settings, empty log."""
        self.kill()
        self.starts, self.environment = 0, {}
        for root in ROOTS:
            self.empty(self.path(root))
        shutil.rmtree(self.path(KEPT), ignore_errors=True)
        self.empty(self.path("/var/run/em"))
        Path(self.path("/var/run/em/number")).write_text(f"{self.number}\n")
        if self.log:
            open(self.log, "w").close()

    def empty(self, folder: str) -> None:
        for entry in os.scandir(folder):
            if entry.is_dir(follow_symlinks=False):
                self.empty(entry.path)
                os.rmdir(entry.path)
            else:
                os.unlink(entry.path)

    # The role, and the last state sent to the event service.

    @property
    def active(self) -> bool:
        return os.path.exists(self.path("/var/run/em/active"))

    @active.setter
    def active(self, active: bool) -> None:
        if active:
            open(self.path("/var/run/em/active"), "w").close()
        elif self.active:
            os.unlink(self.path("/var/run/em/active"))

    @property
    def fault(self) -> int:
        """1 healthy, 4 failing."""
        try:
            with open(self.path("/var/run/em/events/0x80000702"), "rb") as file:
                return struct.unpack_from("<3I", file.read())[2]
        except FileNotFoundError:
            return 1

    def read(self, root: str) -> dict[str, bytes]:
        """The replicated files of a tree."""
        found: dict[str, bytes] = {}
        self._read_folder(self.path(root), "", found)
        return found

    def _read_folder(self, folder: str, relative: str, found: dict[str, bytes]) -> None:
        for entry in os.scandir(folder):
            if entry.name.startswith(UNREPLICATED):
                continue
            if entry.is_dir(follow_symlinks=False):
                self._read_folder(entry.path, f"{relative}{entry.name}/", found)
            elif entry.is_file(follow_symlinks=False):
                with open(entry.path, "rb", buffering=0) as file:
                    found[relative + entry.name] = file.read()

    # The daemon.

    @property
    def pid(self) -> int:
        """The daemon's simulated process id."""
        return 100 * self.number + self.starts

    @property
    def alive(self) -> bool:
        return self.process is not None

    def start(self, now: int) -> None:
        self.starts += 1
        self.link, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.link.settimeout(PATIENCE)
        environment = os.environ | {
            "LD_PRELOAD": str(BUILD / "testbed/simulated/libsim_group.so"),
            "SIM_NAMESPACE": f"/proc/{self._holder.pid}/ns/mnt",
            "SIM_FD": str(theirs.fileno()), "SIM_PID": str(self.pid), "SIM_NODE": str(self.number),
            "BREL_LOG_LEVEL": str(self.log_level), "CLEANUP_INITIAL_DELAY": str(1 << 19)}
        environment |= self.environment
        with theirs, open(self.log or os.devnull, "ab") as log:
            self.process = subprocess.Popen(
                [str(self.build / "cluster_sync_daemon"), "-x", str(COMMAND_SOCKET)],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log, pass_fds=[theirs.fileno()],
                env=environment, umask=0o022)
        self.report: Report | None = None
        self._send_order(now)

    def kill(self) -> None:
        if self.process:
            self.process.kill()
            self._wait()

    def _wait(self) -> int:
        assert self.process is not None
        status = self.process.wait()
        self.process = None
        self.link.close()
        return status

    def _send_order(self, now: int, flags: int = 0, events=(), interrupt_at: int = 0,
                    die_at: int = 0, refuse: int = 0, choice: int = 0) -> None:
        self.link.send(ORDER.pack(now, flags, len(events), interrupt_at, die_at, refuse, choice))
        for event in events:
            self.link.send(event)

    def order(self, now: int, **order) -> int | None:
        """Lets the daemon continue as ordered. Returns its exit status if it ends instead of reporting what it
        waits for."""
        try:
            self._send_order(now, **order)
        except (BrokenPipeError, ConnectionResetError):
            return self._wait()
        return None

    def sent(self):
        """Yields what the daemon sends until its next report, by first bytes. Stores the report."""
        while True:
            try:
                size = self.link.recv_into(self._buffer)
            except TimeoutError:
                raise Hang(f"EM {self.number}: no report after {PATIENCE} s") from None
            except ConnectionResetError:
                size = 0
            if size == 0:
                return
            if self._buffer[0] == ord("R"):
                _, *flags, thread, deadline = REPORT.unpack_from(self._buffer)
                self.report = Report(*(flag != b"\0" for flag in flags), thread, deadline)
                return
            yield bytes(self._buffer[:size])
