"""A local program that asks the daemon of an EM through its command socket."""

import os
import select
import socket
import struct
from typing import NamedTuple

from em_pair import COMMAND_SOCKET, EmPair

UPDATE, DIAGNOSTIC = 0, 1
SYNC = b"\0\0"
PATIENCE = 120  # seconds for an answer


class Result(NamedTuple):
    """The record that answers an update."""

    success: bool
    local_ok: bool
    remote_ok: bool
    benign: bool
    canceled: bool
    peer_present: str
    reason: str


def request(source: str, destination: str) -> bytes:
    return b"".join(os.fsencode(path) + b"\0" for path in (source, destination))


class Caller:
    """A connection to an EM's daemon. `message` is sent at once, the answer can be had later."""

    def __init__(self, pair: EmPair, n: int, message: bytes | None = SYNC, kind: int = UPDATE):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.connect(str(pair.path(n, f"/run/em/cmd.{COMMAND_SOCKET}")))
        self.socket.settimeout(PATIENCE)
        if message is not None:
            self.send(message, kind)

    def send(self, message: bytes = SYNC, kind: int = UPDATE) -> None:
        self.socket.send(struct.pack("<I", kind) + message)

    def answered(self) -> bool:
        return bool(select.select([self.socket], [], [], 0)[0])

    def packet(self) -> bytes:
        """The answer; empty when the daemon hung up."""
        try:
            return self.socket.recv(4096)
        except ConnectionResetError:
            return b""

    def status(self) -> int | None:
        """The status that answers anything but an update; None when the daemon hung up."""
        packet = self.packet()
        return struct.unpack("<I", packet)[0] if packet else None

    def result(self) -> Result | None:
        packet = self.packet()
        if not packet:
            return None
        status, *flags, peer, reason = struct.unpack("<I5?3xI116s", packet)
        assert status == 0, packet
        return Result(*flags, chr(peer), os.fsdecode(reason.split(b"\0")[0]))
