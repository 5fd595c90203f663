"""A listing that is much larger than the largest unfragmented Corosync message."""

import os
import re
import sys

from em_pair import ACTIVE, EMS, OWN, wait_for
from support import PairTest

# An emulated EM can hash only some thousand files within the time limit.
FOLDERS, FILES = 100, 50 if "EM_PAIR_ARM" in os.environ else 1000
MAKE_FILES = f"""
import os
for folder in range({FOLDERS}):
    os.makedirs(path := f"{ACTIVE}/{{folder:04}}/a_folder_name_that_makes_the_lines_long")
    os.chdir(path)
    for name in range({FILES}):
        with open(f"{{name:06}}", "w") as file:
            file.write(f"{{folder}}.{{name}}")
"""


class LargeListingTest(PairTest):
    def test_many_files(self):
        makers = [self.pair.popen(n, [sys.executable, "-c", MAKE_FILES]) for n in EMS]
        self.assertEqual([0, 0], [maker.wait(timeout=120) for maker in makers])
        folder = f"{ACTIVE}/0050/a_folder_name_that_makes_the_lines_long"
        for n, name in ((1, "000030"), (2, "000031"), (1, "new"), (2, "stray")):
            self.write(n, f"{folder}/{name}", f"changed by {n}")
        self.pair.path(2, f"{folder}/000032").unlink()
        self.write(2, f"{OWN}/file", "pulled")
        # Each EM asks once, so the listing crosses the link in both directions. On a busy machine an exchange
        # may time out, and its late messages may end the next one.
        for n in EMS:
            wait_for(lambda: self.ask(n).success, 120, "an exchange in time", 5)
            self.assert_identical()
        self.assertEqual(b"changed by 1", self.read(2, f"{folder}/000030"))
        size = int(re.search(r"MSG_LISTING_ACK .*payload-len=(\d+)", self.log(2))[1])
        self.assertGreater(size, 80 * FOLDERS * FILES)
        self.assertIn(f"Matched chunks: {FOLDERS * FILES + 2}", self.log(2))
