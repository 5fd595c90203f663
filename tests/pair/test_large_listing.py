"""A listing far above the largest message that Corosync delivers in one piece."""

import re
import sys

from harness import ACTIVE, OWN, PEERS, wait_for
from support import SocketTest

FOLDERS, FILES = 100, 1000
MAKE_FILES = f"""
import os, sys
for folder in range({FOLDERS}):
    os.makedirs(path := f"{{sys.argv[1]}}/{{folder:04}}/a_folder_name_that_makes_the_lines_long")
    os.chdir(path)
    for name in range({FILES}):
        with open(f"{{name:06}}", "w") as file:
            file.write(f"{{folder}}.{{name}}")
"""


class LargeListingTest(SocketTest):
    def test_100000_files(self):
        makers = [self.pair.popen(n, [sys.executable, "-c", MAKE_FILES, root])
                  for n, root in ((1, ACTIVE), (2, ACTIVE))]
        self.assertEqual([0, 0], [maker.wait(timeout=60) for maker in makers])
        folder = f"{ACTIVE}/0050/a_folder_name_that_makes_the_lines_long"
        self.write(1, f"{folder}/000500", "changed here")
        self.write(2, f"{folder}/000501", "changed there")
        self.write(1, f"{folder}/new", "only here")
        self.write(2, f"{folder}/stray", "only there")
        self.pair.path(2, f"{folder}/000502").unlink()
        self.write(2, f"{OWN}/file", "pulled")
        total = FOLDERS * FILES

        # On a busy machine an exchange may run into its time limit. The listing it left on its way
        # would end one that follows at once.
        wait_for(lambda: self.call(1).result().success, 120, "an exchange in time", 5)
        size = int(re.search(r"MSG_LISTING_ACK .*payload-len=(\d+)", self.new_log(2))[1])
        self.assertGreater(size, 8 << 20)
        for n in (1, 2):
            self.assertEqual([b"changed here", b"50.501", b"50.502", b"only here"],
                             [self.read(n, f"{folder}/{name}")
                              for name in ("000500", "000501", "000502", "new")])
            self.assertFalse(self.exists(n, f"{folder}/stray"))
        self.assertEqual(b"pulled", self.read(1, f"{PEERS}/file"))
        # The other one asks: the listing crosses the link the other way.
        wait_for(lambda: self.call(2).result().success, 120, "an exchange in time", 5)
        self.assert_logged(2, f"Local entries: {total + 2}; Peer entries: {total + 2}; "
                              f"Matched chunks: {total + 2}")
