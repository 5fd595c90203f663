"""Publishes the kinds of content that Python programs have, and checks time limits: with a stopped daemon
(its process id is the second argument) nothing is published later."""

import io
import os
import signal
import sys
import tempfile
import time

import cluster_sync

name, daemon = sys.argv[1], int(sys.argv[2])


def published(content: bytes) -> bool:
    with open(name, "rb") as file:
        return file.read() == content


with tempfile.NamedTemporaryFile("w+b") as file:
    file.write(b"first\nrest")
    file.seek(0)
    file.readline()
    cases: list[tuple[bytes | int | cluster_sync.Readable, bytes | None]] = [
        (b"bytes", b"bytes"), (io.BytesIO(b"buffer"), b"buffer"), (file, b"rest"),
        (os.open("/etc/hostname", os.O_RDONLY), None)]
    for given, content in cases:
        cluster_sync.put(given, name, timeout=float("inf"))
        assert content is None or published(content), given
try:
    cluster_sync.put("text", name)  # type: ignore[arg-type]
    raise SystemExit("text was published")
except TypeError:
    pass

before = open(name, "rb").read()


def give_up(number: int, frame: object) -> None:
    raise KeyboardInterrupt


os.kill(daemon, signal.SIGSTOP)
try:
    try:
        cluster_sync.put(b"late", name, timeout=0.2)
    except cluster_sync.InProgress:
        raise
    except TimeoutError as error:
        assert error.filename == name and cluster_sync.reason(error) == cluster_sync.Reason.TIMED_OUT
    signal.signal(signal.SIGALRM, give_up)
    signal.setitimer(signal.ITIMER_REAL, 0.2)
    start = time.monotonic()
    try:
        cluster_sync.put(b"late", name)
    except KeyboardInterrupt:
        assert time.monotonic() - start < 10, "the signal was served after the time limit"
finally:
    os.kill(daemon, signal.SIGCONT)
cluster_sync.sync()
assert published(before), "what was given up was published"
assert not [left for left in os.listdir(os.path.dirname(name)) if left.startswith("TempUpdate_")]
print("given up in time")
