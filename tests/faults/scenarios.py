"""The work during which a call fails: requests, and the files that exist before."""

from collections.abc import Callable
from dataclasses import dataclass, field

from em_pair import ACTIVE, OWN, VOLATILE
from questions import CHUNK

SMALL, LARGE = b"small\n" * 20, bytes(range(256)) * 600
EDITED = LARGE[:CHUNK + 5] + b"?" + LARGE[CHUNK + 6:]


@dataclass(frozen=True)
class Scenario:
    """EM `em` (1 is active) asks that `destination` hold `content` (None: that it be deleted) or the file
    `moved`. Without a destination it asks for an exchange."""

    name: str
    em: int = 1
    destination: str = ""
    content: bytes | None = None
    moved: str = ""
    before: dict[str, bytes] = field(default_factory=dict)  # files of `em`, synchronised before
    changed: dict[str, bytes] = field(default_factory=dict)  # of EM 2's own tree, changed just before
    digests: Callable[[str], str] | None = None  # changes the text of digest cache files


SCENARIOS = (
    Scenario("a small file", destination=f"{ACTIVE}/a", content=SMALL),
    Scenario("a large file", destination=f"{ACTIVE}/a", content=LARGE),
    Scenario("from the standby", em=2, destination=f"{OWN}/a", content=LARGE),
    Scenario("in memory", destination=f"{VOLATILE}/a", content=SMALL),
    Scenario("replaced", destination=f"{OWN}/a", content=SMALL, before={f"{OWN}/a": SMALL[1:]}),
    Scenario("deleted", destination=f"{ACTIVE}/a", before={f"{ACTIVE}/a": LARGE}),
    Scenario("renamed", destination=f"{OWN}/b", moved=f"{OWN}/a", before={f"{OWN}/a": LARGE}),
    Scenario("pushed in place", destination=f"{ACTIVE}/a", content=EDITED,
             before={f"{ACTIVE}/a": LARGE}),
    Scenario("pulled in place", before={f"{ACTIVE}/a": SMALL}, changed={f"{OWN}/a": EDITED}),
    Scenario("new directories", destination=f"{ACTIVE}/d/e/a", content=SMALL),
    Scenario("stale digests", destination=f"{ACTIVE}/b", content=SMALL,
             before={f"{ACTIVE}/a": LARGE}, digests=lambda text: text.replace(" 1", " 2", 1)),
    Scenario("no digests", destination=f"{ACTIVE}/b", content=SMALL,
             before={f"{ACTIVE}/a": LARGE}, digests=lambda text: ""),
)
