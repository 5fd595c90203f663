"""A local program that asks the daemon of an EM through its command socket, from outside."""

import ctypes
import select
import sys

from em_pair import COMMAND_SOCKET, REPO, EmPair

# The library of the build, which the module then finds under its name.
ctypes.CDLL(str(REPO / "build/libcluster-sync.so.1"))
sys.path.insert(0, str(REPO / "client/python"))

from cluster_sync import Connection, Refused, Result  # noqa: E402

Update = tuple[str, str]  # source and destination; empty without
SYNC = ("", "")
PATIENCE = 120  # seconds for an answer


def socket_path(pair: EmPair, n: int) -> str:
    return str(pair.path(n, f"/run/em/cmd.{COMMAND_SOCKET}"))


class Caller(Connection):
    """A connection to an EM's daemon. What is `asked`, an update or a diagnostic command, is sent at
    once; the answer can be had later."""

    def __init__(self, pair: EmPair, n: int, asked: Update | str | None = SYNC):
        super().__init__(socket_path(pair, n), PATIENCE)
        if asked is not None:
            self.send(asked)

    def send(self, asked: Update | str = SYNC) -> None:
        if isinstance(asked, str):
            self.send_diag(asked)
        else:
            self.send_update(*(path or None for path in asked))

    def answered(self) -> bool:
        return bool(select.select([self], [], [], 0)[0])

    def result(self) -> Result:
        """The answer to an update."""
        result = self.outcome()
        assert result is not None, "the daemon hung up"
        return result

    def outcome(self) -> Result | None:
        """The same, or None when the daemon hung up."""
        try:
            return self.receive()
        except Refused as refusal:
            return refusal.result
        except ConnectionResetError:
            return None

    def accepted(self) -> bool | None:
        """Whether the daemon took a diagnostic command; None when it hung up."""
        try:
            self.receive_diag()
            return True
        except Refused:
            return False
        except ConnectionResetError:
            return None
