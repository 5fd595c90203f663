"""Two daemons on one node of one Corosync: each must treat the other as its peer."""

from em_pair import ACTIVE, EMS, OWN, PEERS, VOLATILE
from support import PairTest


class OneNodeTest(PairTest):
    options = {"form": "one-node"}

    def test_all_trees_flow_whoever_asks(self):
        for requester in EMS:
            self.pair.set_active(requester)
            for root in (ACTIVE, VOLATILE):
                self.write(requester, f"{root}/file", f"of {requester}")
                self.write(3 - requester, f"{root}/stray", "unwanted")
            for n in EMS:
                self.write(n, f"{OWN}/large", bytes([requester]) * requester * 100_000)
                self.write(n, f"{PEERS}/stray", "unwanted")
            asked = self.prepared(requester, f"{OWN}/file", f"{requester} asks")
            self.assertEqual((True, True), self.ask(requester, asked)[::5])
            self.assert_identical()
            self.assertEqual({"file", "large"}, self.tree(3 - requester, PEERS))
