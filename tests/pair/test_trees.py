"""What an exchange does to each of the four trees."""

import os
import random

from harness import ACTIVE, OWN, PEERS, VOLATILE
from support import SocketTest

# Every tree with the EM that writes it and where its copy is on the other EM; EM 1 is active.
FLOWS = ((1, ACTIVE, ACTIVE), (1, VOLATILE, VOLATILE), (1, OWN, PEERS), (2, OWN, PEERS))
CHUNK = 65536
SIZES = (0, 1, CHUNK - 1, CHUNK, CHUNK + 1, 2 * CHUNK, (1 << 20) + 12345)
MODES = {0o644: 0o644, 0o755: 0o644, 0o640: 0o600, 0o600: 0o600}
NAMES = ("two  words", "größe", "line\nbreak", "behind ", "%s%n", "'\"\\", "\udcff\udc80",
         ".hidden", "n" * 240, "A 0 0 0 G x")


class TreeTest(SocketTest):
    def setUp(self):
        super().setUp()
        self.random = random.Random(4711)

    def store(self, n: int, path: str, content: bytes, age: int = 0, mode: int = 0o644) -> None:
        """Writes a file that was changed `age` s ago: a digest file tells whole seconds apart."""
        self.write(n, path, content, mode)
        os.utime(self.pair.path(n, path), (1_600_000_000 - age,) * 2)

    def mode(self, n: int, path: str) -> int:
        return self.pair.path(n, path).stat().st_mode & 0o7777

    def test_only_the_active_requester_moves_the_active_trees(self):
        for root in (ACTIVE, VOLATILE):
            self.write(1, f"{root}/of_active", "wanted")
            self.write(1, f"{root}/changed", "new")
            self.write(2, f"{root}/changed", "old and longer")
            self.write(2, f"{root}/stray", "unwanted")
        before = {n: self.contents(n) for n in (1, 2)}
        self.synced(2)
        self.assertEqual(before, {n: self.contents(n) for n in (1, 2)})
        self.assert_logged(2, f"Skipping update of entry '{ACTIVE}/stray' because this EM is "
                              "standby")
        self.synced(1)
        self.assertEqual([before[1]] * 2, [self.contents(n) for n in (1, 2)])

        self.pair.set_active(2)
        for root in (ACTIVE, VOLATILE):
            self.write(2, f"{root}/of_active", "by the other one")
            self.pair.path(2, f"{root}/changed").unlink()
        after = self.contents(2)
        self.synced(1)
        self.assertEqual(before[1], self.contents(1))
        self.synced(2)
        self.assertEqual([after] * 2, [self.contents(n) for n in (1, 2)])

    def contents(self, n: int) -> dict[str, bytes]:
        return {f"{root}/{name}": self.read(n, f"{root}/{name}")
                for root in (ACTIVE, VOLATILE) for name in self.tree(n, root)}

    def test_trees_that_become_empty(self):
        for n, root, _ in FLOWS:
            for name in ("small", "dir/large"):
                self.write(n, f"{root}/{name}", name * 20_000)
        self.synced(1)
        self.assert_identical()
        for n, root, _ in FLOWS:
            for name in ("small", "dir/large"):
                self.pair.path(n, f"{root}/{name}").unlink()
        self.synced(1)
        for n, root, copy in FLOWS:
            self.assertEqual(set(), self.tree(n, root) | self.tree(3 - n, copy), root)
        self.assert_settled(2)

    def test_every_size_with_every_mode(self):
        for n, root, _ in FLOWS:
            for size in SIZES:
                for mode in MODES:
                    self.store(n, f"{root}/{size}.{mode:o}", self.random.randbytes(size), mode=mode)
        self.synced(1)
        self.assert_identical()
        for n, root, copy in FLOWS:
            for size in SIZES:
                for mode, copied in MODES.items():
                    path = f"{copy}/{size}.{mode:o}"
                    self.assertEqual(copied, self.mode(3 - n, path), path)
        self.assert_settled(1)
        self.assert_settled(2)

    def test_names(self):
        for n, root, _ in FLOWS:
            for name in NAMES:
                self.write(n, f"{root}/{name}", name.encode(errors="surrogateescape"))
                self.write(n, f"{root}/in/{name}/{name}", "below")
        for requester in (1, 2):
            self.synced(requester)
            self.assert_identical()
            self.assert_settled(requester)
            for n, root, _ in FLOWS[2:]:
                for name in NAMES:
                    self.pair.path(n, f"{root}/{name}").unlink(missing_ok=True)

    def test_depth_of_16_is_listed(self):
        for n, root, _ in FLOWS:
            self.write(n, f"{root}/{'d/' * 16}file", "deep")
        self.synced(1)
        self.assert_identical()
        self.assertEqual({f"{'d/' * 16}file"}, self.tree(2, PEERS))

    def test_files_shrink_grow_and_change(self):
        content = self.random.randbytes(SIZES[-1])
        changes = {f"{old}to{new}": (content[:old], content[:new])
                   for old in SIZES for new in SIZES if old != new}
        middle = bytearray(content)
        middle[5 * CHUNK + 7] ^= 0xFF
        changes["middle"] = (content, bytes(middle))
        changes["replaced"] = (content[:CHUNK], content[:CHUNK][::-1])
        for version in (0, 1):
            for n, root, _ in FLOWS:
                for name, versions in changes.items():
                    self.store(n, f"{root}/{name}", versions[version], age=10 * version)
            self.synced(1 + version)
            self.synced(1)
            self.assert_identical()
        self.assert_settled(1)

    def test_only_the_changed_chunk_travels(self):
        content = bytearray(self.random.randbytes(8 * CHUNK + 5))
        self.store(1, f"{ACTIVE}/large", content)
        self.synced(1)
        content[3 * CHUNK] ^= 1
        self.store(1, f"{ACTIVE}/large", content, age=10)
        self.assertEqual(0, self.status(2, "stats=reset"))
        self.synced(1)
        self.assertEqual(1, self.stats(2)["Chunk writes from peer"])
        self.assert_identical()

    def test_links_are_neither_read_nor_written_through(self):
        for n, root, copy in FLOWS:
            self.write(n, "/tmp/outside/file", "not replicated")
            self.write(n, f"{root}/real", "replicated")
            for name, target in (("to_dir", "/tmp/outside"), ("to_file", "/tmp/outside/file"),
                                 ("to_real", "real"), ("to_nothing", "/nowhere")):
                self.pair.path(n, f"{root}/{name}").symlink_to(target)
            # Links where the copies go: the file is replaced, the folder not entered.
            self.write(n, f"{root}/replaced", "small")
            self.pair.path(3 - n, f"{copy}/replaced").symlink_to("/tmp/outside/file")
        self.synced(1)
        for n, root, copy in FLOWS:
            self.assertEqual({"real", "replaced"}, self.tree(3 - n, copy))
            self.assertEqual(b"not replicated", self.read(n, "/tmp/outside/file"))
            self.assertEqual(["file"], os.listdir(self.pair.path(n, "/tmp/outside")))

    def test_nothing_is_written_below_a_linked_folder(self):
        self.addCleanup(self.clear)
        self.write(2, "/tmp/outside/file", "not replicated")
        self.pair.path(2, f"{ACTIVE}/dir").symlink_to("/tmp/outside")
        self.write(1, f"{ACTIVE}/dir/file", "content")
        self.write(1, f"{ACTIVE}/dir/large", b"x" * 70_000)
        result = self.call(1).result()
        self.assertFalse(result.success)
        self.assertIn("Unable to update file (Too many levels of symbolic links)", result.reason)
        self.assertEqual(["file"], os.listdir(self.pair.path(2, "/tmp/outside")))
        self.assertEqual(b"not replicated", self.read(2, "/tmp/outside/file"))
