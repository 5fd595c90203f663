"""A local program that sends requests to the daemon of an EM from outside the EM."""

import ctypes
import select
import sys

from em_pair import COMMAND_SOCKET, REPO, EmPair

# Load the library of the build first, so that the module finds it by its name.
ctypes.CDLL(str(REPO / "build/libcluster-sync.so.1"))
sys.path.insert(0, str(REPO / "client/python"))

from cluster_sync import Connection, Refused, Result  # noqa: E402

Update = tuple[str, str]  # source and destination; empty for none
SYNC = ("", "")
PATIENCE = 120  # seconds for an answer


def socket_path(pair: EmPair, n: int) -> str:
    return str(pair.path(n, f"/run/em/cmd.{COMMAND_SOCKET}"))


class Caller(Connection):
    """A connection to an EM's daemon. Sends `asked`, an update or a diagnostic command, at once; take the answer
    later."""

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
        """Returns the answer to an update."""
        result = self.outcome()
        assert result is not None, "the daemon hung up"
        return result

    def outcome(self) -> Result | None:
        """The same, or None if the daemon closed the connection."""
        try:
            return self.receive()
        except Refused as refusal:
            return refusal.result
        except ConnectionResetError:
            return None

    def accepted(self) -> bool | None:
        """Whether the daemon accepted a diagnostic command; None if it closed the connection."""
        try:
            self.receive_diag()
            return True
        except Refused:
            return False
        except ConnectionResetError:
            return None
