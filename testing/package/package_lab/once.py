"""What several test workers use and one of them makes."""

import fcntl
import os


def made(directory, make):
    """The directory, made by `make` unless it is there; whoever comes meanwhile waits."""
    with open(f"{directory}.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not os.path.isdir(directory):
            make(f"{directory}.new")
            os.rename(f"{directory}.new", directory)
    return directory
