"""One run: events on two daemons, drawn from a seed, and checks of the pair meanwhile.

An event is a name and two numbers, which choose among the possible actions at its turn. So any part of a list
of events is also a run, and a failing run can be reduced.
"""

import os
import random
import struct
from pathlib import Path
from typing import NamedTuple

from em_pair import ACTIVE, EMS, OWN, VOLATILE
from questions import CHUNK, Questions
from simulated.machine import NEVER, PASS, TICK, Hang, Machine
from simulated.pair import LISTING_REQ, SECOND, UPDATE_REQ, SimulatedPair, Wrong, header

CALM = 8 * SECOND  # after this time a caller that never pauses mostly succeeds again after a cut
SOON = 5 * SECOND  # after this time a started daemon is up to date
PEACE = 400 * SECOND  # after this time the pair is at rest after the last fault
WAITS = (0.01, 0.05, 0.3, 1, 2, 5, 9, 11, 12, 20, 46, 50, 100)
SIZES = (0, 10, 3000, CHUNK, CHUNK + 1, 2 * CHUNK + 100)
FILES = ("a", "b", "d/c")
EVENTS = {"run": 46, "flow": 8, "interrupt": 5, "ask": 17, "wait": 6, "stall": 3, "cut": 1.5,
          "heal": 3, "kill": 1, "die": 1.5, "start": 4, "role": 1.2, "overtake": 0.8, "refuse": 1,
          "hang_up": 1, "exit": 0.5, "foreign": 0.5, "stale": 1.5, "storm": 0.05}
BEFORE = 768  # bits of `b` that select an earlier content
BEGINNING = 12  # files that exist at the start


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


