"""Two real daemons on a simulated group. Nothing happens by itself: the caller decides which daemon continues,
what it receives, and how much time passes."""

import socket
import struct
from collections import deque
from dataclasses import dataclass, field

from em_pair import COMMAND_SOCKET, EMS

from simulated.group import REASON_LEAVE, Group
from simulated.machine import NEVER, PASS, Machine

SECOND = 1_000_000_000
STEP = 200_000  # ns per step
FORGIVEN = 20 * SECOND  # a longer stall may make a daemon end by its long timeout
MEMORY = 120 * SECOND  # for this long afterwards
COMMANDS = ("LOCK_REQ", "LOCK_REL", "LISTING_REQ", "LISTING_ACK", "UPDATE_REQ", "UPDATE_ACK")
UPDATE, DIAGNOSTIC, COMPARE = 0, 1, 3  # requests of callers
LOCK_REQ, LOCK_REL, LISTING_REQ, LISTING_ACK, UPDATE_REQ, UPDATE_ACK = range(6)


def header(message: bytes) -> tuple[int, ...]:
    """Magic, command, flags, exchange id and sequence id."""
    return struct.unpack_from("<5I", message)


class Wrong(Exception):
    """The pair violated a requirement."""


@dataclass(frozen=True)
class Answer:
    success: bool
    local_ok: bool
    peer_present: bool
    reason: str
    report: bytes = b""  # of a comparison

    @staticmethod
    def parse(packet: bytes, report: bytes = b"") -> "Answer":
        success, local_ok, *_, present, reason = struct.unpack("<I5B3xI116s", packet)[1:]
        return Answer(bool(success), bool(local_ok), present == ord("Y"),
                      reason.split(b"\0")[0].decode(errors="replace"), report)


@dataclass(eq=False)
class Request:
    """`effects` maps each path to its content after the request: bytes, or None for no file."""

    em: int
    source: str
    destination: str
    effects: dict[str, bytes | None]
    moves: int  # role changes before it
    others: list["Request"] = field(default_factory=list)  # requests for the same path at the same time
    refused: bool = False
    first: bool = False  # the first to give the path this content

    def __str__(self) -> str:
        return f"EM {self.em}: '{self.source}' -> '{self.destination}'"


