"""Changes files that are replicated between two enclosure managers, through cluster_sync_daemon.

    import cluster_sync
    result = cluster_sync.put(b"text", "/mnt/part.persistent/replicated_by_this_em/cfg")

cluster_sync(3) explains the arguments and the behaviour. Times are seconds; None and infinity set no limit.
Failures are OSErrors with the name of the file: ConnectionRefusedError without a daemon, ConnectionResetError
if the daemon closes the connection, TimeoutError if nothing has been changed in time, InProgress if the
daemon has the change by then, and Refused with the daemon's answer. reason() tells what a program can do
about each of them.
"""

import ctypes
import enum
import errno
import math
import os
import select
import time
from collections.abc import Iterator
from typing import Any, NamedTuple, Protocol, Self

__all__ = ["Comparison", "Connection", "Difference", "InProgress", "Readable", "Reason", "Refused",
           "Result", "TIMEOUT", "Tree", "compare", "delete", "diag", "put", "reason", "sync", "update"]

TIMEOUT = 60.0

Path = str | bytes | os.PathLike[str] | os.PathLike[bytes]

_CHUNK = 65536
_SLICE_MS = 200  # longest wait in the library, during which Python handles no signal


class Readable(Protocol):
    """An object whose read() returns bytes, and empty bytes at the end."""

    def read(self, size: int, /) -> bytes | None: ...


class Result(NamedTuple):
    """The result of a request."""

    success: bool
    local_ok: bool
    remote_ok: bool
    benign: bool
    canceled: bool
    peer_present: bool
    reason: str


class Tree(NamedTuple):
    """Counts of the files of one tree."""

    here: int
    there: int
    only_here: int
    only_there: int
    different: int


class Difference(NamedTuple):
    """A file that differs: "<" only here, ">" only there, "!" in content or mode."""

    sign: str
    tree: str
    path: str


class Comparison(NamedTuple):
    """The trees by name: "active", "volatile", "own" (this EM's) and "copy" (the other EM's)."""

    trees: dict[str, Tree]
    differences: list[Difference]


class Reason(enum.IntEnum):
    """The reason of a failure; cluster_sync(3) says what to do about each."""

    NO_REASON = 0
    NOT_ACTIVE = 1
    BUSY = 2
    NOT_REPLICATED = 3
    OTHER_FILE_SYSTEM = 4
    NO_SUCH_FILE = 5
    ERROR_HERE = 6
    ERROR_THERE = 7
    TIMED_OUT = 8
    PROTOCOL = 9
    NO_DAEMON = 10
    OTHER = 11

    @classmethod
    def _missing_(cls, value: object) -> "Reason":
        return cls.OTHER  # from a later library


class Refused(OSError):
    """The daemon refused the request or reports a failure; `result` is None for a diag."""

    def __init__(self, result: Result | None, filename: Path | None = None,
                 why: Reason = Reason.OTHER):
        text = result.reason if result else "the daemon refuses it"
        super().__init__(errno.ECANCELED, text, filename)
        self.result = result
        self.why = why


class InProgress(TimeoutError):
    """The time limit expired; the daemon has the change, and its exchange continues."""


class _Record(ctypes.Structure):
    _fields_ = [("success", ctypes.c_uint8), ("local_ok", ctypes.c_uint8),
                ("remote_ok", ctypes.c_uint8), ("benign", ctypes.c_uint8),
                ("canceled", ctypes.c_uint8), ("padding", ctypes.c_uint8 * 3),
                ("peer_present", ctypes.c_uint32), ("reason", ctypes.c_char * 116)]

    def result(self) -> Result:
        return Result(bool(self.success), bool(self.local_ok), bool(self.remote_ok),
                      bool(self.benign), bool(self.canceled), self.peer_present == ord("Y"),
                      os.fsdecode(self.reason))


class _TreeRecord(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char * 16), *((name, ctypes.c_uint32) for name in Tree._fields)]


_OnDifference = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_char, ctypes.c_char_p,
                                 ctypes.c_char_p)


