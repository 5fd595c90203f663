"""The process group of two nodes, as in cpg_overview(3): each component has one agreed order of messages and
membership changes. A cut may lose what is in transit.

Nothing happens by itself. The caller decides when a message gets its place in the order and when a process
takes the events that have reached its node.
"""

import struct
from collections import deque
from dataclasses import dataclass, field

NODES = (1, 2)
REASON_JOIN, REASON_LEAVE, REASON_NODE_DOWN, REASON_PROCESS_DOWN = 1, 2, 3, 5
Process = tuple[int, int]  # node, process id
Item = tuple  # ("m", process, bytes), ("join", process), ("leave", process, reason), ("cut",) or
#             ("merge", processes): those that a node learns of now


def message_event(sender: Process, message: bytes) -> bytes:
    return struct.pack("<3I", ord("m"), *sender) + message


def change_event(members, left, joined) -> bytes:
    """Three lists of processes and reasons."""
    return struct.pack("<4I", ord("c"), len(members), len(left), len(joined)) + b"".join(
        struct.pack("<3I", *process, reason) for process, reason in (*members, *left, *joined))


@dataclass
class Node:
    process: Process | None = None  # the process that is connected on this node
    members: list[Process] = field(default_factory=list)  # after the items taken so far
    to_send: deque[Item] = field(default_factory=deque)  # not ordered yet
    ordered: deque[Item] = field(default_factory=deque)  # not taken yet


class Group:
    def __init__(self):
        self.nodes = {n: Node() for n in NODES}
        self.connected = True

    # Actions of processes.

    def connect(self, process: Process) -> None:
        self.nodes[process[0]].process = process

    def send(self, n: int, message: bytes) -> None:
        self.nodes[n].to_send.append(("m", self.nodes[n].process, message))

    def join(self, n: int) -> None:
        self.nodes[n].to_send.append(("join", self.nodes[n].process))

    def end(self, n: int, reason: int = REASON_PROCESS_DOWN, lost: int = 0) -> None:
        """The process on node `n` ends; the last `lost` messages that it sent are lost."""
        node = self.nodes[n]
        process, node.process = node.process, None
        while lost > 0 and node.to_send and node.to_send[-1][0] == "m":
            node.to_send.pop()
            lost -= 1
        node.to_send.append(("leave", process, reason))
        self.take(n, 0)

    # Actions of the network.

    def order(self, n: int) -> Item:
        """Gives the next item of node `n` its place in the order."""
        item = self.nodes[n].to_send.popleft()
        self.place(item)
        return item

    def place(self, item: Item) -> None:
        """An item of a process gets its place, before all that its node has still to send."""
        self._place(item, NODES if self.connected else (item[1][0],))

    def _place(self, item: Item, nodes) -> None:
        for n in nodes:
            self.nodes[n].ordered.append(item)
            self.take(n, 0)

    def cut(self, lost: dict[int, int]) -> None:
        """Separates the nodes. Node n loses the last lost[n] items that it has not taken yet, except its own,
        which it always gets."""
        if not self.connected:
            return
        self.connected = False
        for n in NODES:
            node = self.nodes[n]
            kept = len(node.ordered) - min(lost[n], len(node.ordered))
            node.ordered = deque(item for i, item in enumerate(node.ordered)
                                 if i < kept or item[0] in ("cut", "merge") or item[1][0] == n)
            self._place(("cut",), [n])

    def heal(self, together: bool = False) -> None:
        """Reconnects the nodes. With `together`, a process that was about to join becomes a member in the same
        change."""
        if self.connected:
            return
        self.connected = True
        joining = [node.to_send.popleft()[1] for node in self.nodes.values()
                   if together and node.to_send and node.to_send[0][0] == "join"]
        found = {n: [member for member in self._members_at_end(n) if member[0] == n] for n in NODES}
        for n in NODES:
            self._place(("merge", found[3 - n] + joining), [n])

    def _members_at_end(self, n: int) -> list[Process]:
        members = list(self.nodes[n].members)
        for item in self.nodes[n].ordered:
            members = self._change(n, members, item)[0]
        return members

    @staticmethod
    def _change(n: int, members: list[Process], item: Item):
        """The members after an item, the joined and the left processes, each with the reason."""
        joined, left = [], []
        if item[0] == "join":
            joined = [(item[1], REASON_JOIN)]
        elif item[0] == "leave":
            left = [(item[1], item[2])]
        elif item[0] == "merge":
            joined = [(process, REASON_JOIN) for process in item[1]]
        elif item[0] == "cut":
            left = [(member, REASON_NODE_DOWN) for member in members if member[0] != n]
        left = [(process, reason) for process, reason in left if process in members]
        gone = [process for process, _ in left]
        members = [member for member in members if member not in gone]
        return members + [process for process, _ in joined], joined, left

    # Events for processes.

    def waiting(self, n: int) -> int:
        """Number of events that wait for the process on node `n`."""
        return len(self.nodes[n].ordered)

    def take(self, n: int, count: int) -> list[bytes]:
        """The next `count` events for the process on node `n`; events for no process are dropped."""
        node = self.nodes[n]
        events: list[bytes] = []
        while node.ordered:
            before = node.members
            members, joined, left = self._change(n, before, node.ordered[0])
            listens = node.process in members or node.process in before
            event = self._event(node.ordered[0], members, joined, left) if listens else None
            if event is not None and len(events) == count:
                break
            node.ordered.popleft()
            node.members = members
            if event is not None:
                events.append(event)
        return events

    @staticmethod
    def _event(item: Item, members, joined, left) -> bytes | None:
        if item[0] == "m":
            return message_event(item[1], item[2])
        if not joined and not left:
            return None
        return change_event([(member, 0) for member in members], left, joined)
