#!/usr/bin/python3
"""Removes temporary files that a crash or a power failure left in the replicated trees.

Every writer replaces a file through a temporary TempUpdate_<something> beside it. One that is
older than an hour belongs to nobody any more. Each removal and each failure goes to syslog. The
exit status is 0, or 1 when something could not be read or removed.
"""

import os
import stat
import sys
import syslog
import time

# With the slash fwalk enters a root that is a link; it follows none below.
ROOTS = (
    "/mnt/part.persistent/replicated_by_active_em/",
    "/mnt/part.persistent/replicated_by_this_em/",
    "/mnt/part.persistent/replicated_by_other_em/",
    "/var/run/replicated_by_active_em/",
)
PREFIX = "TempUpdate_"
MAX_AGE_SECONDS = 3600
MAX_DEPTH = 16  # of directories below a root: nothing deeper is replicated


def report(action, path, error):
    # repr keeps a name of any bytes printable and on one line.
    syslog.syslog(syslog.LOG_ERR, f"Could not {action} {path!r}: {error}")


def remove_if_old(name, directory, path, oldest_kept):
    """Removes one temporary, found in the open `directory`; returns the number of failures."""
    try:
        info = os.stat(name, dir_fd=directory, follow_symlinks=False)
        if stat.S_ISREG(info.st_mode) and info.st_mtime < oldest_kept:
            os.unlink(name, dir_fd=directory)
            syslog.syslog(syslog.LOG_INFO, f"Removed old temporary file {path!r}")
    except FileNotFoundError:
        pass  # its writer was faster
    except OSError as error:
        report("remove", path, error)
        return 1
    return 0


def clean_up(root, oldest_kept):
    """Removes the temporaries last written before `oldest_kept`; returns the number of failures.

    fwalk opens each directory without following links and the names are resolved in it, so a
    directory that is swapped for a link meanwhile leads nowhere else.
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
