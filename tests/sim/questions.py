"""The checks of the pair at every step and at the end."""

import os
import struct

from em_pair import ACTIVE, EMS, OWN, PEERS, VOLATILE
from simulated.machine import ROOTS
from simulated.pair import (COMMANDS, LISTING_REQ, LOCK_REL, LOCK_REQ, UPDATE_REQ, Answer, Request,
                            Wrong, header)

CHUNK = 65536
HEAD, MAGIC = 12, b"\xfa\xa1\x1f\x0a"  # of a message event; start of a message
SHARED = (ACTIVE, VOLATILE)
PAYLOAD, PUSH_REQ, PUSH_DEL_REQ, SHARED_ROOTS = 148, 2, 4, (0, 3)  # of an update message


def root_of(path: str) -> str:
    return next(root for root in ROOTS if path.startswith(root + "/"))


class Questions:
    """Keeps the allowed contents of each path in a source tree. `pair` has machines."""

    def __init__(self, pair):
        self.pair = pair
        self.moves = 0  # of the role
        self.may_hold: dict[tuple[int, str], set[bytes | None]] = {}
        self.in_one_copy = self.may_hold.copy()  # the same if the role moves: what had no success on
        #                                          both EMs may be lost then
        self.holder: dict[int, int | None] = dict.fromkeys(EMS)  # of the lock, as each EM knows it
        self.has_rights: dict[int, bool] = {}  # the EM may change shared trees in its last exchange
        self.may_have_rights: set[int] = set()  # the role moved during a step of the exchange
        self.in_flight: list[Request] = []
        self.abandoned: list[Request] = []  # the caller has left, but it may still be served

    # Who holds the lock, and with which rights.

    def on_sent(self, n: int, message: bytes) -> None:
        command = header(message)[1]
        if command == LOCK_REQ:
            self.has_rights[n] = self.pair.machines[n].active or n in self.may_have_rights
            self.may_have_rights.discard(n)
        if command == UPDATE_REQ and not self.has_rights[n] and changes_shared_tree(message):
            raise Wrong(f"EM {n} changes a shared tree, but was not active when it asked for the lock")
        if command in (LISTING_REQ, UPDATE_REQ) and self.holder[n] != n:
            raise Wrong(f"EM {n} sends {COMMANDS[command]}, but the lock is "
                        f"{self.holder[n] and f'of EM {self.holder[n]}' or 'free'}")

    def on_taken(self, n: int, event: bytes) -> None:
        command = event[HEAD + 4] if event[HEAD:].startswith(MAGIC) else None
        if event[0] == ord("c") or command == LOCK_REL:
            self.holder[n] = None
        elif command == LOCK_REQ and self.holder[n] is None:
            self.holder[n] = event[4]

    # Whether answers are true.

    def key(self, em: int, path: str) -> tuple[int, str]:
        return (0 if root_of(path) in SHARED else em), path

    def put(self, em: int, path: str, content: bytes) -> None:
        """A file that existed before the daemons started."""
        self.may_hold[self.key(em, path)] = {content}
        self.in_one_copy[self.key(em, path)] = {None, content}

    def on_role(self) -> None:
        self.moves += 1
        self.may_have_rights |= {n for n, machine in self.pair.machines.items()
                                 if not (machine.report and machine.report.waits_in_poll)}
        for key, contents in self.in_one_copy.items():
            if key[0] == 0:
                self.may_hold[key] = set(contents)

    def unsettled(self) -> list[Request]:
        return self.in_flight + self.abandoned

    def on_asked(self, request: Request) -> None:
        for other in self.unsettled():
            same_tree = request.em == other.em or root_of(request.destination or OWN + "/") in SHARED
            if same_tree and request.effects.keys() & other.effects.keys():
                request.others.append(other)
                other.others.append(request)
        self.in_flight.append(request)
        for path, content in request.effects.items():
            key = self.key(request.em, path)
            request.first = content not in self.may_hold.get(key, {None})
            for held in (self.may_hold, self.in_one_copy):
                held.setdefault(key, {None}).add(content)

    def on_hang_up(self, request: Request) -> None:
        self.in_flight.remove(request)
        self.abandoned.append(request)

    def on_daemon_end(self, n: int) -> None:
        self.holder[n] = None
        self.in_flight = [request for request in self.in_flight if request.em != n]
        self.abandoned = [request for request in self.abandoned if request.em != n]

    def on_answer(self, request: Request, answer: Answer) -> None:
        self.in_flight.remove(request)
        if not answer.success and not answer.local_ok:
            return self._on_refusal(request)
        shared = any(root_of(path) in SHARED for path in request.effects)
        # Changes meanwhile by an EM that also had the role.
        moved = self.moves > request.moves or all(one.active for one in self.pair.machines.values())
        for path, content in request.effects.items():
            allowed = {content} | {other.effects[path] for other in request.others
                                   if path in other.effects and not other.refused}
            if answer.success or not (shared and moved):
                self._expect(request, answer, request.em, path, allowed)
            if answer.success and answer.peer_present:
                copy = PEERS + path[len(OWN):] if path.startswith(OWN + "/") else path
                self._expect(request, answer, 3 - request.em, copy, allowed)
            both = answer.success and answer.peer_present
            if not shared or not self.moves or both:
                self.may_hold[self.key(request.em, path)] = set(allowed)
            if both:
                self.in_one_copy[self.key(request.em, path)] = set(allowed)
        self.check_sources()

    def _on_refusal(self, request: Request) -> None:
        request.refused = True
        if request.source and "TempUpdate_" in request.source:
            if not os.path.exists(self.pair.machines[request.em].path(request.source)):
                raise Wrong(f"{request}: refused with local_ok 0, but the source is gone")
            os.unlink(self.pair.machines[request.em].path(request.source))
            if request.first and not request.others:
                self.may_hold[self.key(request.em, request.destination)].discard(
                    request.effects[request.destination])

    def _expect(self, request: Request, answer: Answer, em: int, path: str, allowed: set) -> None:
        found = content_of(self.pair.machines[em].path(path))
        if found not in allowed:
            raise Wrong(f"{request}: {answer}, but EM {em} has {describe(found)} at {path} instead of "
                        f"{' or '.join(map(describe, allowed))}")

    # Other changes.

    def check_sources(self) -> None:
        """The source trees hold what was requested and nothing else."""
        for n in EMS:
            self._check_tree(n, OWN, n)
        active = [n for n in EMS if self.pair.machines[n].active]
        if self.moves == 0 and len(active) == 1:
            for root in SHARED:
                self._check_tree(active[0], root, 0)

    def _check_tree(self, n: int, root: str, owner: int) -> None:
        found = self.pair.machines[n].read(root)
        names = {path[len(root) + 1:] for tree, path in self.may_hold
                 if tree == owner and path.startswith(root + "/")}
        for name in names | found.keys():
            allowed = self.may_hold.get((owner, f"{root}/{name}"), {None})
            if found.get(name) not in allowed:
                raise Wrong(f"EM {n} has {describe(found.get(name))} at {root}/{name} instead of "
                            f"{' or '.join(map(describe, allowed))}")

    # At the end.

    def differences(self) -> str:
        """Why the pair is not at rest, or an empty text."""
        machines = self.pair.machines
        active = next(n for n in EMS if machines[n].active)
        for n, root, copy in ((1, OWN, PEERS), (2, OWN, PEERS), (active, ACTIVE, ACTIVE),
                              (active, VOLATILE, VOLATILE)):
            source, other = machines[n].read(root), machines[3 - n].read(copy)
            for name in source.keys() | other.keys():
                if source.get(name) != other.get(name):
                    return (f"EM {n} has {describe(source.get(name))} at {root}/{name}, "
                            f"EM {3 - n} {describe(other.get(name))} in its copy")
        if self.in_flight:
            return f"no answer: {self.in_flight[0]}"
        if machines[active].fault != 1:
            return "the fault event says failing"
        return ""

    def check_end(self) -> None:
        self.check_sources()
        active = next(n for n in EMS if self.pair.machines[n].active)
        for (owner, path), allowed in self.may_hold.items():
            found = content_of(self.pair.machines[active].path(path)) if owner == 0 else None
            # If the role moves during an exchange, a file of two versions may become the source.
            mixed = self.moves and found and len(found) > CHUNK
            if owner == 0 and found not in allowed and not mixed:
                raise Wrong(f"EM {active} has {describe(found)} at {path} instead of "
                            f"{' or '.join(map(describe, allowed))}")


def changes_shared_tree(update: bytes) -> bool:
    kind, root = struct.unpack_from("<I4xI", update, PAYLOAD)
    return kind in (PUSH_REQ, PUSH_DEL_REQ) and root in SHARED_ROOTS


def content_of(path: str) -> bytes | None:
    try:
        with open(path, "rb") as file:
            return file.read()
    except OSError:
        return None


def describe(content: bytes | None) -> str:
    if content is None:
        return "nothing"
    return f"{len(content)} bytes beginning with {content[:8]!r}"
