"""Datagram sockets that record what the daemon says: the private /dev/log and a service manager's socket."""

import os
import re
import socket
import threading
import time

from . import stamps, waiting

_LINE = re.compile(r"<(?P<priority>\d+)>(?P<stamp>.{15}) (?P<tag>[^:\[]+)(\[(?P<pid>\d+)\])?: (?P<text>.*)",
                   re.S)

_MARKER = b"lab marker "


class Record:
    """One message: `when` it was sent, on the monotonic clock, `level` 0 to 7, `facility`, `tag`, `pid`, `text`."""

    def __init__(self, when, raw):
        self.when, self.raw = when, raw
        found = _LINE.match(raw)
        priority = int(found["priority"]) if found else 0
        self.facility, self.level = priority >> 3, priority & 7
        self.tag = found["tag"] if found else ""
        self.pid = int(found["pid"]) if found and found["pid"] else None
        self.text = found["text"] if found else raw

    def __repr__(self):
        return f"{self.when:.3f} <{self.level}> {self.text}"


class DatagramSink:
    """Binds a datagram socket of the file system and records what `parse(when, text)` makes of each message."""

    def __init__(self, path, parse):
        self.records = []
        self._markers = []
        self._path, self._parse = path, parse
        self._may_read, self._stands_still = threading.Event(), threading.Event()
        self._may_read.set()
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        stamps.enable(self._socket)  # by the sender's system call: a reader that is late changes nothing
        self._socket.bind(path)
        os.chmod(path, 0o666)
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        while True:
            if not self._may_read.is_set():
                self._stands_still.set()
                self._may_read.wait()
            data, _, sent = stamps.receive(self._socket)
            if not data:
                return
            if data.startswith(_MARKER):
                self._markers.append(data)
                continue
            text = data.decode(errors="replace").rstrip("\0\n")
            self.records.append(self._parse(stamps.monotonic_of(sent), text))

    def settle(self):
        """Waits until everything that was sent before this call is in the records."""
        marker = _MARKER + str(time.monotonic_ns()).encode()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.connect(self._path)
            sender.send(marker)
        waiting.wait_until(lambda: marker in self._markers, "the reader of " + self._path, interval=0.002)

    def stop_reading(self):
        """Reads nothing until `go_on`, and fills the queue: from now on whoever sends waits, or is refused."""
        self._stands_still.clear()
        self._may_read.clear()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.connect(self._path)
            sender.send(_MARKER)
            waiting.wait_until(self._stands_still.is_set, "the reader of " + self._path)
            sender.setblocking(False)
            try:
                while True:
                    sender.send(_MARKER)
            except BlockingIOError:
                pass

    def go_on(self):
        self._may_read.set()

    def mark(self):
        """A place in the records; give it to the operations below as `since` to look only behind it."""
        self.settle()
        return len(self.records)

    def matching(self, pattern, since=0):
        """The records so far that match."""
        self.settle()
        return self._matching(pattern, since)

    def _matching(self, pattern, since):
        expression = re.compile(pattern)
        return [record for record in self.records[since:] if expression.search(record.text)]

    def wait_for(self, pattern, timeout=waiting.PATIENCE, since=0, count=1):
        """Waits for `count` messages that match and returns the last of them."""
        waiting.wait_until(lambda: len(self._matching(pattern, since)) >= count,
                           lambda: f"{count} x {pattern!r} among:\n{self.text()}", timeout=timeout)
        return self._matching(pattern, since)[count - 1]

    def text(self):
        return "\n".join(map(repr, self.records))

    def close(self):
        self.go_on()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as waker:
            waker.connect(self._path)
            waker.send(b"")
        self._thread.join()
        self._socket.close()


class LogSink(DatagramSink):
    """The system log; `records` holds Record objects."""

    def __init__(self, path):
        super().__init__(path, Record)


class Notification:
    """One message to the service manager, for example "WATCHDOG=1"."""

    def __init__(self, when, text):
        self.when, self.text = when, text

    def __repr__(self):
        return f"{self.when:.3f} {self.text}"


class NotifySink(DatagramSink):
    """A service manager's notification socket."""

    def __init__(self, path):
        super().__init__(path, Notification)
