"""Reduces a list of events to a short one that still fails (delta debugging, Zeller 1999)."""

import time
from collections.abc import Callable


def shrink(events: list, fails: Callable[[list], object], seconds: float) -> list:
    """Removes events as long as the rest still fails, larger parts first, for some seconds."""
    end = time.monotonic() + seconds
    size = len(events) // 2
    while size >= 1:
        at, before = 0, len(events)
        while at < len(events):
            if time.monotonic() > end:
                return events
            fewer = events[:at] + events[at + size:]
            if fails(fewer):
                events = fewer
            else:
                at += size
        if size > 1 or len(events) == before:
            size //= 2
    return events
