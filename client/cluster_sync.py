"""Asks cluster_sync_daemon to change files that are replicated between two enclosure managers.

    import cluster_sync
    result = cluster_sync.put(b"text", "/mnt/part.persistent/replicated_by_this_em/cfg")

What may be given and what happens is in cluster_sync(3). Times are seconds, None sets no limit.
Failures are OSErrors: ConnectionRefusedError without a daemon, ConnectionResetError when it hangs
up, TimeoutError, and Refused with the daemon's own answer.
"""

import ctypes
import errno
import os
from collections.abc import Callable
from typing import NamedTuple

TIMEOUT = 60.0

Path = str | bytes | os.PathLike


class Result(NamedTuple):
    """What became of a request."""

    success: bool
    local_ok: bool
    remote_ok: bool
    benign: bool
    canceled: bool
    peer_present: bool
    reason: str


class Refused(OSError):
    """The daemon refuses the request or reports a failure; `result` is None for a diag."""

    def __init__(self, result: Result | None):
        super().__init__(errno.ECANCELED, result.reason if result else "the daemon refuses it")
        self.result = result


class _Record(ctypes.Structure):
    FLAGS = ("success", "local_ok", "remote_ok", "benign", "canceled")
    _fields_ = [*((name, ctypes.c_uint8) for name in FLAGS), ("padding", ctypes.c_uint8 * 3),
                ("peer_present", ctypes.c_uint32), ("reason", ctypes.c_char * 116)]

    def result(self) -> Result:
        flags = (bool(getattr(self, name)) for name in self.FLAGS)
        return Result(*flags, self.peer_present == ord("Y"), os.fsdecode(self.reason))


_library = ctypes.CDLL("libcluster-sync.so.0")
_library.cluster_sync_strerror.restype = ctypes.c_char_p


def _text(text: Path | None) -> bytes | None:
    if text is None:
        return None
    encoded = os.fsencode(text)
    if b"\0" in encoded:
        raise ValueError("embedded null byte")
    return encoded


def _milliseconds(timeout: float | None) -> int:
    return -1 if timeout is None else max(0, min(int(timeout * 1000), 2**31 - 1))


def _check(error: int, record: _Record | None = None) -> Result | None:
    result = record.result() if record and error in (0, errno.ECANCELED) else None
    if error == errno.ECANCELED:
        raise Refused(result)
    if error:
        raise OSError(error, _library.cluster_sync_strerror(error).decode())
    return result


def _request(function: Callable, socket: Path | None, *arguments, timeout: float | None) -> Result:
    record = _Record()
    return _check(function(_text(socket), *arguments, _milliseconds(timeout),
                           ctypes.byref(record)), record)


def update(source: Path, destination: Path, *, timeout: float | None = TIMEOUT,
           socket: Path | None = None) -> Result:
    """Renames `source` onto the replicated file `destination`."""
    return _request(_library.cluster_sync_update, socket, _text(source), _text(destination),
                    timeout=timeout)


def delete(destination: Path, *, timeout: float | None = TIMEOUT,
           socket: Path | None = None) -> Result:
    """Removes a replicated file."""
    return _request(_library.cluster_sync_delete, socket, _text(destination), timeout=timeout)


def sync(*, timeout: float | None = TIMEOUT, socket: Path | None = None) -> Result:
    """Only runs an exchange."""
    return _request(_library.cluster_sync_sync, socket, timeout=timeout)


def put(content, destination: Path, mode: int = 0o644, *, timeout: float | None = TIMEOUT,
        socket: Path | None = None) -> Result:
    """Publishes bytes, or what can be read from a file (an object with fileno()) to its end."""
    if hasattr(content, "fileno"):
        return _request(_library.cluster_sync_put_fd, socket, content.fileno(),
                        _text(destination), ctypes.c_uint(mode), timeout=timeout)
    data = bytes(memoryview(content))
    return _request(_library.cluster_sync_put, socket, data, ctypes.c_size_t(len(data)),
                    _text(destination), ctypes.c_uint(mode), timeout=timeout)


def diag(command: str, *, timeout: float | None = TIMEOUT, socket: Path | None = None) -> None:
    """Sends a diagnostic command."""
    _check(_library.cluster_sync_diag(_text(socket), _text(command), _milliseconds(timeout)))


class Connection:
    """Any number of requests, one after the other, for a caller that does something else meanwhile:
    fileno() becomes readable when the answer is there."""

    def __init__(self, socket: Path | None = None, timeout: float | None = TIMEOUT):
        self.timeout = timeout
        self._descriptor = -1
        descriptor = ctypes.c_int(-1)
        _check(_library.cluster_sync_connect(_text(socket), _milliseconds(timeout),
                                             ctypes.byref(descriptor)))
        self._descriptor = descriptor.value

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def __del__(self):
        self.close()

    def fileno(self) -> int:
        return self._descriptor

    def close(self) -> None:
        descriptor, self._descriptor = self._descriptor, -1
        if descriptor >= 0:
            os.close(descriptor)

    def send_update(self, source: Path | None = None, destination: Path | None = None) -> None:
        """Without `source` a deletion, without both an exchange."""
        _check(_library.cluster_sync_send_update(self._descriptor, _text(source),
                                                 _text(destination), _milliseconds(self.timeout)))

    def send_diag(self, command: str) -> None:
        _check(_library.cluster_sync_send_diag(self._descriptor, _text(command),
                                               _milliseconds(self.timeout)))

    def receive(self) -> Result:
        """The answer to an update."""
        record = _Record()
        return _check(_library.cluster_sync_receive(self._descriptor, _milliseconds(self.timeout),
                                                    None, ctypes.byref(record)), record)

    def receive_diag(self) -> None:
        """The answer to a diagnostic command."""
        _check(_library.cluster_sync_receive(self._descriptor, _milliseconds(self.timeout), None,
                                             None))
