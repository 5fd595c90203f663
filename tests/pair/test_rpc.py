"""Updates through the command socket: what they do on both EMs and how they are refused."""

from em_pair import ACTIVE, EMS
from support import FLOWS, PairTest

CALLERS, PLACES = 150, 101


class RpcTest(PairTest):
    def test_changes_reach_the_peer(self):
        for n, root, copy in FLOWS:
            for size in (0, 10, 70_000):
                content = b"x" * size
                for message, files in ((self.prepared(n, f"{root}/file", content), {"file"}),
                                       (("", f"{root}/file"), set())):
                    self.assertEqual((True, True, True, False, False, True, ""),
                                     self.ask(n, message))
                    self.assertEqual([files] * 2, [self.tree(n, root), self.tree(3 - n, copy)])
                    self.assert_identical()

    def test_rename_inside_the_shared_tree_sends_no_data(self):
        self.write(1, f"{ACTIVE}/dir/before", b"x" * 100_000)
        self.synced(1)
        for n in EMS:
            self.diag(n, "stats=reset")
        asked = (f"{ACTIVE}/dir/before", f"{ACTIVE}/dir/after")
        self.assertTrue(self.ask(1, asked).success)
        self.assertEqual({"dir/after"}, self.tree(2, ACTIVE))
        self.diag(2, "stats=dump")
        self.wait_log(2, f"Chunk writes from peer:{0:>18}\n")

    def test_150_callers_at_once(self):
        # A request that the frozen state machine loses holds all others for 10 s.
        self.wait_unlocked(1)
        self.diag(1, "statemachine-stuck")
        callers = [self.call(1)]
        self.wait_log(1, "Simulating stuck state machine: not updating state.")
        self.write(1, f"{ACTIVE}/file", "delivered at last")
        callers += [self.call(1) for _ in range(CALLERS - 1)]

        def refused():
            answered = [caller for caller in callers if caller.answered()]
            return answered if len(answered) >= CALLERS - PLACES else None
        refused = self.wait(refused, "some callers are refused")
        self.assertEqual(CALLERS - PLACES, len(refused))
        for caller in refused:
            self.assertEqual("Too many RPC calls are already waiting", caller.result().reason)
        self.diag(1, "stats=dump")  # is served all the same
        self.assertFalse(self.exists(2, f"{ACTIVE}/file"))
        self.diag(1, "statemachine-notstuck")

        first, *others = (caller for caller in callers if caller not in refused)
        self.assertIs(first, callers[0])
        self.assert_failed(first.result(), "Operation timed out")
        self.assertTrue(all(caller.result().success for caller in others))
        self.assert_logged(1, "Detected short sync state timeout")
        self.settle()  # there is room again
