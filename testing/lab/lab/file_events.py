"""Waiting until something is done with a file, as inotify(7) tells."""

import ctypes
import os
import select

_libc = ctypes.CDLL(None, use_errno=True)
IN_MODIFY, IN_ATTRIB, IN_CLOSE_NOWRITE, IN_MOVED_TO, IN_CREATE, IN_DELETE = 0x2, 0x4, 0x10, 0x80, 0x100, 0x200
# Somebody opened the file to read it, and closed it.
READ = IN_CLOSE_NOWRITE
# A file, or one of the directory, is another one than before. What readers do is none of these.
CHANGED = IN_MODIFY | IN_ATTRIB | IN_MOVED_TO | IN_CREATE | IN_DELETE


class FileEvents:
    """Of a file or a directory; counts on from its construction. Use as a context manager."""

    def __init__(self, path, events):
        self._descriptor = _libc.inotify_init1(os.O_CLOEXEC | os.O_NONBLOCK)
        if self._descriptor < 0 or _libc.inotify_add_watch(self._descriptor, os.fsencode(path), events) < 0:
            raise OSError(ctypes.get_errno(), "inotify")
        self._poller = select.poll()  # select(2) knows no descriptor above 1023
        self._poller.register(self._descriptor, select.POLLIN)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self._descriptor)

    def wait(self, seconds=None):
        """True when there was an event since the last call, or within so long; without a time it waits for one."""
        if not self._poller.poll(None if seconds is None else seconds * 1000):
            return False
        os.read(self._descriptor, 65536)
        return True
