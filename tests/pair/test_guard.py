"""Nothing is emptied by accident: differences are reported before anything changes, and a role change or an
exchange that would empty a tree is refused."""

import errno

from caller import socket_path
from cluster_sync import Tree, compare
from em_pair import ACTIVE, EMS, OWN, PEERS, VOLATILE
from support import DEADLINE, FAILING, ROOTS, PairTest


class GuardTest(PairTest):
    def compared(self, n: int):
        return compare(socket=socket_path(self.pair, n))

    def everything(self) -> dict[tuple[int, str], set[str]]:
        return {(n, root): self.tree(n, root) for n in EMS for root in ROOTS}

    def ctl(self, n: int, *words: str):
        return self.pair.ctl(n, *words, timeout=DEADLINE)

    def test_compare_tells_both_sides_the_same_and_changes_nothing(self):
        for n in EMS:
            self.write(n, f"{OWN}/own of {n}", "x")
        self.synced(1)
        self.write(1, f"{ACTIVE}/large", bytes(200_000))
        self.write(2, f"{ACTIVE}/large", bytes(100_000) + b"x" * 100_000)
        self.write(2, f"{VOLATILE}/deep/er", "")
        self.write(1, f"{PEERS}/left\nover", "")
        before = self.everything()
        here, there = self.compared(1), self.compared(2)
        self.assertEqual(Tree(1, 1, 0, 0, 1), here.trees["active"])
        self.assertEqual([("!", "active", "large"), ("<", "copy", "left\nover"),
                          (">", "volatile", "deep/er")], sorted(here.differences, key=lambda d: d[1]))
        mirror = {"<": ">", ">": "<", "!": "!", "own": "copy", "copy": "own"}
        self.assertEqual(sorted(here.differences), sorted(
            (mirror[sign], mirror.get(tree, tree), path) for sign, tree, path in there.differences))
        self.assertEqual(before, self.everything())
        self.synced(1)
        self.assertEqual([], self.compared(2).differences)
        self.assertEqual(0, self.ctl(1, "compare").returncode)
        self.pair.kill(2, "daemon")
        self.wait(lambda: len(self.pair.node_members(1)) and not self.pair.joined(), "it is alone")
        with self.assertRaises(OSError) as alone:
            self.compared(1)
        self.assertEqual(errno.EHOSTDOWN, alone.exception.errno)
        self.assertEqual(3, self.ctl(1, "compare").returncode)

    def test_an_em_with_an_empty_disk_does_not_become_active_by_accident(self):
        for number in range(20):
            self.write(1, f"{ACTIVE}/{number}", str(number))
        self.synced(1)
        self.pair.run(2, ["find", ACTIVE, "-mindepth", "1", "-delete"], check=True)
        self.pair.set_role(1, False)
        refused = self.ctl(2, "role", "active")
        self.assertEqual((1, False), (refused.returncode, self.pair.is_active(2)))
        self.assertIn("would delete 20 of 20 files that the other EM has in 'active'", refused.stderr)
        self.assertEqual(0, self.ctl(1, "role", "active").returncode)
        self.synced(1)
        self.assert_identical()


class DeletionGuardTest(PairTest):
    options = {"environment": {"MAX_DELETED_PERCENT": "90"}}

    def test_an_em_with_a_new_disk_gets_its_tree_back_from_the_survivor(self):
        """The procedure for replacing an EM whose own tree exists only on the other one."""
        for number in range(20):
            self.write(1, f"{ACTIVE}/{number}", str(number))
            self.write(2, f"{OWN}/{number}", str(number))
        self.synced(1)
        self.pair.kill(2, "daemon")
        self.pair.run(2, ["find", *ROOTS, "-mindepth", "1", "-delete"], check=True)
        self.pair.start_daemon(2)
        self.pair.wait_joined()
        text = f"Exchange would delete 20 of 20 files in '{PEERS}/'"
        self.wait(lambda: text in self.log(1), "the active EM says what it does not do")
        self.wait(lambda: (result := self.ask(1)) and result.reason == text, "so does an answer")
        self.assertEqual(FAILING, self.fault())
        self.assertEqual(20, len(self.tree(1, PEERS)))
        self.assertEqual(20, len(self.tree(2, ACTIVE)), "the rest was done")
        # No exchange may see a half-copied tree, because its loss would be below the limit.
        self.pair.kill(2, "daemon")
        for name in self.tree(1, PEERS):
            self.write(2, f"{OWN}/{name}", self.read(1, f"{PEERS}/{name}"))
        self.pair.start_daemon(2)
        self.pair.wait_joined()
        self.settle()
        self.assertEqual(20, len(self.tree(1, PEERS)))
        self.pair.run(1, ["find", ACTIVE, "-mindepth", "1", "-delete"], check=True)
        self.assertIn("would delete 20 of 20", self.ask(1).reason)
        allowed = self.pair.ctl(1, "sync", "--allow-deletions", timeout=DEADLINE)
        self.assertEqual(0, allowed.returncode, allowed.stdout)
        self.assertEqual(set(), self.tree(2, ACTIVE))
