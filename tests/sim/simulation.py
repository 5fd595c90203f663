"""One run: events on two daemons, drawn from a seed, and what is asked of the pair meanwhile.

An event is a name and two numbers, which choose among what is possible when its turn comes: any part
of a list of events is a run, too, which is what lets a failing one be shrunk.
"""

import os
import random
import socket
import struct
from collections import deque
from pathlib import Path
from typing import NamedTuple

from em_pair import ACTIVE, COMMAND_SOCKET, EMS, OWN, VOLATILE
from group import REASON_LEAVE, Group
from machine import NEVER, PASS, TICK, Hang, Machine
from questions import CHUNK, NAMES, Answer, Questions, Request, Wrong, describe

SECOND = 1_000_000_000
STEP = 200_000  # ns that a step takes
FORGIVEN = 20 * SECOND  # a stall from which on the long time limit may end a daemon
MEMORY = 120 * SECOND  # for how long after it
PEACE = 400 * SECOND  # after the last fault the pair has come to rest
WAITS = (0.01, 0.05, 0.3, 1, 2, 5, 9, 11, 12, 20, 46, 50, 100)
SIZES = (0, 10, 3000, CHUNK, CHUNK + 1, 2 * CHUNK + 100)
FILES = ("a", "b", "d/c")
EVENTS = {"run": 46, "flow": 8, "interrupt": 5, "ask": 17, "wait": 6, "stall": 3, "cut": 1.5,
          "heal": 3, "kill": 1, "die": 1.5, "start": 4, "role": 1.5, "refuse": 1, "hang_up": 1,
          "exit": 0.5}
BEGINNING = 12  # files that are there before


class Event(NamedTuple):
    name: str
    a: int
    b: int

    def __str__(self) -> str:
        return f"{self.name} {self.a} {self.b}"


def draw(seed: int, count: int) -> list[Event]:
    chance = random.Random(seed)
    names = ["found"] * chance.randint(0, BEGINNING) + ["start", "start", "flow"]
    names += chance.choices(list(EVENTS), list(EVENTS.values()), k=count)
    return [Event(name, chance.getrandbits(16), chance.getrandbits(16)) for name in names]


