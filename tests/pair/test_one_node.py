"""Two daemons on one node of one Corosync: each must take the other for its peer."""

from harness import ACTIVE, EMS, OWN, PEERS, VOLATILE
from support import SocketTest


class OneNodeTest(SocketTest):
    options = {"form": "one-node"}

    def test_all_trees_flow_whoever_asks(self):
        for requester in EMS:
            self.pair.set_active(requester)
            for root in (ACTIVE, VOLATILE):
                self.write(requester, f"{root}/file", f"of {requester}")
                self.write(3 - requester, f"{root}/stray", "unwanted")
            for n in EMS:
                self.write(n, f"{OWN}/file", f"EM {n}, {requester} asks")
                self.write(n, f"{OWN}/large", bytes([requester]) * requester * 100_000)
                self.write(n, f"{PEERS}/stray", "unwanted")
            self.assertEqual("Y", self.synced(requester).peer_present)
            self.assert_identical()
            self.assertEqual({"file", "large"}, self.tree(1, PEERS))
            self.assert_settled(requester)

    def test_updates_and_a_peer_that_leaves(self):
        for n in EMS:
            self.write(n, f"{OWN}/TempUpdate_x", f"EM {n}")
            self.assertTrue(self.update(n, f"{OWN}/TempUpdate_x", f"{OWN}/file").success)
            self.assertEqual(f"EM {n}".encode(), self.read(3 - n, f"{PEERS}/file"))
        self.pair.kill(2, "daemon")
        self.write(1, f"{ACTIVE}/file", "meanwhile")
        self.assertEqual("N", self.synced(1).peer_present)
        self.pair.start_daemon(2)
        self.pair.wait_joined()
        self.wait_identical()
