"""Installs with "cmake --install" into an empty root, and starts and stops the daemon there without a service
manager."""

import os
import signal

from support import ACTIVE, PairTest

SCRIPT = "/etc/init.d/cluster_sync_daemon"
PID_FILE = "/run/CLUS_SYNC.pid"


class Installed(PairTest):
    options = {"log_level": 6}  # a separate pair, because another /usr is mounted there

    def script(self, action: str) -> int:
        return self.pair.run(1, [SCRIPT, action]).returncode

    def test_the_init_script_starts_and_stops_the_installed_daemon(self):
        self.pair.exit_daemon(1)
        self.pair.install(1)
        self.assertEqual([3, 0, 0, 0], [*map(self.script, ("status", "start", "start", "status"))])
        self.write(1, f"{ACTIVE}/TempUpdate_file", "by the installed client")
        put = self.pair.run(1, ["cluster_sync_ctl", "update", f"{ACTIVE}/TempUpdate_file", f"{ACTIVE}/file"])
        self.assertEqual((0, ""), (put.returncode, put.stderr))
        self.assertEqual(b"by the installed client", self.read(2, f"{ACTIVE}/file"))
        first = int(self.read(1, PID_FILE))
        self.assertEqual([0, 0], [*map(self.script, ("restart", "status"))])
        second = int(self.read(1, PID_FILE))
        self.assertNotEqual(first, second)
        os.kill(second, signal.SIGKILL)
        self.wait(lambda: self.script("status") == 1, "the crash is told")
        # Its process id now belongs to another program, which must not be affected.
        self.write(1, PID_FILE, f"{os.getpid()}\n")
        self.assertEqual([1, 0, 0], [*map(self.script, ("status", "stop", "start"))])
        self.assertEqual([0, 3], [*map(self.script, ("stop", "status"))])
        self.assertFalse(self.exists(1, PID_FILE))
