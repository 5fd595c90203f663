"""Updates through the command socket: what they do on both EMs and how they are refused."""

import os

from harness import ACTIVE, OWN, PEERS, VOLATILE, wait_for
from support import SYNC, UNKNOWN_REQUEST, SocketTest, request

CALLERS, PLACES = 150, 101


class RpcTest(SocketTest):
    def test_rename_reaches_the_peer(self):
        for n, root, copy in ((1, ACTIVE, ACTIVE), (1, VOLATILE, VOLATILE), (1, OWN, PEERS),
                              (2, OWN, PEERS)):
            for size in (0, 10, 70_000):
                content = os.urandom(size)
                self.write(n, f"{root}/TempUpdate_new", content)
                result = self.update(n, f"{root}/TempUpdate_new", f"{root}/file")
                self.assertEqual((True, True, True, False, False, "Y", ""), result)
                self.assertEqual(content, self.read(3 - n, f"{copy}/file"))
                self.assertEqual({"file"}, self.tree(n, root))
        self.assert_identical()

    def test_rename_inside_the_shared_tree_sends_no_data(self):
        self.write(1, f"{ACTIVE}/dir/before", b"x" * 100_000)
        self.synced(1)
        self.assertEqual([0, 0], [self.status(n, "stats=reset") for n in (1, 2)])
        self.assertTrue(self.update(1, f"{ACTIVE}/dir/before", f"{ACTIVE}/dir/after").success)
        self.assertEqual({"dir/after"}, self.tree(2, ACTIVE))
        self.assertEqual(0, self.stats(2)["Chunk writes from peer"])
        self.assertEqual(1, self.stats(1)["Atomic updates from self"])

    def test_delete_reaches_the_peer(self):
        for n, root, copy in ((1, ACTIVE, ACTIVE), (1, VOLATILE, VOLATILE), (1, OWN, PEERS),
                              (2, OWN, PEERS)):
            for name in ("small", "large", "kept"):
                self.write(n, f"{root}/{name}", b"x" * len(name) * 20_000)
            self.synced(n)
            for name in ("small", "large"):
                self.assertTrue(self.update(n, "", f"{root}/{name}").success)
            self.assertEqual([{"kept"}] * 2, [self.tree(n, root), self.tree(3 - n, copy)])

    def test_refused_updates(self):
        for n in (1, 2):
            self.write(n, f"{ACTIVE}/kept", "here before")
            self.write(n, "/tmp/elsewhere", "on another file system")
            self.write(n, f"{OWN}/dir/kept", f"of {n}")
            self.write(n, f"{OWN}/kept", f"of {n}")
        self.synced(1)
        digest = "Could not update file '{}': Paths cannot contain digest prefix"
        standby = "Attempt to update shared replicated area while not active '{}'"
        update, delete = "Could not update file ({}): {{}}", "Could not delete file ({}): {{}}"
        cases = (
            (1, "", f"{ACTIVE}/gone", True, delete.format("No such file or directory")),
            (1, "", f"{OWN}/../replicated_by_this_em/kept", False,
             delete.format("Operation not permitted")),
            (1, f"{ACTIVE}/kept", f"{OWN}/a.$SyncDigest$b/c", True, digest),
            (1, f"{ACTIVE}/kept", f"{OWN}/dir", False, update.format("Is a directory")),
            (1, "/tmp/elsewhere", f"{ACTIVE}/kept", False,
             update.format("Invalid cross-device link")),
            (2, f"{OWN}/kept", f"{VOLATILE}/kept", True, standby),
        )
        self.assertEqual([0, 0], [self.status(n, "stats=reset") for n in (1, 2)])
        for n, source, destination, benign, reason in cases:
            with self.subTest(em=n, source=source, destination=destination):
                self.assert_refused(self.update(n, source, destination),
                                    reason.format(destination), benign)
        self.assertEqual([0, 0], [self.stats(n)["Syncs from self"] for n in (1, 2)])
        for n in (1, 2):
            self.assertEqual({"kept", "dir/kept"}, self.tree(n, OWN))
            self.assertEqual(b"here before", self.read(n, f"{ACTIVE}/kept"))
        self.assert_identical()

    def test_messages_that_are_none(self):
        for message, shown in ((b"", ""), (b"a\0b", "a\\x00b"), (b"x" * 65_536, "x" * 95)):
            self.assert_refused(self.call(1, message).result(), "Received unparseable RPC message",
                                False)
            self.wait_log(1, f"Bad RPC message data: size={len(message)} [{shown}]")
        self.assertEqual(UNKNOWN_REQUEST, self.call(1, SYNC, kind=2).status())
        self.assert_logged(1, "received an invalid message 2")
        self.assertTrue(self.call(1, SYNC + b"ignored").result().success)

    def test_150_callers_at_once(self):
        # A request that the frozen state machine loses holds all others for 10 s.
        self.assertEqual(0, self.status(1, "statemachine-stuck"))
        callers = [self.call(1)]
        self.wait_log(1, "Simulating stuck state machine: not updating state.")
        self.write(1, f"{ACTIVE}/file", "delivered at last")
        callers += [self.call(1) for _ in range(CALLERS - 1)]
        refused = self.wait_answered(callers, CALLERS - PLACES)
        self.assertEqual(CALLERS - PLACES, len(refused))
        for caller in refused:
            self.assert_refused(caller.result(), "Too many RPC calls are already waiting", False)
        self.assert_logged(1, "Too many RPC calls are pending.")
        self.assertEqual(0, self.status(1, "stats=dump"))
        self.assertFalse(self.exists(2, f"{ACTIVE}/file"))
        self.assertEqual(0, self.status(1, "statemachine-notstuck"))

        first, *others = (caller for caller in callers if caller not in refused)
        self.assertIs(first, callers[0])
        self.assert_failed(first.result(), "Operation timed out")
        for caller in others:
            self.assertTrue(caller.result().success)
        self.assert_logged(1, "Detected short sync state timeout")
        self.assert_not_logged(1, "Bad RPC message data")
        self.assert_identical()
        wait_for(lambda: self.call(1).result().success, 30, "there is room again")