_COUNTERS = ("syncs_from_self", "syncs_from_peer", "chunk_writes_from_peer",
             "digest_files_created", "atomic_updates_from_self", "digest_files_scanned",
             "digest_chunks_scanned", "digest_bytes_elided", "filesys_files_scanned",
             "filesys_chunks_scanned", "filesys_bytes_scanned")


class _State(ctypes.Structure):
    _fields_ = [("size", ctypes.c_uint32), ("em_number", ctypes.c_uint32),
                ("number_source", ctypes.c_uint32), ("active", ctypes.c_uint32),
                ("joined", ctypes.c_uint32), ("peer_present", ctypes.c_uint32),
                ("exchange_state", ctypes.c_uint32), ("exchange_state_age", ctypes.c_int32),
                ("activity", ctypes.c_uint32), ("heartbeat_age", ctypes.c_int32),
                ("hung", ctypes.c_uint32), ("uptime", ctypes.c_int32),
                ("last_success_age", ctypes.c_int32), ("last_error_age", ctypes.c_int32),
                ("consecutive_errors", ctypes.c_int32), ("resync_in", ctypes.c_int32),
                ("waiting", ctypes.c_int32), ("fault", ctypes.c_uint32),
                ("both_active", ctypes.c_uint32), ("recorder_paused", ctypes.c_uint32),
                ("rpc_stage", ctypes.c_uint32), ("member_count", ctypes.c_uint32),
                ("members", ctypes.c_uint32 * 16), ("counters", ctypes.c_uint64 * 11),
                ("version", ctypes.c_char * 24), ("last_error", ctypes.c_char * 116),
                ("last_cause", ctypes.c_char * 116)]

    def fields(self) -> dict[str, Any]:
        values: dict[str, Any] = {}
        for name, kind in self._fields_:
            value = getattr(self, name)
            values[name] = os.fsdecode(value) if isinstance(value, bytes) else value
        pairs = list(self.members)
        values["members"] = list(zip(pairs[::2], pairs[1::2]))[:self.member_count]
        values["counters"] = dict(zip(_COUNTERS, self.counters))
        return values


_library = ctypes.CDLL("libcluster-sync.so.1")
for _function in ("strerror", "version"):
    getattr(_library, f"cluster_sync_{_function}").restype = ctypes.c_char_p

__version__: str = _library.cluster_sync_version().decode()


def _text(text: Path | None) -> bytes | None:
    if text is None:
        return None
    encoded = os.fsencode(text)
    if b"\0" in encoded:
        raise ValueError("embedded null byte")
    return encoded


class _Deadline:
    """The end of a time limit."""

    def __init__(self, timeout: float | None):
        if timeout is not None and math.isnan(timeout):
            raise ValueError("the timeout is not a number")
        self._end = math.inf if timeout is None else time.monotonic() + timeout

    def left_ms(self) -> int:
        """The remaining time in milliseconds as for poll(2), -1 without a limit."""
        if self._end == math.inf:
            return -1
        left = math.ceil((self._end - time.monotonic()) * 1000)
        return max(0, min(left, 2**31 - 1))

    def slice_ms(self) -> int:
        """The remaining time, at most _SLICE_MS."""
        left = self.left_ms()
        return _SLICE_MS if left < 0 else min(left, _SLICE_MS)

    def exclude_since(self, start: float) -> None:
        """Does not count the time since `start`."""
        self._end += time.monotonic() - start

    def wait(self, descriptor: int) -> bool:
        """Waits until the descriptor is readable; False if the time limit expires."""
        poll = select.poll()
        poll.register(descriptor, select.POLLIN)
        left = self.left_ms()
        return bool(poll.poll(None if left < 0 else left))


def _check(error: int, filename: Path | None = None, record: _Record | None = None) -> None:
    if error == errno.ECANCELED:
        why = Reason(_library.cluster_sync_reason(error, ctypes.byref(record) if record else None))
        raise Refused(record.result() if record else None, filename, why)
    if error:
        kind = InProgress if error == errno.EINPROGRESS else OSError
        raise kind(error, _library.cluster_sync_strerror(error).decode(), filename)


def reason(error: OSError) -> Reason:
    """The reason for an error of this module."""
    if isinstance(error, Refused):
        return error.why
    return Reason(_library.cluster_sync_reason(error.errno, None))


