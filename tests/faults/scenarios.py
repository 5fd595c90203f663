"""The work during which a call fails: requests, and the files that exist before."""

from collections.abc import Callable
from dataclasses import dataclass, field

from em_pair import ACTIVE, OWN, VOLATILE
from questions import CHUNK

SMALL, LARGE = b"small\n" * 20, bytes(range(256)) * 600
EDITED = LARGE[:CHUNK + 5] + b"?" + LARGE[CHUNK + 6:]
MANY = {f"{OWN}/d/{i}": b"" for i in range(12)}
KEEP, GUARD = {"KEEP_REPLACED_MIB": "1"}, {"MAX_DELETED_PERCENT": "50"}


@dataclass(frozen=True)
class Scenario:
    """EM `em` (1 is active) asks that `destination` hold `content` (None: that it be deleted) or the file
    `moved`. Without a destination it asks for an exchange."""

    name: str
    em: int = 1
    destination: str = ""
    content: bytes | None = None
    moved: str = ""
    before: dict[str, bytes] = field(default_factory=dict)  # synchronised; of EM 2 if that changes some
    changed: dict[str, bytes | None] = field(default_factory=dict)  # of EM 2's own tree, just before
    digests: Callable[[str], str] | None = None  # changes the text of digest cache files
    mode: int = 0o644  # of the new file
    foreign: str = ""  # a copy on the other EM that belongs to another user
    compared: str = ""  # a difference: asks for a comparison
    settings: dict[str, str] = field(default_factory=dict)


def replaced(name: str, before: bytes, after: bytes, tree: str = OWN, **rest) -> Scenario:
    return Scenario(name, destination=f"{tree}/a", content=after, before={f"{tree}/a": before}, **rest)


def renamed(name: str, source: str, destination: str, before: dict[str, bytes], **rest) -> Scenario:
    return Scenario(name, destination=destination, moved=source, before=before, **rest)


def pulled(name: str, changed: dict[str, bytes | None], before: dict[str, bytes] = {}, **rest) -> Scenario:
    return Scenario(name, before=before, changed=changed, **rest)


def digests(name: str, change: Callable[[str], str]) -> Scenario:
    return Scenario(name, destination=f"{ACTIVE}/b", content=SMALL, before={f"{ACTIVE}/a": LARGE},
                    digests=change)


SCENARIOS = (
    Scenario("a small file", destination=f"{ACTIVE}/a", content=SMALL),
    Scenario("a large file", destination=f"{ACTIVE}/a", content=LARGE),
    Scenario("an empty file", destination=f"{OWN}/a", content=b""),
    Scenario("small from the standby", em=2, destination=f"{OWN}/a", content=SMALL),
    Scenario("large from the standby", em=2, destination=f"{OWN}/a", content=LARGE),
    Scenario("small in memory", destination=f"{VOLATILE}/a", content=SMALL),
    Scenario("large in memory", destination=f"{VOLATILE}/a", content=LARGE),
    Scenario("new directories", destination=f"{ACTIVE}/d/e/a", content=SMALL),
    replaced("small for small", SMALL[1:], SMALL),
    replaced("small for large", LARGE, SMALL),
    replaced("large for small", SMALL, LARGE, ACTIVE),
    replaced("secret for public", LARGE, LARGE[1:], mode=0o600),
    replaced("pushed in place", LARGE, EDITED, ACTIVE),
    replaced("from the standby in place", LARGE, EDITED, em=2),
    replaced("in place of a foreign file", LARGE, EDITED, ACTIVE, foreign=f"{ACTIVE}/a"),
    Scenario("deleted", destination=f"{ACTIVE}/a", before={f"{ACTIVE}/a": LARGE}),
    Scenario("the last of a directory", destination=f"{ACTIVE}/d/a", before={f"{ACTIVE}/d/a": SMALL}),
    Scenario("deleted by the standby", em=2, destination=f"{OWN}/a", before={f"{OWN}/a": SMALL}),
    renamed("renamed", f"{OWN}/a", f"{OWN}/b", {f"{OWN}/a": LARGE}),
    renamed("renamed by the standby", f"{OWN}/a", f"{OWN}/b", {f"{OWN}/a": LARGE}, em=2),
    renamed("renamed onto a file", f"{ACTIVE}/a", f"{ACTIVE}/b",
            {f"{ACTIVE}/a": LARGE, f"{ACTIVE}/b": EDITED}),
    renamed("to another directory", f"{OWN}/d/a", f"{OWN}/e/a",
            {f"{OWN}/d/a": SMALL, f"{OWN}/e/b": SMALL}),
    pulled("pulled", {f"{OWN}/a": SMALL}),
    pulled("a large one pulled", {f"{OWN}/d/a": LARGE}),
    pulled("pulled in place", {f"{OWN}/a": EDITED}, {f"{OWN}/a": LARGE}),
    pulled("a deletion pulled", {f"{OWN}/d/a": None}, {f"{OWN}/d/a": SMALL}),
    pulled("a file for a directory", {f"{OWN}/d/a": None, f"{OWN}/d": SMALL}, {f"{OWN}/d/a": SMALL}),
    pulled("large for a directory", {f"{OWN}/d/a": None, f"{OWN}/d": LARGE}, {f"{OWN}/d/a": SMALL}),
    pulled("a directory for a file", {f"{OWN}/d": None, f"{OWN}/d/a": SMALL}, {f"{OWN}/d": SMALL}),
    digests("stale digests", lambda text: text.replace(" 1", " 2", 1)),
    digests("no digests", lambda text: ""),
    digests("fresh digests", lambda text: text),
    replaced("small, kept", SMALL[1:], SMALL, settings=KEEP),
    replaced("in place, kept", LARGE, EDITED, ACTIVE, settings=KEEP),
    Scenario("deleted, kept", destination=f"{ACTIVE}/d/a", before={f"{ACTIVE}/d/a": LARGE}, settings=KEEP),
    renamed("renamed onto a file, kept", f"{OWN}/a", f"{OWN}/b",
            {f"{OWN}/a": SMALL, f"{OWN}/b": LARGE}, settings=KEEP),
    pulled("pulled in place, kept", {f"{OWN}/a": EDITED}, {f"{OWN}/a": LARGE}, settings=KEEP),
    pulled("a directory, kept", {f"{OWN}/d/a": None, f"{OWN}/d": SMALL}, {f"{OWN}/d/a": SMALL},
           settings=KEEP),
    pulled("compared", {f"{OWN}/a": SMALL}, {f"{OWN}/a": SMALL[1:]}, compared="!copy/a"),
    pulled("guarded", dict.fromkeys(MANY), MANY, settings=GUARD),
)