class SimulatedPair:
    """`watcher` is told what is sent, taken, asked, answered and ended (questions.Questions)."""

    def __init__(self, machines: dict[int, Machine], watcher, trace=None):
        self.machines, self.questions, self.trace = machines, watcher, trace or (lambda text: None)
        self.group = Group()
        self.sent: deque[tuple[int, bytes]] = deque(maxlen=60)  # since a daemon ended
        self.now = 1000 * SECOND
        self.answers: list[Answer] = []
        self.connections: dict[int, list[socket.socket]] = {n: [] for n in EMS}  # idle connections
        self.callers: dict[int, dict[Request, socket.socket]] = {n: {} for n in EMS}
        # Events that are being passed to the callbacks.
        self.given: dict[int, deque] = {n: deque() for n in EMS}
        self.due_since: dict[int, int | None] = dict.fromkeys(EMS)  # to continue
        self.unordered_since: dict[int, int | None] = dict.fromkeys(EMS)  # that it has sent
        self.stalled = dict.fromkeys(EMS, -MEMORY)  # when it was last delayed for long
        for machine in machines.values():
            machine.reset()
        machines[1].active = True

    def close(self) -> None:
        for n in EMS:
            for connection in (*self.connections[n], *self.callers[n].values()):
                connection.close()
            self.machines[n].kill()

    # The daemons.

    def go_on(self, n: int, **order) -> None:
        """Lets EM `n`'s daemon continue until it must ask, and takes what it sent and answered."""
        machine = self.machines[n]
        machine.report = None
        self.given[n] += order.get("events", ())
        status = machine.order(self.now, **order)
        for packet in machine.sent() if status is None else ():
            if packet[0] == ord("M"):
                self.trace(f"    EM {n} sends {COMMANDS[packet[5]]}")
                self.questions.on_sent(n, packet[1:])
                self.sent.append((n, packet[1:]))
                self.group.send(n, packet[1:])
            elif packet[0] == ord("E"):
                self.questions.on_taken(n, self.given[n].popleft())
            elif packet[0] == ord("J"):
                self.group.join(n)
            else:
                self.group.end(n, REASON_LEAVE)
        self._take_answers(n)
        if machine.report is None:
            if status is None and machine.process:
                status = machine.process.wait()
            self._on_end(n, status or 0)

    def _on_end(self, n: int, status: int, lost: int = 0) -> None:
        self.trace(f"    EM {n}: its daemon has ended with {status}")
        self.machines[n].kill()
        if self.group.nodes[n].process:
            self.group.end(n, lost=lost)
        self._take_answers(n)
        for connection in (*self.callers[n].values(), *self.connections[n]):
            connection.close()
        self.connections[n], self.callers[n], self.due_since[n] = [], {}, None
        self.given[n].clear()
        self.sent.clear()
        self.questions.on_daemon_end(n)
        if status not in (0, -9) and self.now - self.stalled[n] > MEMORY:
            raise Wrong(f"EM {n}: the daemon ended by itself with {status}")

    def start(self, n: int) -> None:
        machine = self.machines[n]
        if machine.alive or self.group.nodes[n].process:
            return
        machine.start(self.now)
        self.group.connect((n, machine.pid))
        self.go_on_from_start(n)

    def go_on_from_start(self, n: int) -> None:
        machine = self.machines[n]
        machine.report = None
        for packet in machine.sent():
            if packet[0] == ord("J"):
                self.group.join(n)
        if machine.report is None:
            raise Wrong(f"EM {n}: the daemon does not start")

    def run_once(self, n: int, count: int, **order) -> None:
        """One pass of EM `n`'s sync thread, which receives at most `count` events."""
        report = self.machines[n].report
        events = self.group.take(n, count) if report and report.waits_in_poll else []
        self.due_since[n] = None
        self.go_on(n, flags=PASS, events=events, **order)

    # Possible actions.

    def is_due(self, n: int) -> bool:
        report = self.machines[n].report
        return self.machines[n].alive and report is not None and (
            report.interrupted or report.deadline <= self.now or report.waits_in_poll and
            (report.request_announced or self.group.waiting(n) > 0))

    def moves(self, daemons=EMS, ordering=True) -> list[tuple[str, int]]:
        return ([("order", n) for n in EMS if ordering and self.group.nodes[n].to_send] +
                [("run", n) for n in daemons if self.is_due(n)])

    def move(self, kind: str, n: int, count: int, choice: int = 0, **order) -> None:
        if kind == "order":
            self.group.order(n)
        else:
            self.run_once(n, count, choice=choice, **order)
        self.pass_time(self.now + STEP)

    def pass_time(self, until: int) -> None:
        before, self.now = self.now, max(self.now, until)
        for n in EMS:
            for since, waits in ((self.due_since, self.is_due(n)),
                                 (self.unordered_since, bool(self.group.nodes[n].to_send))):
                if not waits:
                    since[n] = None
                    continue
                first = since[n]
                since[n] = first = before if first is None else first
                if self.now - first > FORGIVEN:
                    self.stalled[n] = self.now

    def next_deadline(self, daemons=EMS) -> int:
        reports = (self.machines[n].report for n in daemons if self.machines[n].alive)
        return min((report.deadline for report in reports if report), default=NEVER)

    def flow(self, steps: int, until: int = 0, daemons=EMS, ordering=True, portion=1 << 30) -> None:
        """Lets everything continue in turn, for a number of steps or until a time."""
        for step in range(steps):
            moves = self.moves(daemons, ordering)
            if moves:
                self.move(*moves[step % len(moves)], portion)
            elif until == 0:
                return
            else:
                self.pass_time(min(self.next_deadline(daemons), until))
            if until and self.now >= until:
                return

    def nothing_waits(self) -> bool:
        """A daemon that sleeps takes nothing meanwhile."""
        return not any(self.group.waiting(n) for n in EMS)

    def wait_until(self, at_rest, patience: int) -> None:
        """Lets everything continue in turn until nothing can and `at_rest` is true, or until `patience` is
        over."""
        limit = self.now + patience
        while self.now < limit:
            moves = self.moves()
            for kind, n in moves:
                if kind == "order" or self.is_due(n):
                    self.move(kind, n, 1 << 30)
            if not moves:
                if self.nothing_waits() and at_rest():
                    return
                self.pass_time(self.next_deadline())
            for n in EMS:
                self.start(n)

    # Callers.

    def ask(self, n: int, source: str, destination: str, effects: dict[str, bytes | None],
            kind: int = UPDATE) -> None:
        connection = self.connections[n].pop() if self.connections[n] else self.connect(n)
        if connection is None:
            return
        request = Request(n, source, destination, effects, self.questions.moves)
        self.trace(f"    {request}")
        self.callers[n][request] = connection
        self.questions.on_asked(request)
        connection.send(struct.pack("<I", kind) + f"{source}\0{destination}\0".encode())
        self.go_on(n)

    def diagnose(self, n: int, command: str) -> None:
        """Runs a diagnostic command."""
        connection = self.connect(n)
        if connection:
            connection.send(struct.pack("<I", DIAGNOSTIC) + f"{command}\0".encode())
            self.go_on(n)
            connection.close()

    def connect(self, n: int) -> socket.socket | None:
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        connection.setblocking(False)
        try:
            connection.connect(self.machines[n].path(f"/run/em/cmd.{COMMAND_SOCKET}"))
        except (FileNotFoundError, ConnectionRefusedError):
            connection.close()
            return None
        return connection

    def hang_up(self) -> None:
        """Closes idle connections."""
        for n in EMS:
            while self.connections[n]:
                self.connections[n].pop().close()
                self.go_on(n)

    def _take_answers(self, n: int) -> None:
        for request, connection in list(self.callers[n].items()):
            try:
                packet, descriptors, *_ = socket.recv_fds(connection, 1000, 1)
            except (BlockingIOError, ConnectionResetError):
                continue
            if not packet:
                continue
            report = b""
            for descriptor in descriptors:
                with open(descriptor, "rb") as file:
                    report = file.read()
            answer = Answer.parse(packet, report)
            self.trace(f"    answer to {request}: {answer}")
            self.connections[n].append(self.callers[n].pop(request))
            self.answers.append(answer)
            self.questions.on_answer(request, answer)