class Simulation:
    """A pair whose daemons run, wait and end as the events say."""

    def __init__(self, machines: dict[int, Machine], trace=None):
        self.machines, self.trace = machines, trace or (lambda text: None)
        self.group, self.questions = Group(), Questions(self)
        self.now = 1000 * SECOND
        self.versions = 0
        self.answers: list[Answer] = []
        self.connections: dict[int, list[socket.socket]] = {n: [] for n in EMS}  # that are idle
        self.callers: dict[int, dict[Request, socket.socket]] = {n: {} for n in EMS}
        self.given = {n: deque() for n in EMS}  # events on their way into the callbacks
        self.due_since: dict[int, int | None] = dict.fromkeys(EMS)  # that it is to go on
        self.unordered_since: dict[int, int | None] = dict.fromkeys(EMS)  # that it has sent
        self.stalled = dict.fromkeys(EMS, -MEMORY)  # when it was last held up for long
        self.mover_owes: list[int] = []
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
        """Lets EM `n`'s daemon go on until it has to ask, and takes what it has sent and answered."""
        machine = self.machines[n]
        machine.report = None
        self.given[n] += order.get("events", ())
        status = machine.order(self.now, **order)
        for packet in machine.sent() if status is None else ():
            if packet[0] == ord("M"):
                self.trace(f"    EM {n} sends {NAMES[packet[5]]}")
                self.questions.on_sent(n, packet[1:])
                self.group.send(n, packet[1:])
            elif packet[0] == ord("E"):
                self.questions.on_taken(n, self.given[n].popleft())
            elif packet[0] == ord("J"):
                self.group.join(n)
            else:
                self.group.end(n, REASON_LEAVE)
        self._take_answers(n)
        if machine.report is None:
            self._on_end(n, machine.process.wait() if status is None else status)

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
        """A pass of EM `n`'s replicating thread, in which it is given `count` events at most."""
        report = self.machines[n].report
        events = self.group.take(n, count) if report.waits_in_poll else []
        self.due_since[n] = None
        self.go_on(n, flags=PASS, events=events, **order)

    # What is possible now.

    def is_due(self, n: int) -> bool:
        report = self.machines[n].report
        return self.machines[n].alive and (
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
                since[n] = before if since[n] is None else since[n]
                if self.now - since[n] > FORGIVEN:
                    self.stalled[n] = self.now

    def next_deadline(self, daemons=EMS) -> int:
        return min((self.machines[n].report.deadline for n in daemons if self.machines[n].alive),
                   default=NEVER)

    def flow(self, steps: int, until: int = 0, daemons=EMS, ordering=True, portion=1 << 30) -> None:
        """Everything that can go on does so in turn, for a number of steps or until a time."""
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

    # Callers.

    def ask(self, n: int, source: str, destination: str, effects: dict[str, bytes | None]) -> None:
        connection = self.connections[n].pop() if self.connections[n] else self.connect(n)
        if connection is None:
            return
        request = Request(n, source, destination, effects, self.questions.moves)
        self.trace(f"    {request} {' '.join(map(describe, effects.values()))}")
        self.callers[n][request] = connection
        self.questions.on_asked(request)
        connection.send(struct.pack("<I", 0) + f"{source}\0{destination}\0".encode())
        self.go_on(n)

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
        """Closes the connections that wait for nothing."""
        for n in EMS:
            while self.connections[n]:
                self.connections[n].pop().close()
                self.go_on(n)

    def _take_answers(self, n: int) -> None:
        for request, connection in list(self.callers[n].items()):
            try:
                packet = connection.recv(1000)
            except BlockingIOError:
                continue
            except ConnectionResetError:
                packet = b""
            if not packet:
                continue
            answer = Answer.parse(packet)
            self.trace(f"    answer to {request}: {answer}")
            self.connections[n].append(self.callers[n].pop(request))
            self.answers.append(answer)
            self.questions.on_answer(request, answer)

    # Events.

    def execute(self, event: Event) -> None:
        self.trace(f"{self.now / SECOND:.4f} {event}")
        getattr(self, "on_" + event.name)(event.a, event.b)

    def on_found(self, a: int, b: int) -> None:
        n, path = a % 2 + 1, self.some_path(a >> 1)
        shared = not path.startswith(OWN + "/")
        if self.machines[n].starts == 0 and not (shared and n != 1):
            self.questions.put(n, path, self.write(n, path, b))

    def on_run(self, a: int, b: int) -> None:
        moves = self.moves()
        if not moves:
            self.pass_time(self.next_deadline() if self.next_deadline() != NEVER else self.now)
            moves = self.moves()
        if moves:
            self.move(*moves[a % len(moves)], 1 + b % 4, choice=a ^ b << 8)

    def on_flow(self, a: int, b: int) -> None:
        self.flow(a % 60, portion=1 + b % 3)

    def on_interrupt(self, a: int, b: int) -> None:
        self.go_some_way(a, interrupt_at=1 + b % 60)

    def on_die(self, a: int, b: int) -> None:
        self.go_some_way(a, die_at=1 + b % 60)

    def go_some_way(self, a: int, **order) -> None:
        runs = [move for move in self.moves() if move[0] == "run"]
        if runs:
            self.move(*runs[a % len(runs)], 1 + (a >> 8) % 4, choice=a, **order)

    def on_wait(self, a: int, b: int) -> None:
        self.flow(2000, self.now + int(WAITS[a % len(WAITS)] * SECOND), portion=1 + b % 3)

    def on_stall(self, a: int, b: int) -> None:
        """Time goes on for some of: EM 1, EM 2, the group."""
        who = b % 7
        self.flow(2000, self.now + int(WAITS[a % len(WAITS)] * SECOND),
                  [n for n in EMS if who & n], bool(who & 4))

    def on_cut(self, a: int, b: int) -> None:
        self.group.cut({1: a % 4, 2: b % 4})

    def on_heal(self, a: int, b: int) -> None:
        self.group.heal(together=a % 3 == 0)

    def on_kill(self, a: int, b: int) -> None:
        n = a % 2 + 1
        if self.machines[n].alive:
            self._on_end(n, -9, lost=b % 3)

    def on_start(self, a: int, b: int) -> None:
        self.start(min((n for n in EMS if not self.machines[n].alive), default=1))

    def on_exit(self, a: int, b: int) -> None:
        n = a % 2 + 1
        connection = self.connect(n) if self.machines[n].alive else None
        if connection is None:
            return
        connection.send(struct.pack("<I", 1) + b"exit\0")
        self.go_on(n)
        for _ in range(12):
            if self.machines[n].alive:
                self.pass_time(self.now + SECOND)
                self.go_on(n, flags=PASS | TICK)
        connection.close()

    def on_refuse(self, a: int, b: int) -> None:
        self.go_some_way(a, refuse=(1, 2, 5, 99, 100, 101)[b % 6])

    def on_hang_up(self, a: int, b: int) -> None:
        n = a % 2 + 1
        if self.callers[n]:
            request = list(self.callers[n])[b % len(self.callers[n])]
            self.callers[n].pop(request).close()
            self.questions.on_hang_up(request)

    def on_role(self, a: int, b: int) -> None:
        """The role moves, at once or with a time in which no EM has it."""
        active = [n for n in EMS if self.machines[n].active]
        self.questions.on_role()
        if active and b % 3 == 0:
            self.machines[active[0]].active = False
            return
        new = 3 - active[0] if active else a % 2 + 1
        for n in EMS:
            self.machines[n].active = n == new
        self.trace(f"    EM {new} is active")
        if self.machines[new].alive:
            self.ask(new, "", "", {})

    def on_ask(self, a: int, b: int) -> None:
        n, kind, path = a % 2 + 1, (a >> 1) % 10, self.some_path(a >> 5)
        if not self.machines[n].alive or len(self.callers[n]) >= 4 or path in self._in_a_move():
            return
        if kind < 2:
            self.ask(n, "", "", {})
        elif kind < 4:
            self.ask(n, "", path, {path: None})
        elif kind < 5 and self._move(n, path, b):
            return
        else:
            self.versions += 1
            folder = path[:path.rindex("/")]
            source = f"{folder}/TempUpdate_{self.versions}"
            self.ask(n, source, path, {path: self.write(n, source, b, like=path)})

    def _move(self, n: int, path: str, b: int) -> bool:
        """Asks to rename what is replicated already, when nothing else goes on at these paths."""
        other = f"{path[:path.rindex('/')]}/{'abc'[b % 3]}"
        content = self.questions.may_hold.get(self.questions.key(n, path), {None})
        busy = {p for request in self.questions.unsettled() for p in request.effects}
        shared = not path.startswith(OWN + "/")
        if other == path or len(content) != 1 or None in content or busy & {path, other} or shared:
            return False
        self.ask(n, path, other, {path: None, other: next(iter(content))})
        return True

    def _in_a_move(self) -> set[str]:
        return {path for request in self.questions.unsettled() if len(request.effects) == 2
                for path in request.effects}

    @staticmethod
    def some_path(a: int) -> str:
        return f"{(OWN, ACTIVE, VOLATILE)[a % 3]}/{FILES[a // 3 % len(FILES)]}"

    def write(self, n: int, path: str, b: int, like: str = "") -> bytes:
        """A new file: bytes of its own, or another file's with some of them changed."""
        self.versions += 1
        mark = f"{self.versions:07d}\n".encode()
        content = (mark * (SIZES[-1] // 8 + 1))[:SIZES[b % len(SIZES)]]
        old = Path(self.machines[n].path(like)) if like else None
        if old and b & 64 and old.is_file() and (old_size := old.stat().st_size) > 8:
            content = bytearray(old.read_bytes())
            content[b % (old_size - 7):][:8] = mark
            at = b * 8191 % (old_size - 7)
            content[at:at + 8] = mark
        target = Path(self.machines[n].path(path))
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(content)
        os.utime(target, (1_500_000_000 + b % 2,) * 2)
        target.chmod((0o644, 0o644, 0o600)[b >> 7 & 3 if b >> 7 & 3 < 3 else 0])
        return bytes(content)

    # The end.

    def come_to_rest(self) -> None:
        """The faults are over: the pair becomes equal by itself."""
        self.trace(f"{self.now / SECOND:.4f} the faults are over")
        self.group.heal()
        for n in EMS:
            self.flow(5)
            self.start(n)
        if not any(machine.active for machine in self.machines.values()):
            self.on_role(0, 1)
        self.wait_until(lambda: not self.questions.differences(), PEACE)
        difference = self.questions.differences()
        if difference:
            raise Wrong(f"{PEACE // SECOND} s after the last fault: {difference}")
        self.questions.check_end()
        self.ask_in_peace()

    def wait_until(self, at_rest, patience: int) -> None:
        """Everything goes on in turn until nothing does and `at_rest`, or for so long."""
        limit = self.now + patience
        while self.now < limit:
            moves = self.moves()
            for kind, n in moves:
                if kind == "order" or self.is_due(n):
                    self.move(kind, n, 1 << 30)
            if not moves:
                if at_rest():
                    return
                self.pass_time(self.next_deadline())
            for n in EMS:
                self.start(n)

    def ask_in_peace(self) -> None:
        """Without faults every request succeeds on both EMs, however many come at once."""
        self.trace(f"{self.now / SECOND:.4f} nothing disturbs")
        active = next(n for n in EMS if self.machines[n].active)
        for turn in range(2):
            first = len(self.answers)
            for n, path in ((1, f"{OWN}/a"), (2, f"{OWN}/b"), (active, f"{VOLATILE}/d/c"), (2, "")):
                source = f"{path[:path.rindex('/')]}/TempUpdate_peace" if path and turn == 0 else ""
                content = self.write(n, source, 1 + n) if source else None
                self.ask(n, source, path, {path: content} if path else {})
            self.wait_until(lambda: not self.questions.in_flight, 20 * SECOND)
            answers = self.answers[first:]
            if len(answers) < 4 or not all(one.success and one.peer_present for one in answers):
                raise Wrong(f"nothing disturbs, but the answers are {answers}")


def run(machines: dict[int, Machine], events: list[Event], trace=None) -> str:
    """Returns what went wrong, or nothing."""
    simulation = Simulation(machines, trace)
    try:
        for event in events:
            simulation.execute(event)
        simulation.come_to_rest()
    except (Wrong, Hang) as wrong:
        return str(wrong)
    finally:
        simulation.close()
    return ""