class Connection:
    """A connection for any number of requests, one after the other, for a caller that must not block: fileno()
    becomes readable when the answer has arrived. A request is refused with EBUSY until the previous answer is
    received."""

    def __init__(self, socket: Path | None = None, timeout: float | None = TIMEOUT):
        self.timeout = timeout
        self._handle = ctypes.c_void_p()
        self._filename: Path | None = None  # of the last request
        deadline = _Deadline(timeout)
        error = errno.ETIMEDOUT
        while error == errno.ETIMEDOUT:
            limit = deadline.slice_ms()
            error = _library.cluster_sync_open(_text(socket), limit, ctypes.byref(self._handle))
            if limit == 0:
                break
        _check(error, socket)

    def __enter__(self) -> Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        self.close()

    def _open_handle(self) -> ctypes.c_void_p:
        if not self._handle:
            raise ValueError("the connection is closed")
        return self._handle

    def fileno(self) -> int:
        return int(_library.cluster_sync_fd(self._open_handle()))

    def close(self) -> None:
        """Closes the connection and withdraws a put that was not answered."""
        handle, self._handle = getattr(self, "_handle", None), ctypes.c_void_p()
        if handle:
            _library.cluster_sync_close(handle)

    def _call(self, name: str, *arguments: Any, filename: Path | None = None) -> None:
        function = getattr(_library, f"cluster_sync_{name}")
        _check(function(self._open_handle(), *arguments), filename)
        self._filename = filename

    def send_update(self, source: Path | None = None, destination: Path | None = None) -> None:
        """Without `source` it asks for a deletion, without both for an exchange."""
        self._call("send_update", _text(source), _text(destination),
                   _Deadline(self.timeout).left_ms(), filename=destination)

    def send_diag(self, command: str) -> None:
        self._call("send_diag", _text(command), _Deadline(self.timeout).left_ms())

    def put_begin(self, destination: Path, mode: int = 0o644) -> None:
        """Checks the destination. put_write() appends data, put_send() publishes it."""
        self._call("put_begin", _text(destination), ctypes.c_uint(mode), filename=destination)

    def put_write(self, data: bytes) -> None:
        self._call("put_write", data, ctypes.c_size_t(len(data)), filename=self._filename)

    def put_send(self) -> None:
        self._call("put_send", _Deadline(self.timeout).left_ms(), filename=self._filename)

    def withdraw(self) -> None:
        """Gives up the request, or a put that was begun. Raises TimeoutError if nothing has been changed,
        InProgress if the daemon has the request."""
        self._call("withdraw", filename=self._filename)

    def receive(self) -> Result:
        """Returns the answer to an update or a put. BlockingIOError if it has not arrived in time."""
        record = _Record()
        self._receive(record)
        return record.result()

    def receive_diag(self) -> None:
        """Takes the answer to a diagnostic command."""
        self._receive(None)

    def send_compare(self) -> None:
        self._call("send_compare", _Deadline(self.timeout).left_ms())

    def receive_compare(self) -> Comparison:
        """Returns the answer to a comparison."""
        _Deadline(self.timeout).wait(self.fileno())
        trees, record = (_TreeRecord * 4)(), _Record()
        found = Comparison({}, [])

        def on_difference(_: None, sign: bytes, tree: bytes, path: bytes) -> int:
            found.differences.append(Difference(sign.decode(), tree.decode(), os.fsdecode(path)))
            return 0
        _check(_library.cluster_sync_receive_compare(self._handle, 0, trees,
                                                     _OnDifference(on_difference), None,
                                                     ctypes.byref(record)), record=record)
        for tree in trees:
            found.trees[tree.name.decode()] = Tree(*(getattr(tree, name) for name in Tree._fields))
        return found

    def _receive(self, record: _Record | None) -> None:
        _Deadline(self.timeout).wait(self.fileno())
        reference = ctypes.byref(record) if record else None
        _check(_library.cluster_sync_receive(self._handle, 0, None, reference), self._filename,
               record)


def _answer(connection: Connection, deadline: _Deadline) -> None:
    if not deadline.wait(connection.fileno()):
        connection.withdraw()
    connection.timeout = 0


