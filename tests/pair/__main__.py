"""python3 tests/pair [NAME...]: the tests on a pair of daemons."""

import signal
import sys

import harness

signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
sys.exit(harness.main(sys.argv[1:]))
