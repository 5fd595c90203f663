"""Nothing is emptied by accident: differences are reported before anything changes, and a role change or an
exchange that would empty a tree is refused."""

import errno
import json

from caller import socket_path
from cluster_sync import Tree, compare
from em_pair import ACTIVE, EMS, OWN, PEERS, VOLATILE
from support import DEADLINE, ROOTS, PairTest

REPLACED = "/mnt/part.persistent/replaced"


class GuardTest(PairTest):
    def compared(self, n: int):
        return compare(socket=socket_path(self.pair, n))

    def everything(self) -> dict[tuple[int, str], set[str]]:
        return {(n, root): self.tree(n, root) for n in EMS for root in ROOTS}

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
        self.pair.kill(2, "daemon")
        self.wait(lambda: len(self.pair.node_members(1)) and not self.pair.joined(), "it is alone")
        with self.assertRaises(OSError) as alone:
            self.compared(1)
        self.assertEqual(errno.EHOSTDOWN, alone.exception.errno)


class ProceduresTest(PairTest):
    """The procedures of docs/operations.md, step by step."""

    options = {"environment": {"MAX_DELETED_PERCENT": "90", "KEEP_REPLACED_MIB": "64"}}

    def fill(self) -> None:
        for number in range(20):
            self.write(1, f"{ACTIVE}/{number}", str(number))
            for n in EMS:
                self.write(n, f"{OWN}/{number} of {n}", str(number))
        self.synced(1)

    def insert_disk(self, n: int, names: tuple[str, ...] = ()) -> None:
        """The daemon of EM `n` finds only `names` in its trees."""
        self.pair.kill(n, "daemon")
        self.pair.run(n, ["find", *ROOTS, "-mindepth", "1", "-delete"], check=True)
        for root, name in ((root, name) for root in (ACTIVE, OWN) for name in names):
            self.write(n, f"{root}/{name}", "foreign")
        self.pair.start_daemon(n)
        self.pair.wait_joined()

    def copy_back(self, n: int) -> None:
        """No exchange may see a half-copied tree, because its loss would be below the limit."""
        self.pair.kill(n, "daemon")
        self.pair.run(n, ["find", *ROOTS, "-mindepth", "1", "-delete"], check=True)
        for name in self.tree(3 - n, PEERS):
            self.write(n, f"{OWN}/{name}", self.read(3 - n, f"{PEERS}/{name}"))
        self.pair.start_daemon(n)
        self.pair.wait_joined()
        self.wait(lambda: self.ask(3 - n).success, "a clean exchange")

    def kept(self, n: int) -> dict[str, str]:
        """Names of the kept files by kind, tree and path."""
        listed = json.loads(self.pair.ctl(n, "--json", "kept").stdout)["kept"]
        return {f"{file['kind']} {file['tree']}/{file['path']}": file["name"] for file in listed}

    def test_new_machines_get_their_trees_from_the_survivor(self):
        """Replaces both EMs, one after the other, as when a pair moves. The second has a disk of another pair."""
        self.fill()
        owned = {n: self.tree(n, OWN) for n in EMS}
        for n, names in ((2, ()), (1, tuple(map(str, range(100, 120))))):
            self.pair.set_active(3 - n)
            self.synced(3 - n)
            self.insert_disk(n, names)
            tree = ACTIVE if names else PEERS
            text = f"Exchange would delete 20 of 20 files in '{tree}/'"
            self.wait(lambda: text in self.log(3 - n), "the active EM says what it does not do")
            self.wait(lambda: (result := self.ask(3 - n)) and result.reason == text, "and answers it")
            self.assertIn(text, self.pair.ctl(3 - n, "status").stdout)
            self.assertIn(f'reason="{text}"', self.pair.ctl(3 - n, "metrics").stdout)
            self.assertEqual(owned[n], self.tree(3 - n, PEERS))
            self.assertEqual(20, len(self.tree(n, ACTIVE)), "the rest was done, or all left alone")
            self.copy_back(n)
            self.assertEqual((owned[n], []), (self.tree(n, OWN), self.different()))
        self.pair.run(2, ["find", ACTIVE, "-mindepth", "1", "-delete"], check=True)
        self.assertIn("would delete 20 of 20", self.ask(2).reason)
        allowed = self.pair.ctl(2, "sync", "--allow-deletions", timeout=DEADLINE)
        self.assertEqual((0, set()), (allowed.returncode, self.tree(1, ACTIVE)), allowed.stdout)

    def test_what_a_second_active_em_has_lost_and_a_backup_replaced_is_kept(self):
        self.fill()
        self.pair.run(1, ["rm", "-rf", REPLACED], check=True)
        self.pair.cut()
        self.wait(lambda: all(self.pair.node_members(n) == {n} for n in EMS), "a split")
        self.pair.set_role(2, True)
        self.write(1, f"{ACTIVE}/1", "of EM 1")
        self.write(2, f"{ACTIVE}/1", "of EM 2\n")
        self.write(2, f"{ACTIVE}/new", "of EM 2")
        self.pair.set_role(2, False)
        self.pair.heal()
        self.wait_identical()
        kept = self.kept(2)
        self.assertLessEqual({"replaced active/1", "deleted active/new"}, set(kept))
        told = self.pair.ctl(2, "kept", "diff", kept["replaced active/1"])
        self.assertEqual(1, told.returncode)
        self.assertIn("-of EM 2\n+of EM 1", told.stdout)
        for name in ("replaced active/1", "deleted active/new"):
            lost = self.pair.ctl(2, "kept", "restore", kept[name], "-").stdout
            self.write(1, "/run/lost", lost)
            self.assertEqual(0, self.pair.ctl(1, "put", "/run/lost", f"{ACTIVE}/{name.split('/')[1]}").returncode)
        self.assertEqual(b"of EM 2", self.read(1, f"{ACTIVE}/new"))
        self.assert_identical()

        self.pair.run(1, ["tar", "-cf", "/run/backup", "-C", ACTIVE, "."], check=True)
        self.write(1, f"{ACTIVE}/large", bytes(200_000))
        self.write(1, f"{ACTIVE}/1", "later")
        self.synced(1)
        self.pair.run(1, ["find", ACTIVE, "-mindepth", "1", "-delete"], check=True)
        self.pair.run(1, ["tar", "-xf", "/run/backup", "-C", ACTIVE], check=True)
        told = self.pair.ctl(1, "compare", timeout=DEADLINE).stdout
        self.assertIn("! active/1\n", told)
        self.assertIn("> active/large\n", told)
        self.synced(1)
        self.assert_identical()
        self.assertIn("deleted active/large", self.kept(2))
