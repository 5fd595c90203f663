#!/usr/bin/python3
"""Removes temporary files that a crash or a power failure left in the replicated trees.

Writers replace a file through a temporary file TempUpdate_<something> in the same directory. One that is
older than an hour was abandoned. Every removal and every failure is logged to syslog. The exit status is 0,
or 1 if something could not be read or removed.
"""

import os
import stat
import sys
import syslog
import time

# The trailing slash lets fwalk enter a root that is a symlink. Below it, symlinks are not followed.
ROOTS = (
    "/mnt/part.persistent/replicated_by_active_em/",
    "/mnt/part.persistent/replicated_by_this_em/",
    "/mnt/part.persistent/replicated_by_other_em/",
    "/var/run/replicated_by_active_em/",
)
PREFIX = "TempUpdate_"
MAX_AGE_SECONDS = 3600
MAX_DEPTH = 16  # directories below a root; deeper ones are not replicated


def report(action, path, error):
    # repr keeps any name printable and on one line.
    syslog.syslog(syslog.LOG_ERR, f"Could not {action} {path!r}: {error}")


def remove_if_old(name, directory, path, oldest_kept):
    """Removes one temporary file in the open `directory` if it is old; returns the number of failures."""
    try:
        info = os.stat(name, dir_fd=directory, follow_symlinks=False)
        if stat.S_ISREG(info.st_mode) and info.st_mtime < oldest_kept:
            os.unlink(name, dir_fd=directory)
            syslog.syslog(syslog.LOG_INFO, f"Removed old temporary file {path!r}")
    except FileNotFoundError:
        pass  # its writer has removed or renamed it
    except OSError as error:
        report("remove", path, error)
        return 1
    return 0


def clean_up(root, oldest_kept):
    """Removes temporary files last written before `oldest_kept`; returns the number of failures.

    fwalk opens each directory without following symlinks, and names are resolved in the open directory. So
    replacing a directory with a symlink has no effect.
    """
    unreadable = []
    failures = 0
    try:
        for directory, below, names, descriptor in os.fwalk(root, onerror=unreadable.append):
            if directory.count("/", len(root)) >= MAX_DEPTH - 1:
                below.clear()
            for name in names:
                if name.startswith(PREFIX):
                    path = os.path.join(directory, name)
                    failures += remove_if_old(name, descriptor, path, oldest_kept)
    except (OSError, RecursionError) as error:
        unreadable.append(error)
    for unread in unreadable:
        if not isinstance(unread, FileNotFoundError):
            report("read", root, unread)
            failures += 1
    return failures


def main():
    syslog.openlog("clean_up_temp_files", 0, syslog.LOG_DAEMON)
    oldest_kept = time.time() - MAX_AGE_SECONDS
    failures = sum(clean_up(root, oldest_kept) for root in ROOTS)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
