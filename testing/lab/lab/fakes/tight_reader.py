"""Reads a file again and again without a pause.

Arguments: the file, a file for the notes. Each text that is another than the one before is a line of the notes, in
JSON; null where there is no file.
"""

import json
import os
import sys


def read(path):
    try:
        file = os.open(path, os.O_RDONLY)
    except FileNotFoundError:
        return None
    data = os.read(file, 1 << 20)
    os.close(file)
    return data


def main():
    path, notes = sys.argv[1:]
    last = b"nothing read yet"
    with open(notes, "w", encoding="utf-8") as out:
        while True:
            data = read(path)
            if data != last:
                last = data
                out.write(json.dumps(data if data is None else data.decode()) + "\n")
                out.flush()


if __name__ == "__main__":
    main()
