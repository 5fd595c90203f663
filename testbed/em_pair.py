"""A pair of EMs on this machine: two sets of namespaces, each with its own Corosync and daemon.

    with EmPair() as pair:
        pair.ctl(1, "sync")

Nothing outlives the pair. Leaving the block, an exception, Ctrl-C and even SIGKILL of this process end all
its processes, namespaces, mounts and links and remove its work directory (see keeper.py). Needs root.
Processes of the pair belong to the EmPair; use it from one thread.
"""

import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from collections.abc import Callable, Sequence
from pathlib import Path

from keeper import ADDRESSES, LINK

REPO = Path(__file__).resolve().parent.parent
PERSISTENT = "/mnt/part.persistent"
ACTIVE = f"{PERSISTENT}/replicated_by_active_em"
OWN = f"{PERSISTENT}/replicated_by_this_em"
PEERS = f"{PERSISTENT}/replicated_by_other_em"
VOLATILE = "/var/run/replicated_by_active_em"
COMMAND_SOCKET = 2006
EMS = (1, 2)
ARM_BUILD = REPO / "build-arm"
ARM_SYSROOT = ARM_BUILD / "sysroot"
ARM_BOARD = ARM_BUILD / "board"
EMULATOR = ("qemu-arm", "-L", ARM_SYSROOT, "-E",
            f"LD_LIBRARY_PATH={ARM_BOARD}/usr/lib")

# Changes to the shipped corosync.conf that a testbed needs.
OVERRIDES = {
    "udpu": "totem {\n  transport: udpu\n  crypto_cipher: none\n  crypto_hash: none\n"
            "  netmtu: 8900\n}\n",
    "knet": "",
}
COMMON_OVERRIDES = """
system {
  sched_rr: no
  move_to_root_cgroup: no
}
logging {
  to_syslog: no
  to_stderr: yes
}
"""


class PairError(Exception):
    """Something on the pair did not happen in time or failed."""


