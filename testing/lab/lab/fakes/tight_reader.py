"""Reads a file again and again without a pause while something goes on in its directory.

Arguments: the file, a file for the notes. Each text that is another than the one before is a line of the notes, in
JSON; null where there is no file.
"""

import json
import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))))

from lab import file_events  # noqa: E402  pylint: disable=wrong-import-position

SECONDS_OF_READING = 0.05


def read(path):
    try:
        file = os.open(path, os.O_RDONLY)
    except FileNotFoundError:
        return None
    data = os.read(file, 1 << 16)
    os.close(file)
    return data


def main():
    path, notes = sys.argv[1:]
    last = b"nothing read yet"
    with open(notes, "w", encoding="utf-8") as out, \
            file_events.FileEvents(os.path.dirname(os.path.realpath(path)), file_events.CHANGED) as events:
        while True:
            end = time.monotonic() + SECONDS_OF_READING
            while time.monotonic() < end:
                data = read(path)
                if data != last:
                    last = data
                    out.write(json.dumps(data if data is None else data.decode()) + "\n")
                    out.flush()
            events.wait()


if __name__ == "__main__":
    main()
