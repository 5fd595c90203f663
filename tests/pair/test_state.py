"""What "status" and the Python module tell while a real fault is there."""

import json

from caller import socket_path
from cluster_sync import state
from em_pair import ACTIVE
from support import BUILD, PairTest


class StateTest(PairTest):
    def status(self, n: int, code: int) -> dict:
        """Its JSON, by a program without PATH that exits with `code`."""
        done = self.pair.run(n, ["env", "-i", str(BUILD / "cluster_sync_ctl"), "--json", "status"])
        self.assertEqual(code, done.returncode, done.stdout)
        return json.loads(done.stdout)

    def test_status_is_0_only_when_all_is_well(self):
        self.synced(1)
        told, fields = self.status(1, 0), state(socket=socket_path(self.pair, 1))
        self.assertEqual(told["counters"], fields["counters"])
        self.assertEqual([(member["node"], member["pid"]) for member in told["members"]], fields["members"])

        self.pair.set_role(2, True)
        self.write(2, f"{ACTIVE}/file", "of the other active EM")
        self.synced(2)
        self.assertTrue(self.status(1, 1)["both_active"])
        self.pair.set_role(2, False)
        self.synced(1)
        self.assertFalse(self.status(1, 0)["both_active"])

        self.pair.kill(2, "daemon")
        self.assertIsNone(self.status(2, 3)["peer_present"])
        self.wait(lambda: not state(socket=socket_path(self.pair, 1))["peer_present"], "EM 2 is away")
        self.assertFalse(self.status(1, 1)["peer_present"])
        self.hold(1)
        self.assertFalse(self.status(1, 3)["daemon"]["answers"])
