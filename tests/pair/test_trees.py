"""What an exchange does to each of the four trees."""

import os

from em_pair import ACTIVE
from support import FLOWS, PairTest

CHUNK = 65536
OUTSIDE = "/tmp/outside"


class TreeTest(PairTest):
    def test_only_the_changed_chunk_travels(self):
        content = bytearray(os.urandom(8 * CHUNK + 5))
        for version in range(2):
            content[3 * CHUNK] ^= 1
            self.write(1, f"{ACTIVE}/large", content)
            os.utime(self.pair.path(1, f"{ACTIVE}/large"), (version, version))
            self.diag(2, "stats=reset")
            self.synced(1)
            self.assert_identical()
        self.diag(2, "stats=dump")
        self.wait_log(2, f"Chunk writes from peer:{1:>18}\n")

    def test_links_are_neither_read_nor_written_through(self):
        for n, root, copy in FLOWS:
            self.write(n, f"{OUTSIDE}/file", "not replicated")
            for name, target in (("to_dir", OUTSIDE), ("to_file", f"{OUTSIDE}/file"),
                                 ("to_real", "real"), ("to_nothing", "/nowhere")):
                self.pair.path(n, f"{root}/{name}").symlink_to(target)
            # Where a copy goes a link is replaced.
            for name in ("real", "replaced"):
                self.write(n, f"{root}/{name}", "replicated")
            self.pair.path(3 - n, f"{copy}/replaced").symlink_to(f"{OUTSIDE}/file")
        self.synced(1)
        for n, _, copy in FLOWS:
            self.assertEqual({"real", "replaced"}, self.tree(3 - n, copy))
        # A linked folder is not entered.
        self.pair.path(2, f"{ACTIVE}/dir").symlink_to(OUTSIDE)
        for name in ("file", "large"):
            self.write(1, f"{ACTIVE}/dir/{name}", name * 20_000)
        reason = self.ask(1).reason
        self.assertIn("Unable to update file (Too many levels of symbolic links)", reason)
        for n, root, _ in FLOWS:
            self.assertEqual(b"not replicated", self.read(n, f"{OUTSIDE}/file"))
            self.assertEqual(["file"], os.listdir(self.pair.path(n, OUTSIDE)))
