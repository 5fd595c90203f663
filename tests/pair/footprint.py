"""What a running daemon holds."""

import os
from typing import NamedTuple


class Footprint(NamedTuple):
    descriptors: int
    threads: int
    resident: int  # kB


def footprint(pair, n: int) -> Footprint:
    pid = pair.process(n, "daemon").pid
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        status = dict(line.split(":", 1) for line in file)
    return Footprint(len(os.listdir(f"/proc/{pid}/fd")), int(status["Threads"]),
                     int(status["VmRSS"].split()[0]))
