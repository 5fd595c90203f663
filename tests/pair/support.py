"""The command sockets without a client program in between: many callers can wait at once."""

import os
import select
import signal
import socket
import struct
from typing import NamedTuple

from harness import DEADLINE, EMS, ROOTS, PairTest, wait_for
from em_pair import COMMAND_SOCKET

UPDATE, DIAGNOSTIC = 0, 1
UNKNOWN_REQUEST = 6
HEALTHY, FAILING = 1, 4
SYNC = b"\0\0"
EDOM = "Numerical argument out of domain"


class Result(NamedTuple):
    """The record that answers an update."""

    success: bool
    local_ok: bool
    remote_ok: bool
    benign: bool
    canceled: bool
    peer_present: str
    reason: str


def unpack(record: bytes) -> Result:
    *flags, peer, reason = struct.unpack("<5?3xI116s", record)
    return Result(*flags, chr(peer), os.fsdecode(reason.split(b"\0")[0]))


def request(source: str, destination: str) -> bytes:
    return b"".join(os.fsencode(path) + b"\0" for path in (source, destination))


class Caller:
    """A connection to an EM's daemon. `message` is sent at once, the answer can be had later."""

    def __init__(self, pair, n: int, message: bytes = SYNC, kind: int = UPDATE):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.connect(str(pair.path(n, f"/run/em/cmd.{COMMAND_SOCKET}")))
        self.socket.settimeout(DEADLINE)
        self.send(message, kind)

    def send(self, message: bytes = SYNC, kind: int = UPDATE) -> None:
        self.socket.send(struct.pack("<I", kind) + message)

    def answered(self) -> bool:
        return bool(select.select([self.socket], [], [], 0)[0])

    def status(self) -> int | None:
        """The status that answers anything but an update, None when the daemon hung up."""
        try:
            packet = self.socket.recv(1 << 17)
        except ConnectionResetError:
            return None
        assert len(packet) in (0, 4), packet
        return struct.unpack("<I", packet)[0] if packet else None

    def result(self) -> Result:
        packet = self.socket.recv(1 << 17)
        assert len(packet) == 132 and packet[:4] == bytes(4), packet
        return unpack(packet[4:])


class SocketTest(PairTest):
    def call(self, n: int, message: bytes = SYNC, kind: int = UPDATE) -> Caller:
        caller = Caller(self.pair, n, message, kind)
        self.addCleanup(caller.socket.close)
        return caller

    def update(self, n: int, source: str, destination: str) -> Result:
        return self.call(n, request(source, destination)).result()

    def status(self, n: int, command: str | bytes) -> int | None:
        """Status of a diagnostic command."""
        return self.call(n, os.fsencode(command), DIAGNOSTIC).status()

    def synced(self, n: int) -> Result:
        result = self.call(n).result()
        self.assertEqual((True, ""), (result.success, result.reason))
        return result

    def assert_refused(self, result: Result, reason: str, benign: bool) -> None:
        """Refused before anything was changed."""
        self.assertEqual((False, False, False, benign, reason[:115]),
                         (*result[:4], result.reason))

    def assert_failed(self, result: Result, reason: str) -> None:
        """Failed in the exchange."""
        self.assertEqual((False, False, reason[:115]),
                         (result.success, result.remote_ok, result.reason))

    def assert_settled(self, n: int) -> None:
        """An exchange from EM `n` succeeds and finds nothing left to do."""
        start = len(self.new_log(n))
        self.synced(n)
        self.assert_not_logged(n, "SYNC Update chunk", "@@ Pull del", start=start)

    def assert_logged(self, n: int, *texts: str, start: int = 0) -> None:
        """EM `n`'s daemon logged every text since the test began or since `start` characters."""
        log = self.new_log(n)[start:]
        self.assertEqual([], [text for text in texts if text not in log], "not logged")

    def assert_not_logged(self, n: int, *texts: str, start: int = 0) -> None:
        log = self.new_log(n)[start:]
        self.assertEqual([], [text for text in texts if text in log], "logged")

    def clear(self) -> None:
        """Empties all trees, which may keep exchanges from succeeding."""
        for n in EMS:
            self.pair.run(n, ["find", *ROOTS, "-mindepth", "1", "-delete"], check=True)

    def hold(self, n: int) -> None:
        """Freezes EM `n`'s daemon until the end of the test at the latest."""
        process = self.pair.process(n, "daemon")
        self.pair.signal(n, "daemon", signal.SIGSTOP)
        self.addCleanup(lambda: process.poll() is None and process.send_signal(signal.SIGCONT))

    def wait_answered(self, callers: list[Caller], count: int) -> list[Caller]:
        """Waits until `count` of the callers have their answers; returns these callers."""
        wait_for(lambda: sum(caller.answered() for caller in callers) >= count, DEADLINE,
                 f"{count} callers have answers")
        return [caller for caller in callers if caller.answered()]
