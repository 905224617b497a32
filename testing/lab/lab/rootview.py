"""The private root directory of a lab.

The daemon uses fixed paths: /run, /usr/etc, /var/db, /var/vrfs, /etc/wan_lb, /dev/log. Some of them do not
exist on a stock system and none may be written for a test. So every lab gets a root of its own: a tmpfs
whose directories are bind mounts of the host's, except the fixed paths, which are bind mounts of ordinary
directories below the lab's own directory. A test can therefore read and write them from outside, with no
tricks, and they stay for inspection after a failure.

It works for an ordinary user inside a user namespace, and needs no overlay file system.
"""

import ctypes
import functools
import os
import threading

_libc = ctypes.CDLL(None, use_errno=True)
MS_NOSUID, MS_NODEV, MS_BIND, MS_REC, MS_PRIVATE = 2, 4, 4096, 16384, 1 << 18

# Path in the view -> directory below the lab's directory that it shows.
PRIVATE = {
    "/run": "run",
    "/usr/etc": "usr_etc",
    "/var/db": "var_db",
    "/var/vrfs": "var_vrfs",
    "/var/log": "var_log",
    "/var/lib/dhcp": "var_lib_dhcp",
    "/var/lib/dhcpcd": "var_lib_dhcpcd",
    "/etc": "etc",
    "/dev": "dev",
}
_DEVICES = ("null", "zero", "full", "random", "urandom", "tty", "net/tun")


def mount(source, target, fstype=None, flags=0, data=None):
    """mount(2); raises OSError."""

    def c_text(text):
        return os.fsencode(text) if text is not None else None

    if _libc.mount(c_text(source), c_text(target), c_text(fstype), ctypes.c_ulong(flags),
                   c_text(data)) != 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number), f"mount {source} on {target}")


_one_at_a_time = threading.Lock()  # labs may be made by several threads


@functools.cache
def _links_to_etc():
    """A directory with a link to each name of the host's /etc. Another name of a link is cheaper than another link."""
    import tempfile  # the first process of each lab needs it not  # pylint: disable=import-outside-toplevel
    directory = tempfile.TemporaryDirectory(prefix="lblab-etc-")
    for name in os.listdir("/etc"):
        if name != "wan_lb":
            os.symlink("/.host/etc/" + name, os.path.join(directory.name, name))
    return directory


def make_directories(top):
    """Creates what the view shows, below `top`. Runs outside, before the view is built."""
    for name in PRIVATE.values():
        os.mkdir(os.path.join(top, name))
    for name in ("run/lock", "run/netns", "root", "bin", "san", "etc/wan_lb"):
        os.mkdir(os.path.join(top, name))
    # /etc is the host's, name by name, so that a test can replace or hide any of them.
    with _one_at_a_time:
        links = _links_to_etc().name
    for name in os.listdir(links):
        os.link(os.path.join(links, name), os.path.join(top, "etc", name), follow_symlinks=False)
    dev = os.path.join(top, "dev")
    for name in ("net", "shm", "pts"):
        os.mkdir(os.path.join(dev, name))
    for name, target in (("fd", "/proc/self/fd"), ("stdin", "/proc/self/fd/0"),
                         ("stdout", "/proc/self/fd/1"), ("stderr", "/proc/self/fd/2"),
                         ("ptmx", "pts/ptmx")):
        os.symlink(target, os.path.join(dev, name))
    for name in _DEVICES:
        if os.path.exists("/dev/" + name):
            open(os.path.join(dev, name), "w", encoding="ascii").close()


def _bind(source, target):
    mount(source, target, None, MS_BIND | MS_REC)


def _show_directory(root, path, top):
    """Fills `path` of the view from the host's, going down only where something below is private."""
    for entry in os.scandir(path):
        if entry.path in PRIVATE or entry.path in ("/proc", "/sys", "/.host"):
            continue
        shown = root + entry.path
        if entry.is_symlink():
            os.symlink(os.readlink(entry.path), shown)
        elif entry.is_dir():
            os.mkdir(shown)
            if any(private.startswith(entry.path + "/") for private in PRIVATE):
                _show_directory(root, entry.path, top)
            else:
                _bind(entry.path, shown)
        elif entry.is_file():
            os.symlink("/.host" + entry.path, shown)


def build_and_enter(top):
    """Builds the view below `top` in the calling process's mount namespace and makes it the root."""
    root = os.path.join(top, "root")
    mount(None, "/", None, MS_REC | MS_PRIVATE)
    mount("lab", root, "tmpfs", MS_NOSUID)
    os.mkdir(root + "/.host")
    _show_directory(root, "/", top)
    # The host's own tree, for the symbolic links in /etc.
    mount("/", root + "/.host", None, MS_BIND | MS_REC)
    for shown, name in PRIVATE.items():
        os.makedirs(root + shown, exist_ok=True)
        mount(os.path.join(top, name), root + shown, None, MS_BIND)
    for name in _DEVICES:
        if os.path.exists("/dev/" + name):
            mount("/dev/" + name, f"{root}/dev/{name}", None, MS_BIND)
    mount("shm", root + "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV)
    # Terminals of its own: the host's ptmx beside its terminals is closed to ordinary users.
    mount("devpts", root + "/dev/pts", "devpts", MS_NOSUID, "newinstance,ptmxmode=0666,mode=0620")
    for fstype in ("proc", "sysfs"):
        path = "/proc" if fstype == "proc" else "/sys"
        os.mkdir(root + path)
        try:
            mount(fstype, root + path, fstype, MS_NOSUID | MS_NODEV)
        except OSError:  # Parts of the host's are hidden (a container): a fresh one is not allowed.
            _bind(path, root + path)
    os.chroot(root)
    os.chdir("/")
