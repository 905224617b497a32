"""A process that reads a file as fast as it can: what others may ever find in it."""

import json
import os
import signal
import sys

from . import waiting

_READER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fakes", "tight_reader.py")


class TightReader:
    """Reads until `stop`; `path` is the file's name inside. It takes a processor: no longer than needed."""

    def __init__(self, lab, path):
        self._notes = lab.path(f"read.{id(self)}")
        self._process = lab.enclosure.spawn([sys.executable, "-B", _READER, path, self._notes])
        waiting.wait_until(lambda: os.path.exists(self._notes) and self.texts(), "a reader that reads")

    def texts(self):
        """All that were read, each different from the one before; None for no file."""
        with open(self._notes, encoding="utf-8") as file:
            return [json.loads(line) for line in file if line.endswith("\n")]

    def wait_text(self, text):
        """Waits until it was the last that was read."""
        waiting.wait_until(lambda: self.texts()[-1] == text, "the reader")

    def stop(self):
        """Returns the texts."""
        self._process.signal(signal.SIGTERM)
        self._process.wait()
        assert not self._process.stderr, self._process.stderr
        return self.texts()
