"""What the lab's processes see, looked at from outside: mounts that a test makes inside are visible nowhere else."""

import os

from . import waiting


def seen(lab, path):
    """The name outside for an absolute path inside."""
    return f"/proc/{lab.enclosure.holder_pid()}/root{path}"


class SmallDisk:
    """A small file system of its own on a directory; `directory` is its name inside, `path` its name outside."""

    def __init__(self, lab, directory):
        self.lab, self.directory = lab, directory
        lab.run(["mkdir", "-p", directory])
        lab.run(["mount", "-t", "tmpfs", "-o", "size=64k,mode=755", "none", directory])
        self.path = seen(lab, directory)

    def fill(self, leave_files=False):
        """Until nothing fits. The others' files are emptied, so that none can be written within its own space."""
        filler = f"{self.directory}/filler"
        others = f"find {self.directory} -type f ! -name filler -size +0"

        def full():
            empty = "true" if leave_files else f"{others} -exec truncate -s 0 {{}} +"
            self.lab.run(["sh", "-c", f"{empty}; cat /dev/zero >> {filler}"], check=False)
            if os.statvfs(self.path).f_bavail > 0:
                return False
            return leave_files or not self.lab.run(["sh", "-c", others]).stdout

        waiting.wait_until(full, "a full disk")

    def free(self):
        self.lab.run(["rm", f"{self.directory}/filler"])

    def read_only(self, on=True):
        # The mount, not the file system: its options name users that a user namespace does not know. A file that is
        # being written makes the mount busy.
        options = f"remount,bind,{'ro' if on else 'rw'}"
        waiting.wait_until(lambda: self.lab.run(["mount", "-o", options, self.directory], check=False).status == 0,
                           "another mode of the mount")
