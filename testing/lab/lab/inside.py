"""What the lab's processes see, looked at from outside: mounts that a test makes inside are visible nowhere else."""

import os


def seen(lab, path):
    """The name outside for an absolute path inside."""
    return f"/proc/{lab.enclosure.holder_pid()}/root{path}"


class SmallDisk:
    """A small file system of its own on a directory of the lab; `path` is its name outside."""

    def __init__(self, lab, directory, size="64k"):
        self.lab, self.directory = lab, directory
        os.makedirs(directory, exist_ok=True)
        lab.run(["mount", "-t", "tmpfs", "-o", f"size={size},mode=755", "none", directory])
        self.path = seen(lab, directory)

    def fill(self):
        """Until not one byte more fits."""
        self.lab.run(["sh", "-c", f"cat /dev/zero > {self.directory}/filler"], check=False)
        assert os.statvfs(self.path).f_bavail == 0

    def free(self):
        self.lab.run(["rm", f"{self.directory}/filler"])

    def read_only(self, on=True):
        self.lab.run(["mount", "-o", f"remount,{'ro' if on else 'rw'}", self.directory])
