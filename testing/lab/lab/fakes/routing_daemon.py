"""A routing daemon that only notes when it is told to read its files again.

Arguments: file for the notes, pid file to write (may be empty), files to watch. Each SIGHUP adds one line to the
notes: a JSON array of the time and the contents of the watched files.
"""

import json
import os
import signal
import sys
import time


def content(path):
    try:
        with open(path, encoding="utf-8") as file:
            return file.read()
    except OSError:
        return None


def main():
    notes, pid_file, *watched = sys.argv[1:]
    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGHUP})
    if pid_file:
        os.makedirs(os.path.dirname(pid_file), exist_ok=True)
        with open(pid_file, "w", encoding="ascii") as file:
            file.write(f"{os.getpid()}\n")
    # Its appearance says that everything above is done.
    with open(notes, "w", encoding="utf-8") as out:
        while True:
            signal.sigwait({signal.SIGHUP})
            out.write(json.dumps([time.time(), {os.path.basename(path): content(path) for path in watched}]) + "\n")
            out.flush()


if __name__ == "__main__":
    main()
