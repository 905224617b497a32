"""Waiting until somebody has read a file, as inotify(7) tells."""

import ctypes
import os
import select

_libc = ctypes.CDLL(None, use_errno=True)
IN_CLOSE_NOWRITE = 0x10


class ReadEvents:
    """Counts on from its construction; use as a context manager."""

    def __init__(self, path):
        self._descriptor = _libc.inotify_init1(os.O_CLOEXEC | os.O_NONBLOCK)
        if self._descriptor < 0 or _libc.inotify_add_watch(self._descriptor, os.fsencode(path), IN_CLOSE_NOWRITE) < 0:
            raise OSError(ctypes.get_errno(), "inotify")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self._descriptor)

    def wait(self, seconds):
        """True when somebody opened the file to read it, and closed it, since the last call or within so long."""
        if not select.select([self._descriptor], [], [], seconds)[0]:
            return False
        os.read(self._descriptor, 65536)
        return True