def _update(source: Path | None, destination: Path | None, timeout: float | None,
            socket: Path | None) -> Result:
    deadline = _Deadline(timeout)
    with Connection(socket, timeout) as connection:
        connection.send_update(source, destination)
        _answer(connection, deadline)
        return connection.receive()


def update(source: Path, destination: Path, *, timeout: float | None = TIMEOUT,
           socket: Path | None = None) -> Result:
    """Renames `source` onto the replicated file `destination`."""
    return _update(source, destination, timeout, socket)


def delete(destination: Path, *, timeout: float | None = TIMEOUT,
           socket: Path | None = None) -> Result:
    """Removes a replicated file."""
    return _update(None, destination, timeout, socket)


def sync(*, timeout: float | None = TIMEOUT, socket: Path | None = None) -> Result:
    """Only runs an exchange."""
    return _update(None, None, timeout, socket)


def _read_descriptor(descriptor: int, deadline: _Deadline) -> Iterator[bytes]:
    while True:
        if not deadline.wait(descriptor):
            raise TimeoutError(errno.ETIMEDOUT, "no input within the time limit")
        try:
            chunk = os.read(descriptor, _CHUNK)
        except BlockingIOError:
            continue
        if not chunk:
            return
        yield chunk


def _read_object(content: Readable, deadline: _Deadline) -> Iterator[bytes]:
    while True:
        chunk = content.read(_CHUNK)
        if chunk is None:  # a non-blocking raw file without data
            deadline.wait(content.fileno())  # type: ignore[attr-defined]
        elif not isinstance(chunk, (bytes, bytearray, memoryview)):
            raise TypeError(f"read() must return bytes, not {type(chunk).__name__}")
        elif not chunk:
            return
        else:
            yield bytes(chunk)
        if deadline.left_ms() == 0:
            raise TimeoutError(errno.ETIMEDOUT, "no end of the input within the time limit")


def _chunks(content: bytes | bytearray | memoryview | int | Readable,
            deadline: _Deadline) -> Iterator[bytes]:
    if isinstance(content, str):
        raise TypeError("text cannot be published: encode it")
    if isinstance(content, int):
        return _read_descriptor(content, deadline)
    if hasattr(content, "read"):
        return _read_object(content, deadline)
    return iter((bytes(memoryview(content)),))


def put(content: bytes | bytearray | memoryview | int | Readable, destination: Path,
        mode: int = 0o644, *, timeout: float | None = TIMEOUT, socket: Path | None = None) -> Result:
    """Publishes bytes, or all bytes read from a descriptor or from an object whose read() returns bytes, such as
    a file opened with mode "rb"."""
    deadline = _Deadline(timeout)
    chunks = _chunks(content, deadline)
    with Connection(socket, timeout) as connection:
        connection.put_begin(destination, mode)
        for chunk in chunks:
            start = time.monotonic()
            connection.put_write(chunk)
            deadline.exclude_since(start)
        start = time.monotonic()
        connection.put_send()
        deadline.exclude_since(start)
        _answer(connection, deadline)
        return connection.receive()


def diag(command: str, *, timeout: float | None = TIMEOUT, socket: Path | None = None) -> None:
    """Sends a diagnostic command."""
    deadline = _Deadline(timeout)
    with Connection(socket, timeout) as connection:
        connection.send_diag(command)
        _answer(connection, deadline)
        connection.receive_diag()


def compare(*, timeout: float | None = TIMEOUT, socket: Path | None = None) -> Comparison:
    """Compares the two EMs in an exchange that changes no replicated file."""
    deadline = _Deadline(timeout)
    with Connection(socket, timeout) as connection:
        connection.send_compare()
        _answer(connection, deadline)
        return connection.receive_compare()


def state(*, timeout: float | None = TIMEOUT, socket: Path | None = None) -> dict[str, Any]:
    """The state of the daemon: the fields of struct cluster_sync_state. Ages are in seconds, -1 for never;
    members are pairs of node and process id; counters are by name."""
    answer = _State()
    _check(_library.cluster_sync_get_state(_text(socket), _Deadline(timeout).left_ms(),
                                           ctypes.byref(answer), ctypes.sizeof(answer)))
    return answer.fields()