def wait_for(predicate: Callable[[], object], timeout: float, what: str, interval: float = 0.05):
    """Waits for and returns the first true value of `predicate`; PairError with `what` after `timeout` s."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() >= deadline:
            raise PairError(f"waited {timeout:g} s in vain: {what}")
        time.sleep(interval)


class EmPair:
    """Two EMs, numbered 1 and 2.

    build_dir  directory of cluster_sync_daemon and cluster_sync_ctl
    form       "two-node", or "one-node": two daemons on one node of one Corosync, which have separate
               trees but share network, IPC and /dev/shm
    transport  "udpu" or "knet" (encrypted, as shipped); None: the value of EM_PAIR_TRANSPORT, or udpu
    log_level  highest syslog level that the daemons log (BREL_LOG_LEVEL)
    wrapper    command prefix of the daemon, for example ["valgrind", "--error-exitcode=99"]
    arm        EMs that are 32-bit ARM throughout, including Corosync, in an emulator, installed in
               build-arm/board and build-arm/sysroot; None: the value of EM_PAIR_ARM ("2", "1 2")
    on_disk    /mnt/part.persistent is a directory in the work directory, not in memory
    visible    further directories below /tmp, /mnt or /run that the EMs can see
    work_dir   directory to create; by default a new one in the temporary directory
    environment  further variables for the daemons
    """

    def __init__(self, build_dir: Path | str = REPO / "build", form: str = "two-node",
                 transport: str | None = None, log_level: int = 6, wrapper: Sequence[str] = (),
                 arm: Sequence[int] | None = None, on_disk: bool = False, visible: Sequence[str] = (),
                 work_dir: Path | str | None = None, environment: dict[str, str] | None = None):
        transport = transport or os.environ.get("EM_PAIR_TRANSPORT", "udpu")
        if form not in ("two-node", "one-node") or transport not in OVERRIDES:
            raise ValueError(f"no such form or transport: {form}, {transport}")
        self.build_dir = Path(build_dir).resolve()
        self.form, self.transport = form, transport
        self.wrapper = list(wrapper)
        self.arm = list(map(int, os.environ.get("EM_PAIR_ARM", "").split()) if arm is None else arm)
        self.environment = {"BREL_LOG_LEVEL": str(log_level)} | (environment or {})
        self._on_disk, self._visible = on_disk, list(visible)
        self._wanted_work_dir = work_dir
        self._keeper: subprocess.Popen | None = None
        self._processes: dict[tuple[str, int], subprocess.Popen] = {}
        self.holders: dict[int, int] = {}
        self.work_dir = Path()
        self._key = os.urandom(256)

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.stop()

    # Start and stop.

    def start(self, daemons: bool = True, active: int | None = 1) -> "EmPair":
        """Starts everything; EM `active` gets the active role. Returns when the group is complete."""
        try:
            self.start_machines()
            if active:
                self.set_active(active)
            for n in self.nodes():
                self.start_corosync(n)
            self.wait_nodes()
            if daemons:
                for n in EMS:
                    self.start_daemon(n)
                self.wait_joined()
        except BaseException:
            self.stop()
            raise
        return self

    def start_machines(self) -> None:
        """Creates the two machines without starting anything on them."""
        if self._wanted_work_dir:
            self.work_dir = Path(self._wanted_work_dir)
            self.work_dir.mkdir(mode=0o700)
        else:
            self.work_dir = Path(tempfile.mkdtemp(prefix="em_pair."))
        persistent = {}
        for n in EMS:
            (self.work_dir / f"em{n}").mkdir()
            if self._on_disk:
                persistent[n] = str(self.work_dir / f"em{n}" / "persistent")
                Path(persistent[n]).mkdir()
        options = {
            "form": self.form,
            "work_dir": str(self.work_dir),
            "persistent": persistent,
            "cleanup_script": str(REPO / "platform/clean_up_temp_files.py"),
            "visible": [str(path) for path in
                        {REPO, self.build_dir, ARM_BUILD, self.work_dir, *map(Path, self._visible)}
                        if path.is_dir()],
        }
        self._keeper = keeper = subprocess.Popen(
            [sys.executable, str(REPO / "testbed/keeper.py"), json.dumps(options)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, start_new_session=True)
        answer = keeper.stdout.readline() if keeper.stdout else ""
        if not answer:
            raise PairError("cannot make the EMs (their namespaces need root)")
        self.holders = dict(zip(EMS, json.loads(answer)))

    def stop(self) -> None:
        """Stops everything and removes the work directory. May be called again."""
        for process in self._processes.values():
            if process.poll() is None:
                process.send_signal(signal.SIGCONT)
                process.terminate()
        for process in self._processes.values():
            try:
                process.wait(timeout=3)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        self._processes.clear()
        if self._keeper and self._keeper.stdin:
            self._keeper.stdin.close()
            self._keeper.wait(timeout=60)
            self._keeper = None
        self.holders = {}

    # Processes.

    def nodes(self) -> tuple[int, ...]:
        """The EMs that run their own Corosync."""
        return EMS if self.form == "two-node" else (1,)

    def command(self, n: int, argv: Sequence[str]) -> list[str]:
        """The argv that runs `argv` on EM `n`, in "/"; use absolute paths."""
        return ["nsenter", "-t", str(self.holders[n]), "-m", "-n", "-i", "-u", "--",
                *map(str, argv)]

    def run(self, n: int, argv: Sequence[str], timeout: float = 60, check: bool = False,
            **options) -> subprocess.CompletedProcess:
        """Runs a command on EM `n` and captures its output (text, both streams separately)."""
        options = {"capture_output": True, "text": True} | options
        return subprocess.run(self.command(n, argv), timeout=timeout, check=check, **options)

    def popen(self, n: int, argv: Sequence[str], **options) -> subprocess.Popen:
        """Starts a command on EM `n`. It ends with the pair at the latest."""
        return subprocess.Popen(self.command(n, argv), **options)

    def ctl(self, n: int, *arguments: str, timeout: float = 60) -> subprocess.CompletedProcess:
        """Runs cluster_sync_ctl with `arguments` on EM `n`."""
        return self.run(n, [*self._program(n, "cluster_sync_ctl"), *arguments], timeout=timeout)

    def _program(self, n: int, name: str, build_dir: Path | str | None = None) -> list:
        """The command for program `name` of the build, or of Corosync, on EM `n`."""
        if n in self.arm:
            places = (root / "usr" / folder / name for root in (ARM_BOARD, ARM_SYSROOT)
                      for folder in ("sbin", "bin"))
            return [*EMULATOR, next(path for path in places if path.exists())]
        ours = name.startswith("cluster_sync_")
        return [Path(build_dir or self.build_dir).resolve() / name if ours else name]

    def log_path(self, n: int, what: str = "daemon") -> Path:
        """The file with the output of all runs of EM `n`'s "daemon" or "corosync"."""
        return self.work_dir / f"em{n}" / f"{what}.log"

    def log(self, n: int, what: str = "daemon") -> str:
        path = self.log_path(n, what)
        return path.read_text(errors="replace") if path.exists() else ""

    def process(self, n: int, what: str) -> subprocess.Popen:
        """EM `n`'s "daemon" or "corosync"; poll() returns its exit status, if it has ended."""
        return self._processes[what, n]

    def alive(self, n: int, what: str) -> bool:
        process = self._processes.get((what, n))
        return process is not None and process.poll() is None

    def start_corosync(self, n: int) -> None:
        etc = self.path(n, "/etc/corosync")
        (etc / "authkey").write_bytes(self._key)
        (etc / "corosync.conf").write_text(
            (REPO / "packaging/corosync.conf").read_text() + OVERRIDES[self.transport] +
            COMMON_OVERRIDES)
        self._start(n, "corosync", [*self._program(n, "corosync"), "-f"], {})

    def start_daemon(self, n: int, build_dir: Path | str | None = None) -> None:
        daemon = self._program(n, "cluster_sync_daemon", build_dir)
        self._start(n, "daemon", [*self.wrapper, *daemon, "-x", str(COMMAND_SOCKET)],
                    self.environment)

    def _start(self, n: int, what: str, argv: Sequence[str], environment: dict[str, str]) -> None:
        if self.alive(n, what):
            raise PairError(f"{what} of EM {n} is running already")
        with open(self.log_path(n, what), "ab") as log:
            self._processes[what, n] = self.popen(
                n, argv, stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT,
                env=os.environ | environment, umask=0o022, start_new_session=True)

    def signal(self, n: int, what: str, number: int) -> None:
        """Sends a signal (SIGSTOP, SIGCONT, ...) to EM `n`'s "daemon" or "corosync"."""
        self.process(n, what).send_signal(number)

    def kill(self, n: int, what: str) -> None:
        """SIGKILLs EM `n`'s "daemon" or "corosync" and waits for its end.

        A daemon aborts when its Corosync has ended. Only restart() starts either of them again.
        """
        process = self.process(n, what)
        process.kill()
        process.wait(timeout=20)

    def restart(self, n: int, what: str) -> None:
        """Stops EM `n`'s "daemon" or "corosync", if it runs, and starts it. Does not wait until it is ready.

        With a Corosync, its daemons end too; they are started again after it.
        """
        daemons = [n] if what == "daemon" else [m for m in EMS if self.node_of(m) == n]
        daemons = [m for m in daemons if ("daemon", m) in self._processes]
        for m in daemons:
            self.kill(m, "daemon")
        if what == "corosync":
            self.kill(n, "corosync")
            self.start_corosync(n)
            wait_for(lambda: self._group(n) is not None, 20, f"Corosync of EM {n} answers")
        for m in daemons:
            self.start_daemon(m)

    def exit_daemon(self, n: int, timeout: float = 60) -> int:
        """Stops EM `n`'s daemon in order; returns its exit status."""
        self.ctl(n, "diag", "exit")
        return self.process(n, "daemon").wait(timeout=timeout)

    def install(self, n: int, **programs: str) -> None:
        """Installs the files of "cmake --install" on EM `n`, at the real paths, until the pair ends.

        programs  further programs in /usr/sbin: name and text of each
        """
        root = self.work_dir / "root"
        subprocess.run(["cmake", "--install", self.build_dir], check=True, capture_output=True,
                       env=os.environ | {"DESTDIR": str(root)})
        for name, text in programs.items():
            (root / "usr/sbin" / name).write_text(text)
            (root / "usr/sbin" / name).chmod(0o755)
        shutil.copytree(root / "etc", self.path(n, "/etc"), dirs_exist_ok=True)
        self.run(n, ["mount", "-n", "-t", "overlay", "-o", f"lowerdir={root}/usr:/usr", "usr", "/usr"],
                 check=True)

    # Roles, membership and the link.

    def set_role(self, n: int, active: bool) -> None:
        mark = self.path(n, "/run/em/active")
        if active:
            mark.touch()
        else:
            mark.unlink(missing_ok=True)

    def set_active(self, n: int) -> None:
        """Makes EM `n` active and the other one standby; never both active at once."""
        self.set_role(3 - n, False)
        self.set_role(n, True)

    def is_active(self, n: int) -> bool:
        return self.path(n, "/run/em/active").exists()

    def node_of(self, n: int) -> int:
        return n if self.form == "two-node" else 1

    def _group(self, n: int) -> set[tuple[int, int]] | None:
        """Members (node, process id) of em-sync as EM `n` sees them; None without a Corosync."""
        output = self.run(n, [*self._program(n, "corosync-cpgtool"), "-d", " "])
        if output.returncode != 0:
            return None
        rows = [line.split() for line in output.stdout.splitlines()]
        return {(int(row[2]), int(row[1])) for row in rows if len(row) == 3 and row[0] == "em-sync"}

    def _daemon_pids(self, n: int) -> set[int]:
        """The process ids of the daemon and its children; a wrapper may keep the daemon as a child."""
        pid = self.process(n, "daemon").pid
        try:
            children = Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
        except OSError:
            children = []
        return {pid, *map(int, children)}

    def joined(self) -> bool:
        """True if both EMs see exactly the two running daemons in the group."""
        pids = {n: {(self.node_of(n), pid) for pid in self._daemon_pids(n)} for n in EMS}
        groups = [self._group(n) or set() for n in EMS]
        return all(len(group) == 2 and all(group & pids[n] for n in EMS) for group in groups)

    def wait_joined(self, timeout: float = 30) -> None:
        def joined_or_dead():
            for n in EMS:
                if not self.alive(n, "daemon"):
                    tail = "\n".join(self.log(n).splitlines()[-15:])
                    raise PairError(f"the daemon of EM {n} has ended:\n{tail}")
            return self.joined()
        wait_for(joined_or_dead, timeout, "both daemons are members of em-sync")

    def node_members(self, n: int) -> set[int]:
        """Node ids in the membership of EM `n`'s Corosync."""
        output = self.run(n, [*self._program(n, "corosync-quorumtool"), "-l", "-p"]).stdout
        return {int(line.split()[0]) for line in output.splitlines()
                if re.match(r"\s*\d+\s", line)}

    def wait_nodes(self, timeout: float = 30, members: set[int] | None = None) -> None:
        """Waits until every Corosync sees the nodes `members` (by default all)."""
        members = members or set(self.nodes())
        wait_for(lambda: all(self.node_members(n) == members for n in self.nodes()), timeout,
                 f"nodes {sorted(members)} form one Corosync membership")

    def cut(self) -> None:
        """Drops every packet between the EMs without an error on either, like a dead switch."""
        # Redirect packets to a station that does not exist. A dropping queue would report errors to knet, and
        # an interface that is down stops Corosync.
        for n in EMS:
            self._on_link(n, "ip", "neighbour", "replace", ADDRESSES[3 - n], "lladdr",
                          "02:00:00:00:00:00", "nud", "permanent", "dev", LINK)

    def heal(self) -> None:
        """Undoes cut(), if there was one."""
        for n in EMS:
            self._on_link(n, "ip", "neighbour", "flush", "to", ADDRESSES[3 - n], "nud",
                          "permanent", "dev", LINK)

    def _on_link(self, n: int, *command: str) -> None:
        if self.form == "one-node":
            raise PairError("two daemons on one node have no link between them")
        self.run(n, command, check=True)

    # Files.

    def path(self, n: int, inside: str) -> Path:
        """A path of EM `n` as this process can access it, without a command on the EM."""
        if inside.startswith("/var/run"):
            inside = inside[len("/var"):]  # an absolute symlink would lead out of the EM
        return Path(f"/proc/{self.holders[n]}/root{inside}")