class Simulation(SimulatedPair):
    """A pair whose daemons run, wait and end as the events say."""

    def __init__(self, machines: dict[int, Machine], trace=None):
        super().__init__(machines, Questions(self), trace)
        self.versions = 0
        self.written: dict[tuple[int, str], list[bytes]] = {}

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
        """For a time, only some of EM 1, EM 2 and the group make progress."""
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
        if self.machines[n].alive:
            self.diagnose(n, "exit")
        for _ in range(12):
            if self.machines[n].alive:
                self.pass_time(self.now + SECOND)
                self.go_on(n, flags=PASS | TICK)

    def on_refuse(self, a: int, b: int) -> None:
        self.go_some_way(a, refuse=(1, 2, 5, 99, 100, 101)[b % 6])

    def on_foreign(self, a: int, b: int) -> None:
        """A process that is not a daemon sends to the group."""
        junk = (b"x" * 147, b"x" * 148, b"", struct.pack("<3I", 0x0A1FA1FA, 6 + b % 4, 0) + bytes(136))
        self.group.nodes[a % 2 + 1].to_send.append(("m", (a % 2 + 1, 9), junk[b // 4 % 4]))

    def on_stale(self, a: int, b: int) -> None:
        """During an exchange, delivers the listing of an earlier one, or once more the acknowledgement of an
        earlier chunk."""
        n, path = a % 2 + 1, self.some_path(a >> 1)
        if not self.machines[n].alive or len(self.callers[n]) >= 4 or path in self._in_a_move():
            return
        question = (LISTING_REQ, UPDATE_REQ)[a >> 9 & 1]
        large = b - b % len(SIZES) + len(SIZES) - 1
        self.change(n, path, large if question == UPDATE_REQ else b)
        if question == LISTING_REQ:  # then back to what that listing may have
            self.flow(60)
            if not self.machines[n].alive or path in self._in_a_move():
                return
            if a & 256:
                self.ask(n, "", path, {path: None})
            else:
                self.change(n, path, b | BEFORE)
        asked = self._flow_to(question)
        old = [message for sender, message in self.sent if asked and sender != asked[0] and
               header(message)[1] == question + 1 and header(message)[3:] != header(asked[1])[3:] and
               (question == LISTING_REQ or header(message)[3] == header(asked[1])[3])]
        if asked and old:
            self.group.place(("m", (3 - asked[0], 9), old[0]))

    def _flow_to(self, question: int) -> tuple[int, bytes] | None:
        """Continues until this message was sent, if it is; for an update, until the second one of an
        exchange."""
        for _ in range(80):
            if self.sent:
                _, command, _, _, sequence = header(self.sent[-1][1])
                if command == question and (command == LISTING_REQ or sequence > 1):
                    return self.sent[-1]
            self.flow(1)
        return None

    def on_storm(self, a: int, b: int) -> None:
        """Callers on both EMs that never pause, and a cut: their failures must end."""
        self.group.heal()
        for n in EMS:
            self.start(n)
        self.wait_until(lambda: True, 60 * SECOND)
        self.demand(self.now + SECOND // 2)
        self.group.cut({1: a % 4, 2: b % 4})
        self.demand(self.now + SECOND // 2)
        self.group.heal()
        self.demand(self.now + CALM)
        first = len(self.answers)
        self.demand(self.now + SECOND)
        told = self.answers[first:]
        if sum(answer.success for answer in told) * 2 <= len(told):
            raise Wrong(f"{CALM // SECOND} s after a cut {len(told)} answers in a second, failures: "
                        f"{[answer.reason for answer in told if not answer.success]}")

    def demand(self, until: int) -> None:
        """Three callers on each EM repeat their requests at once, until a time; messages take 8 ms."""
        while self.now < until:
            for n in EMS:
                while self.machines[n].alive and len(self.callers[n]) < 3:
                    before = len(self.callers[n])
                    self.ask(n, "", "", {})
                    if len(self.callers[n]) == before:
                        break
            for kind, n in self.moves():
                if kind == "order" or self.is_due(n):
                    self.move(kind, n, 1)
            self.pass_time(self.now + 8 * SECOND // 1000)

    def on_hang_up(self, a: int, b: int) -> None:
        n = a % 2 + 1
        if self.callers[n]:
            request = list(self.callers[n])[b % len(self.callers[n])]
            self.callers[n].pop(request).close()
            self.questions.on_hang_up(request)

    def on_role(self, a: int, b: int) -> None:
        """The role moves, at once or with a time in which no EM has it, or both."""
        active = [n for n in EMS if self.machines[n].active]
        new = 3 - active[0] if len(active) == 1 else a % 2 + 1
        if active and b % 4 == 0:
            self.give_role()
        else:
            self.give_role(new, *active if b % 4 == 1 and len(active) == 1 else ())

    def give_role(self, *active: int) -> None:
        """The one who moves the role must run `sync` on the first EM."""
        self.questions.on_role()
        for n in EMS:
            self.machines[n].active = n in active
        self.trace(f"    active: {active}")
        if active and self.machines[active[0]].alive:
            self.ask(active[0], "", "", {})

    def on_overtake(self, a: int, b: int) -> None:
        """A change of a shared tree waits for the exchange of the EM to which the role moves."""
        active = [n for n in EMS if self.machines[n].active]
        if len(active) != 1 or not all(machine.alive for machine in self.machines.values()):
            return
        n, path = active[0], self.some_path(1 + a % 2 + 3 * (a >> 1))
        self.ask(3 - n, "", "", {})
        self.flow(5, daemons=[3 - n], ordering=False)
        if path not in self._in_a_move():
            self.change(n, path, b)
        self.flow(5, daemons=[n], ordering=False)
        while self.group.nodes[3 - n].to_send:
            self.group.order(3 - n)
        self.flow(b % 25)
        self.give_role(3 - n)

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
            self.change(n, path, b)

    def change(self, n: int, path: str, b: int) -> None:
        self.versions += 1
        source = f"{path[:path.rindex('/')]}/TempUpdate_{self.versions}"
        self.ask(n, source, path, {path: self.write(n, source, b, like=path)})

    def _move(self, n: int, path: str, b: int) -> bool:
        """Asks to rename a replicated file, unless other requests use these paths."""
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
        """A new file: new bytes, another file's with some of them changed, or an earlier content of that
        file."""
        self.versions += 1
        mark = f"{self.versions:07d}\n".encode()
        content = (mark * (SIZES[-1] // 8 + 1))[:SIZES[b % len(SIZES)]]
        old = Path(self.machines[n].path(like)) if like else None
        if old and b & 64 and old.is_file() and (old_size := old.stat().st_size) > 8:
            content = bytearray(old.read_bytes())
            content[b % (old_size - 7):][:8] = mark
            at = b * 8191 % (old_size - 7)
            content[at:at + 8] = mark
        written = self.written.setdefault((n, like), [])
        if b & BEFORE == BEFORE and len(written) > 1:
            content = written[-2]
        written.append(bytes(content))
        target = Path(self.machines[n].path(path))
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(content)
        os.utime(target, (1_500_000_000 + b % 2,) * 2)
        target.chmod((0o644, 0o644, 0o600)[b >> 7 & 3 if b >> 7 & 3 < 3 else 0])
        return bytes(content)

    # The end.

    def come_to_rest(self) -> None:
        """After the last fault, the pair becomes equal by itself."""
        self.trace(f"{self.now / SECOND:.4f} the faults are over")
        self.group.heal()
        for n in EMS:
            self.flow(5)
            self.start(n)
        if sum(machine.active for machine in self.machines.values()) != 1:
            self.give_role(1)
        self.wait_until(lambda: not self.questions.differences(), PEACE)
        difference = self.questions.differences()
        if difference:
            raise Wrong(f"{PEACE // SECOND} s after the last fault: {difference}")
        self.questions.check_end()
        self.ask_in_peace()

    def ask_in_peace(self) -> None:
        """Without faults every request succeeds on both EMs, even if many come at once, in whatever order the
        two EMs proceed."""
        self.trace(f"{self.now / SECOND:.4f} nothing disturbs")
        active = next(n for n in EMS if self.machines[n].active)
        for turn in range(2):
            first = len(self.answers)
            asked = ((1, f"{OWN}/a"), (2, f"{OWN}/b"), (active, f"{VOLATILE}/d/c"), (2, ""), (1, ""))
            for n, path in asked:
                source = f"{path[:path.rindex('/')]}/TempUpdate_peace" if path and turn == 0 else ""
                content = self.write(n, source, 1 + n) if source else None
                self.ask(n, source, path, {path: content} if path else {})
            self.get_on_at_random(random.Random(self.versions), 20 * SECOND)
            answers = self.answers[first:]
            if len(answers) < len(asked) or not all(one.success and one.peer_present for one in answers):
                raise Wrong(f"nothing disturbs, but the answers are {answers}")

    def get_on_at_random(self, chance: random.Random, patience: int) -> None:
        limit = self.now + patience
        while self.now < limit:
            moves = self.moves()
            if moves:
                self.move(*chance.choice(moves), chance.randint(1, 3), choice=chance.getrandbits(16))
            elif self.questions.in_flight or not self.nothing_waits():
                self.pass_time(self.next_deadline())
            else:
                return

    def restart_in_peace(self) -> None:
        """A caller that waits when a daemon ends is answered at once. When the daemon starts again, it is
        brought up to date at once, whatever the other EM does at that moment."""
        chance = random.Random(self.versions)
        for n in EMS:
            self.ask(3 - n, "", "", {})
            self.flow(chance.randrange(20))
            self._on_end(n, -9)
            self.get_on_at_random(chance, SOON)
            if self.questions.in_flight:
                raise Wrong(f"{SOON // SECOND} s after the end of EM {n}'s daemon: no answer")
            path = f"{OWN}/d/c"
            self.questions.put(3 - n, path, self.write(3 - n, path, 2))
            self.ask(3 - n, "", "", {})
            self.flow(chance.randrange(8), daemons=[3 - n])
            self.start(n)
            self.get_on_at_random(chance, SOON)
            self.wait_until(lambda: not self.questions.differences(), SOON)
            if difference := self.questions.differences():
                raise Wrong(f"{SOON // SECOND} s after a start: {difference}")


def run(machines: dict[int, Machine], events: list[Event], trace=None) -> str:
    """Returns what went wrong, or an empty text."""
    simulation = Simulation(machines, trace)
    try:
        for event in events:
            simulation.execute(event)
        simulation.come_to_rest()
        simulation.restart_in_peace()
    except (Wrong, Hang) as wrong:
        return str(wrong)
    finally:
        simulation.close()
    return ""
