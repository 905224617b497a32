"""The wall clock of the daemon, as a test sets it; the monotonic clock goes on as it is."""

import os
import shutil
import struct
import subprocess
import time

import pytest

_SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "fakes", "wall_clock.c")


class WallClock:
    """Give `environment` to the daemon; `set_to` and `shift_to` work at once."""

    def __init__(self, lab, speed=1, pause=0):
        """speed: seconds of this clock in one of the others. pause: milliseconds that pass after each look at it."""
        compiler = next(filter(None, map(shutil.which, ("cc", "gcc", "clang", "g++", "clang++"))), None)
        if compiler is None:
            pytest.skip("no compiler for the library that moves the clock")
        library, self._file = lab.path("wall_clock.so"), lab.path("wall_clock")
        subprocess.run([compiler, "-xc", "-O1", "-Wall", "-Werror", "-shared", "-fPIC", "-o", library, _SOURCE],
                       check=True)
        with open(self._file, "wb") as file:
            file.write(bytes(8))
        self.environment = {"LD_PRELOAD": library, "LAB_WALL_CLOCK": self._file,
                            "LAB_WALL_CLOCK_SPEED": str(speed), "LAB_WALL_CLOCK_PAUSE": str(pause)}
        self.offset = 0

    def shift_to(self, seconds):
        """Puts the clock that far from the right time; 0 is right again."""
        self.offset = int(seconds)
        with open(self._file, "r+b") as file:
            file.write(struct.pack("=q", self.offset))

    def set_to(self, seconds):
        """Seconds since the epoch."""
        self.shift_to(seconds - time.time())

    def now(self):
        return time.time() + self.offset
